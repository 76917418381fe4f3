#!/usr/bin/env python3
"""An S3 front that checks every AWS Signature Version 4 with botocore (Debian python3-botocore),
over HTTPS (see peerlib.py for the common options; exits with 77 without botocore).

The peer rebuilds a botocore AWSRequest from what the client says it signed (the headers named in
SignedHeaders, as received), and lets botocore.auth.S3SigV4Auth sign it at X-Amz-Date with
"UNSIGNED-PAYLOAD" and the secret of the access key; botocore adds host, x-amz-date,
x-amz-content-sha256 and the token itself, so a client that leaves one out fails as at the real
service. Hosts are "<bucket>.s3[.<region>].localhost". Refusals are S3 XML errors: AccessDenied
(anonymous), AuthorizationHeaderMalformed, InvalidAccessKeyId, InvalidToken, RequestTimeTooSkewed,
SignatureDoesNotMatch, BadDigest. A PUT without query stores the body; GET and HEAD serve it (206
for a Range) or "sigv4 ok\n". Multipart uploads as at S3: POST ?uploads= opens one (UploadId
"sigv4-upload-<n>"), PUT ?partNumber=N&uploadId= keeps a part and answers its quoted MD5 as ETag,
POST ?uploadId= (CompleteMultipartUpload XML) joins the named parts into the object, checking
numbers and ETags (400 InvalidPart, InvalidPartOrder; 404 NoSuchUpload) and answers a
CompleteMultipartUploadResult; DELETE ?uploadId= aborts (204). Every request is recorded with its
query; a completion also with the parts it named, an abort as "aborted". Identities: AKIDSIGV4PLAIN and ASIASIGV4TOKEN (with a token), below.
Host 127.0.0.1: GET /__stats (requests, objects with size and MD5, open uploads), POST /__reset, POST /__fail?count=N&status=CODE (the next N signed
requests get CODE; &on=VERB only those of that verb).
"""

import base64
import datetime
import hashlib
import json
import sys
import xml.etree.ElementTree as ElementTree
from urllib.parse import parse_qs, urlsplit

import peerlib

try:
    from botocore.auth import S3SigV4Auth
    from botocore.awsrequest import AWSRequest
    from botocore.config import Config
    from botocore.credentials import Credentials
except ImportError:
    S3SigV4Auth = None

IDENTITIES = {"AKIDSIGV4PLAIN": ("sigv4/plain/SECRETKEY", None),
              "ASIASIGV4TOKEN": ("sigv4/token/SECRETKEY", "sigv4-session-token/EXAMPLE==")}


def botocore_signature(method, host, path, signed, amz_date, key, secret, token, region):
    request = AWSRequest(method=method, url="https://" + host + path,
                         headers={k: v for k, v in signed.items()
                                  if k not in ("x-amz-date", "x-amz-security-token", "x-amz-content-sha256")})
    request.context["timestamp"] = amz_date
    request.context["client_config"] = Config(s3={"payload_signing_enabled": False})
    auth = S3SigV4Auth(Credentials(key, secret, token), "s3", region)
    auth._modify_request_before_signing(request)
    canonical = auth.canonical_request(request)
    return auth.signature(auth.string_to_sign(request, canonical), request)


class Sigv4Handler(peerlib.Handler):
    server_version = "sigv4-peer"

    def error(self, code, name):
        self.send(code, "<?xml version=\"1.0\"?>\n<Error><Code>%s</Code></Error>" % name, "application/xml")
        return code

    def route(self):
        body = self.read_body()
        url = urlsplit(self.path)
        state, lock = self.server.state, self.server.lock
        host = self.headers.get("Host", "")
        if host.rsplit(":", 1)[0] == "127.0.0.1":
            with lock:
                if url.path == "/__reset":
                    state.update(requests=[], fail=0, objects={}, uploads={}, fail_on="")
                elif url.path == "/__fail":
                    query = {k: v[-1] for k, v in parse_qs(url.query).items()}
                    state.update(fail=int(query.get("count", 1)), fail_status=int(query.get("status", 503)),
                                 fail_on=query.get("on", ""))
                objects = {k: {"size": len(v), "md5": hashlib.md5(v).hexdigest()} for k, v in state["objects"].items()}
                return self.send(200, json.dumps({"requests": state["requests"], "objects": objects,
                                                  "open_uploads": sorted(state["uploads"])}), "application/json")
        record = {"method": self.command, "query": url.query, "access_key": None, "region": None,
                  "signed_headers": [], "length": len(body)}
        record["status"] = self.check(url, host, body, record)
        with lock:
            state["requests"].append(record)

    def multipart(self, name, query, body, record):
        state = self.server.state
        with self.server.lock:
            if "uploads" in query:
                upload = "sigv4-upload-%d" % (len(state["requests"]) + 1)
                state["uploads"][upload] = {"name": name, "parts": {}}
                return self.send(200, "<InitiateMultipartUploadResult><UploadId>%s</UploadId>"
                                      "</InitiateMultipartUploadResult>" % upload, "application/xml") or 200
            upload = state["uploads"].get(query["uploadId"])
            if upload is None or upload["name"] != name:
                return self.error(404, "NoSuchUpload")
            if self.command == "PUT":
                etag = hashlib.md5(body).hexdigest()
                upload["parts"][int(query["partNumber"])] = (etag, body)
                return self.send(200, headers=[("ETag", '"%s"' % etag)]) or 200
            try:
                named = [(int(part.findtext("PartNumber")), part.findtext("ETag"))
                         for part in ElementTree.fromstring(body).findall("Part")]
            except (ElementTree.ParseError, TypeError, ValueError):
                return self.error(400, "MalformedXML")
            record["parts"] = named
            if [n for n, _ in named] != sorted(n for n, _ in named):
                return self.error(400, "InvalidPartOrder")
            if not named or any(upload["parts"].get(n, ("",))[0] != etag.strip('"') for n, etag in named):
                return self.error(400, "InvalidPart")
            state["objects"][name] = b"".join(upload["parts"][n][1] for n, _ in named)
            del state["uploads"][query["uploadId"]]
        return self.send(200, "<CompleteMultipartUploadResult><Key>%s</Key><ETag>\"%s-%d\"</ETag>"
                              "</CompleteMultipartUploadResult>" % (name, "0" * 32, len(named)),
                         "application/xml") or 200

    def check(self, url, host, body, record):
        labels = host.rsplit(":", 1)[0].split(".")
        if "s3" not in labels or labels[-1] != "localhost":
            return self.error(400, "InvalidURI")
        bucket, region = ".".join(labels[:labels.index("s3")]), ".".join(labels[labels.index("s3") + 1:-1]) or None
        authorization = self.headers.get("Authorization")
        if authorization is None:
            return self.error(403, "AccessDenied")
        try:
            fields = dict(part.strip().split("=", 1) for part in authorization.split(" ", 1)[1].split(","))
            key, date, scope_region, service, _ = fields["Credential"].split("/")
            signed_names = fields["SignedHeaders"].split(";")
        except (IndexError, KeyError, ValueError):
            return self.error(400, "AuthorizationHeaderMalformed")
        record.update(access_key=key, region=scope_region, signed_headers=signed_names)
        if service != "s3" or scope_region != region:
            return self.error(400, "AuthorizationHeaderMalformed")
        if key not in IDENTITIES:
            return self.error(403, "InvalidAccessKeyId")
        secret, token = IDENTITIES[key]
        if self.headers.get("X-Amz-Security-Token") != token:
            return self.error(403, "InvalidToken")
        amz_date = self.headers.get("X-Amz-Date", "")
        try:
            when = datetime.datetime.strptime(amz_date, "%Y%m%dT%H%M%SZ").replace(tzinfo=datetime.timezone.utc)
        except ValueError:
            return self.error(403, "AccessDenied")
        if abs(datetime.datetime.now(datetime.timezone.utc) - when) > datetime.timedelta(minutes=15):
            return self.error(403, "RequestTimeTooSkewed")
        signed = {name: self.headers.get(name) for name in signed_names}
        path = url.path + ("?" + url.query if url.query else "")
        if (None in signed.values() or date != amz_date[:8]
                or self.headers.get("X-Amz-Content-SHA256") != "UNSIGNED-PAYLOAD"
                or botocore_signature(self.command, host, path, signed, amz_date, key, secret, token,
                                      region) != fields["Signature"]):
            return self.error(403, "SignatureDoesNotMatch")
        md5 = self.headers.get("Content-MD5")
        if md5 is not None and md5 != base64.b64encode(hashlib.md5(body).digest()).decode():
            return self.error(400, "BadDigest")
        state, name = self.server.state, bucket + url.path
        query = {k: v[-1] for k, v in parse_qs(url.query, keep_blank_values=True).items()}
        with self.server.lock:
            failing = state["fail"] > 0 and state["fail_on"] in ("", self.command)
            state["fail"] -= failing
            stored = state["objects"].get(name, b"sigv4 ok\n")
            if failing:
                pass
            elif self.command == "PUT" and not url.query:
                state["objects"][name] = body
            elif self.command == "DELETE" and "uploadId" in query:
                record["aborted"] = state["uploads"].pop(query["uploadId"], None) is not None
            elif self.command == "DELETE":
                state["objects"].pop(name, None)
        if failing:
            return self.error(state["fail_status"], "SlowDown")
        if self.command == "DELETE":
            return self.send(204) or 204
        if self.command in ("PUT", "POST") and ("uploads" in query or "uploadId" in query):
            return self.multipart(name, query, body, record)
        if self.command not in ("GET", "HEAD"):
            return self.send(200, headers=[("ETag", '"%s"' % hashlib.md5(body).hexdigest())]) or 200
        asked = self.headers.get("Range", "")
        if not asked.startswith("bytes="):
            return self.send(200, stored, "application/octet-stream") or 200
        first, _, last = asked[6:].partition("-")
        start, end = int(first), min(int(last) + 1 if last else len(stored), len(stored))
        return self.send(206, stored[start:end], "application/octet-stream",
                         [("Content-Range", "bytes %d-%d/%d" % (start, end - 1, len(stored)))]) or 206


if __name__ == "__main__":
    if S3SigV4Auth is None:
        sys.stderr.write("sigv4_peer.py: botocore missing (Debian package python3-botocore)\n")
        sys.exit(peerlib.SKIP)
    peerlib.serve(Sigv4Handler, "S3 front that checks SigV4 with botocore.", tls=True,
                  state=lambda args: {"requests": [], "fail": 0, "fail_status": 503, "fail_on": "",
                                     "objects": {}, "uploads": {}})
