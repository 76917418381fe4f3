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
for a Range) or "sigv4 ok\n". Identities: AKIDSIGV4PLAIN and ASIASIGV4TOKEN (with a token), below.
Host 127.0.0.1: GET /__stats, POST /__reset, POST /__fail?count=N&status=CODE (the next N signed
requests get CODE).
"""

import base64
import datetime
import hashlib
import json
import sys
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
                    state.update(requests=[], fail=0, objects={})
                elif url.path == "/__fail":
                    query = {k: int(v[-1]) for k, v in parse_qs(url.query).items()}
                    state.update(fail=query.get("count", 1), fail_status=query.get("status", 503))
                return self.send(200, json.dumps({"requests": state["requests"]}), "application/json")
        record = {"method": self.command, "access_key": None, "region": None, "signed_headers": []}
        record["status"] = self.check(url, host, body, record)
        with lock:
            state["requests"].append(record)

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
        with self.server.lock:
            failing = state["fail"] > 0
            state["fail"] -= failing
            stored = state["objects"].get(name, b"sigv4 ok\n")
            if self.command == "PUT" and not url.query:
                state["objects"][name] = body
            elif self.command == "DELETE":
                state["objects"].pop(name, None)
        if failing:
            return self.error(state["fail_status"], "SlowDown")
        if self.command == "DELETE":
            return self.send(204) or 204
        if self.command == "POST" and "uploads" in url.query:
            return self.send(200, "<InitiateMultipartUploadResult><UploadId>sigv4-peer-upload</UploadId>"
                                  "</InitiateMultipartUploadResult>", "application/xml") or 200
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
                  state=lambda args: {"requests": [], "fail": 0, "fail_status": 503, "objects": {}})
