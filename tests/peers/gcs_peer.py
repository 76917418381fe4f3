#!/usr/bin/env python3
"""Google Cloud Storage's XML API over plain HTTP (see peerlib.py for the common options), as the
public documentation describes simple and resumable uploads, with faults to inject.

    PUT /bucket/key                  simple upload; Content-MD5 checked when sent (400 BadDigest);
                                     200 with x-goog-hash
    POST /bucket/key                 with "x-goog-resumable: start": 201 with Location
                                     <same URL>?upload_id=ID; a Content-MD5 here is the hash the
                                     finished object must have
    PUT ...?upload_id=ID             Content-Range "bytes a-b/*" (a chunk; b + 1 must be a multiple
                                     of 256 KiB) answered 308 with "Range: bytes=0-N" (none while
                                     nothing is stored); "bytes a-b/T" ends the object with 200 and
                                     x-goog-hash; "bytes */*" is the status query, "bytes */T" ends
                                     an object of T stored bytes. Bytes already held are skipped.
    DELETE ...?upload_id=ID          204 (404 for an unknown session)
    GET / HEAD /bucket/key           the object, with "Range: bytes=a-b" as 206
The key is the percent-decoded path, so "%2F" and "/" name the same object. x-goog-hash carries
"crc32c=AAAAAA==" as a stand-in (no client here reads it) and the real md5.
Bearer token: with /__mode?token=T, session start, simple PUT and DELETE must carry
"Authorization: Bearer T" (else 401); chunk and status PUTs carrying any Authorization are
counted in "chunk_auth".
Control: POST /__mode?[token=T]&[hash=combined|split|twice] (twice: a line with a wrong md5, then
the right one) resets everything; POST /__fail?kind=K[&count=N] queues N faults of a kind for the
next chunk PUTs (503 also for session starts and simple PUTs): 503, short (store half, rounded down
to 256 KiB), drop (store, then break the answer off
after its headers), badmd5 (final answer reports a wrong md5),
404, norange (308 without Range, nothing stored). GET /__stats: {"requests": [{verb, path, kind,
range, length, auth}], "objects": {key: size}, "sessions": n, "deleted": n, "chunk_auth": n}.
"""

import base64
import hashlib
import json
import re
import uuid
from urllib.parse import parse_qs, quote, unquote, urlsplit

import peerlib

QUANTUM = 256 * 1024
FAULTS = ("503", "short", "drop", "badmd5", "404", "norange")
CONTENT_RANGE = re.compile(r"bytes (?:\*|(\d+)-(\d+))/(\*|\d+)$")


def fresh(options=None):
    options = options or {}
    return {"token": options.get("token", ""), "hash": options.get("hash", "combined"), "faults": [],
            "objects": {}, "sessions": {}, "requests": [], "deleted": 0, "chunk_auth": 0}


class StorageHandler(peerlib.Handler):
    server_version = "gcs-peer"

    def route(self):
        body = self.read_body()
        url = urlsplit(self.path)
        query = {k: v[-1] for k, v in parse_qs(url.query).items()}
        st, lock = self.server.state, self.server.lock
        if url.path == "/__mode":
            with lock:
                self.server.state = fresh(query)
            return self.send(200, "mode set\n")
        if url.path == "/__fail":
            if query.get("kind") not in FAULTS:
                return self.send(400, "unknown fault\n")
            with lock:
                st["faults"] += [query["kind"]] * int(query.get("count", 1))
            return self.send(200, "queued\n")
        if url.path == "/__stats":
            with lock:
                stats = {k: st[k] for k in ("requests", "deleted", "chunk_auth")}
                stats["objects"] = {k: len(v) for k, v in st["objects"].items()}
                stats["sessions"] = len(st["sessions"])
            return self.send(200, json.dumps(stats), "application/json")
        key = unquote(url.path)
        upload_id = query.get("upload_id")
        kind = ("session" if upload_id else
                "start" if self.command == "POST" else "simple" if self.command == "PUT" else "object")
        with lock:
            st["requests"].append({"verb": self.command, "path": url.path, "kind": kind,
                                   "range": self.headers.get("Content-Range"), "length": len(body),
                                   "auth": "Authorization" in self.headers})
        if upload_id:
            return self.session(st, key, upload_id, body)
        if self.command in ("POST", "PUT") and self.take_fault("503"):
            return self.error(503, "ServiceUnavailable", "Please retry")
        if self.command == "POST":
            if self.headers.get("x-goog-resumable") != "start":
                return self.error(400, "InvalidArgument", "Only resumable starts are served")
            if not self.authorized():
                return self.error(401, "AuthenticationRequired", "Bearer token missing or wrong")
            upload_id = uuid.uuid4().hex
            with lock:
                st["sessions"][upload_id] = {"key": key, "data": bytearray(),
                                             "md5": self.headers.get("Content-MD5")}
            location = "http://127.0.0.1:%d%s?upload_id=%s" % (self.server.server_address[1],
                                                                 quote(key), upload_id)
            return self.send(201, b"", headers=[("Location", location)])
        if self.command == "PUT":
            if not self.authorized():
                return self.error(401, "AuthenticationRequired", "Bearer token missing or wrong")
            sent = self.headers.get("Content-MD5")
            if sent is not None and sent != base64.b64encode(hashlib.md5(body).digest()).decode():
                return self.error(400, "BadDigest", "The Content-MD5 you specified did not match")
            with lock:
                st["objects"][key] = bytes(body)
            return self.send(200, b"", headers=self.hash_headers(body, False))
        if self.command == "DELETE":
            if not self.authorized():
                return self.error(401, "AuthenticationRequired", "Bearer token missing or wrong")
            with lock:
                found = st["objects"].pop(key, None) is not None
            return self.send(204) if found else self.error(404, "NoSuchKey", "No such object")
        with lock:
            data = st["objects"].get(key)
        if data is None:
            return self.error(404, "NoSuchKey", "The specified key does not exist.")
        match = re.fullmatch(r"bytes=(\d+)-(\d*)", self.headers.get("Range") or "")
        if not match:
            return self.send(200, data, "application/octet-stream", self.hash_headers(data, False))
        first = int(match.group(1))
        last = min(int(match.group(2)) if match.group(2) else len(data) - 1, len(data) - 1)
        if first >= len(data):
            return self.error(416, "InvalidRange", "The requested range cannot be satisfied.")
        return self.send(206, data[first:last + 1], "application/octet-stream",
                         [("Content-Range", "bytes %d-%d/%d" % (first, last, len(data)))])

    def session(self, st, key, upload_id, body):
        lock = self.server.lock
        with lock:
            session = st["sessions"].get(upload_id)
        if session is None or session["key"] != key:
            return self.error(404, "NoSuchUpload", "No such upload session")
        if self.command == "DELETE":
            if not self.authorized():
                return self.error(401, "AuthenticationRequired", "Bearer token missing or wrong")
            with lock:
                st["sessions"].pop(upload_id, None)
                st["deleted"] += 1
            return self.send(204)
        if self.command != "PUT":
            return self.error(405, "MethodNotAllowed", "PUT or DELETE on a session")
        if "Authorization" in self.headers:
            with lock:
                st["chunk_auth"] += 1
        match = CONTENT_RANGE.match(self.headers.get("Content-Range") or "")
        if not match:
            return self.error(400, "InvalidArgument", "Bad Content-Range")
        first, last, total = match.groups()
        total = None if total == "*" else int(total)
        data = session["data"]
        if session.get("done"):
            return self.send(200, b"", headers=self.hash_headers(data, False))
        if first is not None:
            first, last = int(first), int(last)
            if last - first + 1 != len(body) or first > len(data):
                return self.error(400, "InvalidArgument", "Content-Range does not match the body or leaves a gap")
            if total is None and (last + 1) % QUANTUM:
                return self.error(400, "InvalidArgument", "A chunk must end at a multiple of 256 KiB")
            if self.take_fault("404"):
                with lock:
                    st["sessions"].pop(upload_id, None)
                return self.error(404, "NoSuchUpload", "No such upload session")
            if self.take_fault("503"):
                return self.error(503, "ServiceUnavailable", "Please retry")
            if self.take_fault("norange"):
                return self.send(308)
            new = memoryview(body)[len(data) - first:]  # no copy: the peer must keep up with a client
            if self.take_fault("short"):
                keep = (len(data) + len(new) // 2) // QUANTUM * QUANTUM - len(data)
                new = new[:max(keep, 0)]
            with lock:
                data += new
            if self.take_fault("drop"):
                if total is not None and len(data) == total:
                    self.finish(st, upload_id, session, answer=False)  # stored for good first
                # The answer breaks off after its headers. (With no byte at all, libcurl would
                # send the request again by itself on a reused connection.)
                self.wfile.write(b"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n")
                self.close_connection = True
                return None
        if total is not None and len(data) == total:
            return self.finish(st, upload_id, session)
        if total is not None and len(data) > total:
            return self.error(400, "InvalidArgument", "More bytes than the total")
        return self.send(308, b"", headers=[("Range", "bytes=0-%d" % (len(data) - 1))] if data else [])

    def finish(self, st, upload_id, session, answer=True):
        data = session["data"]  # final from here on: stored as it is, without a copy
        if session["md5"] and session["md5"] != base64.b64encode(hashlib.md5(data).digest()).decode():
            with self.server.lock:
                st["sessions"].pop(upload_id, None)
            return self.error(400, "BadDigest", "The MD5 given at the start does not match")
        with self.server.lock:
            st["objects"][session["key"]] = data
            session["done"] = True
        if not answer:
            return None
        return self.send(200, b"", headers=self.hash_headers(data, self.take_fault("badmd5")))

    def hash_headers(self, data, wrong):
        digest = hashlib.md5(b"wrong" + data if wrong else data).digest()
        md5 = "md5=" + base64.b64encode(digest).decode()
        crc = "crc32c=AAAAAA=="
        mode = self.server.state["hash"]
        headers = [("ETag", '"%s"' % hashlib.md5(data).hexdigest())]
        if mode == "split":
            return headers + [("x-goog-hash", crc), ("x-goog-hash", md5)]
        if mode == "twice":
            stale = "md5=" + base64.b64encode(hashlib.md5(b"stale").digest()).decode()
            return headers + [("x-goog-hash", crc + "," + stale), ("x-goog-hash", md5)]
        return headers + [("x-goog-hash", crc + "," + md5)]

    def authorized(self):
        token = self.server.state["token"]
        return not token or self.headers.get("Authorization") == "Bearer " + token

    def take_fault(self, kind):
        with self.server.lock:
            faults = self.server.state["faults"]
            if kind in faults:
                faults.remove(kind)
                return True
        return False

    def error(self, code, name, message):
        xml = ("<?xml version='1.0' encoding='UTF-8'?><Error><Code>%s</Code><Message>%s</Message></Error>"
               % (name, message))
        return self.send(code, xml, "application/xml")


if __name__ == "__main__":
    peerlib.serve(StorageHandler, "Google Cloud Storage XML API peer.", state=lambda args: fresh())
