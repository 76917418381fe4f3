#!/usr/bin/env python3
"""A misbehaving HTTP(S) server for transport tests (see peerlib.py for the common options).

Any path serves the stream of peerlib.py, shaped and broken as the query string asks:
    size=N          body size (default 1000); "Range: bytes=a-b | a-" gives 206 with
                    Content-Range, 416 for a start >= N; HEAD gives the headers only
    chunked=1       Transfer-Encoding: chunked
    times=N         the faults below hit the first N requests of the test id only
    status=CODE     answer CODE with a short body instead
    delay=S         wait S seconds (at most 30) before answering
    close_after=K   announce the whole body, send K bytes, close the connection
    stall_after=K   after K body bytes wait `stall` seconds (default 5, at most 30), then go on
    bad_range=S     answer a range shifted by S bytes, truthfully labelled
    ignore_range=1  answer a range with 200 and the whole body
    on=VERB[:TEXT] the faults (and "times") apply only to requests of that verb whose query
                    holds TEXT, e.g. on=POST:uploadId= for the completion of an S3 upload
    reset_after=K   (uploads) read K bytes of the request body, then reset the connection
    error200=1      answer 200 with an S3 <Error> document
    blocks=A,B      the committed block list (Azure Get Block List) names these blocks
    file=PATH       serve the bytes of this local file instead of the stream (parsers need real
                    content to be cut off in the middle of a value)
Options may also stand in the path, as "/q/<options>/rest", for clients that add a query of
their own (upload sessions). The test id is the options' "id". PUT answers 201 with an ETag, POST
200, both with {"length", "sha256"} of the body, but the S3 and Azure control calls get the XML
their clients expect (create and complete of a multipart upload, an empty committed block list);
DELETE 204. Bookkeeping: GET /__stats?id=X gives {"requests": n, "methods": [...],
"ranges": [...], "queries": [...], "lengths": [...], "bodies": [...], "paths": [...],
"authorizations": [...], "ports": [client ports]} (request body lengths, and the bodies under
4 KiB as text); POST /__reset?id=X
forgets that id.
A request that accepts "multipart/related" (WADO-RS) gets the body as the one part of a
multipart/related answer; ranges and faults then apply to that answer's bytes.
"""

import hashlib
import json
import re
import socket
import struct
import time
from urllib.parse import parse_qs, urlsplit

import peerlib


BOUNDARY = "mdx-fault-peer-boundary"
MULTIPART_TYPE = 'multipart/related; type="application/dicom"; boundary=%s' % BOUNDARY


def multipart_body(size):
    """The stream's first size bytes as the one part of a multipart/related body."""
    head = ("--%s\r\nContent-Type: application/dicom\r\n\r\n" % BOUNDARY).encode()
    return head + b"".join(peerlib.chunks(0, size, 4096)) + ("\r\n--%s--\r\n" % BOUNDARY).encode()


class FaultHandler(peerlib.Handler):
    server_version = "mdx-fault-peer/2"

    def route(self):
        url = urlsplit(self.path)
        query = {k: v[-1] for k, v in parse_qs(url.query, keep_blank_values=True).items()}
        in_path = re.match(r"^/q/([^/]*)(/.*)?$", url.path)
        if in_path:
            query = dict({k: v[-1] for k, v in parse_qs(in_path.group(1), keep_blank_values=True).items()}, **query)
        number = lambda name, default=None: float(query[name]) if query.get(name) else default
        tests = self.server.state
        tid = query.get("id", "")
        verb, _, text = query.get("on", "").partition(":")
        matching = (not verb or self.command == verb) and text in url.query
        if url.path in ("/__stats", "/__reset"):
            with self.server.lock:
                st = tests.pop(tid, None) if url.path == "/__reset" else tests.get(tid)
            return self.send(200, json.dumps(st or {"requests": 0}), "application/json")
        with self.server.lock:
            st = tests.setdefault(tid, {"requests": 0, "methods": [], "ranges": [], "queries": [], "lengths": [],
                                        "bodies": [], "matching": 0, "paths": [], "authorizations": [],
                                        "ports": []})
            st["requests"] += 1
            st["methods"].append(self.command)
            st["ranges"].append(self.headers.get("Range"))
            st["queries"].append(url.query)
            st["paths"].append(self.path)
            st["authorizations"].append(self.headers.get("Authorization"))
            st["ports"].append(self.client_address[1])
            st["matching"] += matching
            faulty = matching and (number("times") is None or st["matching"] <= number("times"))
        if faulty and query.get("reset_after"):
            self.rfile.read(min(int(number("reset_after")), int(self.headers.get("Content-Length") or 0)))
            self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            self.close_connection = True
            self.connection.close()
            return None
        body = self.read_body()
        with self.server.lock:
            st["lengths"].append(len(body))
            st["bodies"].append(body.decode("latin-1") if len(body) < 4096 else None)
        if faulty and "delay" in query:
            time.sleep(min(number("delay"), 30.0))
        if faulty and "status" in query:
            code = int(number("status"))
            return self.send(code, b"injected fault %d\n" % code)
        if faulty and query.get("error200"):
            return self.send(200, b"<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Error><Code>InternalError</Code>"
                                  b"<Message>We encountered an internal error. Please try again.</Message></Error>",
                             "application/xml")
        if self.command == "POST" and "uploads" in parse_qs(url.query, keep_blank_values=True):
            return self.send(200, "<InitiateMultipartUploadResult><UploadId>fault-peer-upload</UploadId>"
                                  "</InitiateMultipartUploadResult>", "application/xml")
        if self.command == "POST" and "uploadId" in parse_qs(url.query):
            return self.send(200, "<CompleteMultipartUploadResult><ETag>\"x-2\"</ETag>"
                                  "</CompleteMultipartUploadResult>", "application/xml")
        if self.command == "GET" and "comp=blocklist" in url.query:
            names = [n for n in query.get("blocks", "").split(",") if n]
            listed = "".join("<Block><Name>%s</Name><Size>1</Size></Block>" % n for n in names)
            return self.send(200, "<BlockList><CommittedBlocks>%s</CommittedBlocks></BlockList>" % listed,
                             "application/xml", [("ETag", '"0x8FAULTPEER"')])
        if self.command in ("PUT", "POST"):
            answer = {"length": len(body), "sha256": hashlib.sha256(body).hexdigest()}
            etag = [("ETag", '"%s"' % hashlib.md5(body).hexdigest() if body else '"0x8FAULTPEER"')]
            return self.send(201 if self.command == "PUT" else 200, json.dumps(answer), "application/json", etag)
        if self.command == "DELETE":
            return self.send(204)
        total = int(number("size", 1000))
        multipart = "multipart/related" in self.headers.get("Accept", "")
        whole = multipart_body(total) if multipart else None
        if query.get("file") and not multipart:
            with open(query["file"], "rb") as f:
                whole = f.read()
        total = len(whole) if whole is not None else total
        code, start, end = 200, 0, total  # [start, end)
        asked = self.headers.get("Range", "")
        if asked.startswith("bytes=") and not (faulty and query.get("ignore_range")):
            first, _, last = asked[6:].partition("-")
            start = int(first)
            if start >= total:
                return self.send(416, headers=[("Content-Range", "bytes */%d" % total)])
            code, end = 206, min(int(last) + 1 if last else total, total)
            shift = int(number("bad_range", 0)) if faulty else 0
            if shift:
                width = end - start
                start = start + shift if start + shift < total else max(0, start - shift)
                end = min(start + width, total)
        chunked = bool(query.get("chunked"))
        self.send_response(code)
        self.send_header("Content-Type", MULTIPART_TYPE if multipart else "application/octet-stream")
        if code == 206:
            self.send_header("Content-Range", "bytes %d-%d/%d" % (start, end - 1, total))
        self.send_header(*(("Transfer-Encoding", "chunked") if chunked else ("Content-Length", str(end - start))))
        self.end_headers()
        if self.command == "HEAD":
            return
        close_at = number("close_after") if faulty else None
        stall_at = number("stall_after") if faulty else None
        sent = 0
        pieces = ([whole[i:min(i + 4096, end)] for i in range(start, end, 4096)] if whole is not None
                  else peerlib.chunks(start, end, 4096))
        for data in pieces:
            if stall_at is not None and sent + len(data) > stall_at:
                self.wfile.flush()
                time.sleep(min(number("stall", 5.0), 30.0))
                stall_at = None
            if close_at is not None and sent + len(data) >= close_at:
                data = data[:int(close_at - sent)]
            self.wfile.write(b"%x\r\n%s\r\n" % (len(data), data) if chunked and data else data)
            sent += len(data)
            if close_at is not None and sent >= close_at:
                self.wfile.flush()
                self.connection.close()
                self.close_connection = True
                return
        if chunked:
            self.wfile.write(b"0\r\n\r\n")


if __name__ == "__main__":
    peerlib.serve(FaultHandler, "HTTP(S) peer that breaks answers on request.", state=lambda args: {})
