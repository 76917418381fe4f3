#!/usr/bin/env python3
"""An S3 front that checks every AWS Signature Version 4 with botocore (Debian python3-botocore).

    python3 sigv4_peer.py [--plain] [--port-file FILE] [--max-seconds 600] [--verbose]
                          [--credentials KEY:SECRET[:TOKEN]]...

Binds 127.0.0.1 on a free port and prints "PORT <n>" as the first line on stdout (or, with
--port-file, writes "<n>" to FILE). HTTPS with the test certificate unless --plain. Exits with
77 when botocore cannot be imported.

The signature is not computed here: for each request the peer rebuilds a botocore AWSRequest from
what the client says it signed (the headers named in SignedHeaders, with their received values),
sets botocore's signing time to the request's X-Amz-Date and lets botocore.auth.S3SigV4Auth
produce canonical request, string to sign and signature with the payload hash fixed to
"UNSIGNED-PAYLOAD" and the credentials that belong to the access key (with the request's
X-Amz-Security-Token as session token). botocore adds host, x-amz-date, x-amz-content-sha256 and,
with a token, x-amz-security-token to what it signs, so a client that leaves one of them out of
its signed list fails as it would at the real service.

Buckets are virtual hosts: the Host header is "<bucket>.s3.<region>.localhost[:port]" (or
"<bucket>.s3.localhost[:port]" without a region, as an anonymous client sends it); other hosts
get 400 InvalidURI. Any object key, any query and the verbs GET, HEAD, PUT, POST and DELETE are
accepted; nothing is stored.

Answers (S3-style XML errors):
    403 AccessDenied             no Authorization header (anonymous requests are refused)
    400 AuthorizationHeaderMalformed   unparsable header, or scope region/service not matching
                                 the host and "s3"
    403 InvalidAccessKeyId       an access key the peer does not know
    403 InvalidToken             token missing, extra or wrong for that access key
    400 InvalidArgument          x-amz-content-sha256 other than UNSIGNED-PAYLOAD
    403 RequestTimeTooSkewed     X-Amz-Date more than 15 minutes from now, or scope date not its day
    403 SignatureDoesNotMatch    botocore computes a different signature (the body carries
                                 botocore's CanonicalRequest and StringToSign)
    400 BadDigest                Content-MD5 present and not the MD5 of the body
    200 (DELETE: 204)            signature valid; GET/HEAD carry the body "sigv4 ok\n",
                                 POST with "uploads" an InitiateMultipartUploadResult

Built-in identities (more with --credentials; "none" as TOKEN means no token):
    AKIDSIGV4PLAIN / sigv4/plain/SECRETKEY                         no session token
    ASIASIGV4TOKEN / sigv4/token/SECRETKEY, token "sigv4-session-token/EXAMPLE=="

Bookkeeping (host 127.0.0.1 or localhost, not counted):
    GET  /__stats       {"requests": [{"method", "bucket", "region", "path", "query",
                          "access_key", "signed_headers": [...], "content_md5": bool,
                          "token": bool, "status", "code", "amz_date"}...]}
    POST /__reset       forget the list and any pending failures
    POST /__fail?count=N&status=CODE   the next N requests with a valid signature answer CODE
                          (default 503, "SlowDown") instead of succeeding
"""

import argparse
import base64
import datetime
import hashlib
import json
import os
import ssl
import sys
import threading
import traceback
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from urllib.parse import parse_qs, urlsplit
from xml.sax.saxutils import escape

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.dont_write_bytecode = True  # keep the source tree clean of __pycache__
import fault_peer  # noqa: E402  (watch_lifetime)

try:
    from botocore.auth import S3SigV4Auth
    from botocore.awsrequest import AWSRequest
    from botocore.config import Config
    from botocore.credentials import Credentials
except ImportError:  # pragma: no cover - reported to the runner as "skipped"
    S3SigV4Auth = None

SKIP = 77
UNSIGNED = "UNSIGNED-PAYLOAD"
MAX_SKEW = datetime.timedelta(minutes=15)
DEFAULT_IDENTITIES = (
    "AKIDSIGV4PLAIN:sigv4/plain/SECRETKEY",
    "ASIASIGV4TOKEN:sigv4/token/SECRETKEY:sigv4-session-token/EXAMPLE==",
)
VERBOSE = False


def botocore_signature(method, host, path_and_query, signed, amz_date, access_key, secret, token,
                       region):
    """What botocore signs for a request: (signature, canonical request, string to sign).

    signed: {lower-case name: value} of the headers the client put in its signed list."""
    request = AWSRequest(method=method, url="https://" + host + path_and_query,
                         headers={k: v for k, v in signed.items()
                                  if k not in ("x-amz-date", "x-amz-security-token",
                                               "x-amz-content-sha256", "authorization")})
    request.context["timestamp"] = amz_date
    # S3 over HTTPS without body signing, which is what UNSIGNED-PAYLOAD means.
    request.context["client_config"] = Config(s3={"payload_signing_enabled": False})
    auth = S3SigV4Auth(Credentials(access_key, secret, token or None), "s3", region)
    # botocore's own preparation: X-Amz-Date from the timestamp, the security token, and the
    # payload hash header.
    auth._modify_request_before_signing(request)
    canonical = auth.canonical_request(request)
    string_to_sign = auth.string_to_sign(request, canonical)
    return auth.signature(string_to_sign, request), canonical, string_to_sign


def parse_authorization(value):
    """{"key", "date", "region", "service", "terminal", "signed": [...], "signature"} or None."""
    prefix = "AWS4-HMAC-SHA256 "
    if not value or not value.startswith(prefix):
        return None
    fields = {}
    for part in value[len(prefix):].split(","):
        name, sep, text = part.strip().partition("=")
        if not sep:
            return None
        fields[name] = text
    try:
        scope = fields["Credential"].split("/")
        if len(scope) != 5:
            return None
        return {"key": scope[0], "date": scope[1], "region": scope[2], "service": scope[3],
                "terminal": scope[4], "signed": fields["SignedHeaders"].split(";"),
                "signature": fields["Signature"]}
    except KeyError:
        return None


def split_host(host):
    """(bucket, region or None) from "<bucket>.s3[.<region>].localhost[:port]", else None."""
    name = host.rsplit(":", 1)[0] if host.count(":") == 1 else host
    labels = name.split(".")
    if len(labels) < 3 or labels[-1] != "localhost":
        return None
    if labels[-3] == "s3" and len(labels) >= 4:
        return ".".join(labels[:-3]), labels[-2]
    if labels[-2] == "s3":
        return ".".join(labels[:-2]), None
    return None


class State:
    def __init__(self, identities):
        self.lock = threading.Lock()
        self.identities = identities
        self.requests = []
        self.fail_count = 0
        self.fail_status = 503


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "sigv4-peer"
    timeout = 60

    def log_message(self, fmt, *args):
        if VERBOSE:
            sys.stderr.write("sigv4_peer: " + (fmt % args) + "\n")

    def send_body(self, code, body=b"", ctype="application/xml", extra=()):
        if isinstance(body, str):
            body = body.encode()
        self.send_response(code)
        for name, value in extra:
            self.send_header(name, value)
        if code != 204:
            self.send_header("Content-Type", ctype)
            self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        if self.command != "HEAD" and code != 204:
            self.wfile.write(body)

    def send_error_doc(self, code, error_code, message, details=()):
        extra = "".join("<%s>%s</%s>" % (k, escape(v), k) for k, v in details)
        body = ('<?xml version="1.0" encoding="UTF-8"?>\n<Error><Code>%s</Code>'
                "<Message>%s</Message>%s</Error>" % (error_code, escape(message), extra))
        self.send_body(code, body)
        return code, error_code

    def read_body(self):
        length = int(self.headers.get("Content-Length") or 0)
        return self.rfile.read(length) if length > 0 else b""

    def do_GET(self):
        self.dispatch()

    def do_HEAD(self):
        self.dispatch()

    def do_PUT(self):
        self.dispatch()

    def do_POST(self):
        self.dispatch()

    def do_DELETE(self):
        self.dispatch()

    def dispatch(self):
        try:
            self.handle_request()
        except (OSError, ssl.SSLError):
            self.close_connection = True
        except Exception:  # a bug here must show up as a 500, not as a hung client
            traceback.print_exc()
            self.send_body(500, "peer error\n", "text/plain")

    def handle_request(self):
        body = self.read_body()
        parts = urlsplit(self.path)
        host = self.headers.get("Host", "")
        state = self.server.state
        if host.rsplit(":", 1)[0] in ("127.0.0.1", "localhost"):
            return self.bookkeeping(parts)

        record = {"method": self.command, "path": parts.path, "query": parts.query,
                  "bucket": None, "region": None, "access_key": None, "signed_headers": [],
                  "content_md5": "Content-MD5" in self.headers,
                  "token": "X-Amz-Security-Token" in self.headers,
                  "amz_date": self.headers.get("X-Amz-Date")}
        code, error = self.check(parts, host, body, record)
        record["status"], record["code"] = code, error
        with state.lock:
            state.requests.append(record)

    def check(self, parts, host, body, record):
        state = self.server.state
        located = split_host(host)
        if located is None:
            return self.send_error_doc(400, "InvalidURI", "host %r names no bucket" % host)
        record["bucket"], record["region"] = located
        auth = parse_authorization(self.headers.get("Authorization"))
        if self.headers.get("Authorization") is None:
            return self.send_error_doc(403, "AccessDenied", "Anonymous access is refused")
        if auth is None:
            return self.send_error_doc(400, "AuthorizationHeaderMalformed",
                                       "cannot parse the Authorization header")
        record["access_key"] = auth["key"]
        record["signed_headers"] = auth["signed"]
        if (auth["service"] != "s3" or auth["terminal"] != "aws4_request"
                or auth["region"] != located[1]):
            return self.send_error_doc(400, "AuthorizationHeaderMalformed",
                                       "scope %s/%s/%s does not fit host %s"
                                       % (auth["region"], auth["service"], auth["terminal"], host))
        identity = state.identities.get(auth["key"])
        if identity is None:
            return self.send_error_doc(403, "InvalidAccessKeyId", "unknown key " + auth["key"])
        secret, token = identity
        sent_token = self.headers.get("X-Amz-Security-Token")
        if (sent_token or None) != (token or None):
            return self.send_error_doc(403, "InvalidToken", "session token does not fit the key")
        if self.headers.get("X-Amz-Content-SHA256") != UNSIGNED:
            return self.send_error_doc(400, "InvalidArgument",
                                       "x-amz-content-sha256 must be " + UNSIGNED)
        amz_date = self.headers.get("X-Amz-Date", "")
        try:
            when = datetime.datetime.strptime(amz_date, "%Y%m%dT%H%M%SZ").replace(
                tzinfo=datetime.timezone.utc)
        except ValueError:
            return self.send_error_doc(403, "AccessDenied", "bad X-Amz-Date %r" % amz_date)
        if abs(datetime.datetime.now(datetime.timezone.utc) - when) > MAX_SKEW:
            return self.send_error_doc(403, "RequestTimeTooSkewed", "X-Amz-Date " + amz_date)
        if auth["date"] != amz_date[:8]:
            return self.send_error_doc(403, "SignatureDoesNotMatch",
                                       "scope date %s is not the day of %s"
                                       % (auth["date"], amz_date))

        signed = {}
        for name in auth["signed"]:
            value = self.headers.get(name)
            if value is None:
                return self.send_error_doc(403, "SignatureDoesNotMatch",
                                           "signed header %s is missing" % name)
            signed[name] = value
        path_and_query = parts.path + ("?" + parts.query if parts.query else "")
        expected, canonical, string_to_sign = botocore_signature(
            self.command, host, path_and_query, signed, amz_date, auth["key"], secret,
            sent_token, auth["region"])
        if expected != auth["signature"]:
            if VERBOSE:
                sys.stderr.write("sigv4_peer: mismatch\n%s\n--\n%s\n" % (canonical, string_to_sign))
            return self.send_error_doc(403, "SignatureDoesNotMatch",
                                       "The request signature we calculated does not match",
                                       (("CanonicalRequest", canonical),
                                        ("StringToSign", string_to_sign)))

        md5 = self.headers.get("Content-MD5")
        if md5 is not None and md5 != base64.b64encode(hashlib.md5(body).digest()).decode():
            return self.send_error_doc(400, "BadDigest", "Content-MD5 does not fit the body")
        with state.lock:
            failing = state.fail_count > 0
            if failing:
                state.fail_count -= 1
            fail_status = state.fail_status
        if failing:
            return self.send_error_doc(fail_status, "SlowDown", "Please reduce your request rate")

        if self.command == "DELETE":
            self.send_body(204)
            return 204, None
        if self.command == "POST" and "uploads" in parse_qs(parts.query, keep_blank_values=True):
            self.send_body(200, '<?xml version="1.0" encoding="UTF-8"?>\n'
                           "<InitiateMultipartUploadResult><Bucket>%s</Bucket><Key>%s</Key>"
                           "<UploadId>sigv4-peer-upload</UploadId></InitiateMultipartUploadResult>"
                           % (escape(record["bucket"]), escape(parts.path[1:])))
            return 200, None
        extra = [("ETag", '"%s"' % hashlib.md5(body).hexdigest())] if self.command == "PUT" else []
        self.send_body(200, b"sigv4 ok\n", "text/plain", extra)
        return 200, None

    def bookkeeping(self, parts):
        state = self.server.state
        if parts.path == "/__stats" and self.command == "GET":
            with state.lock:
                body = json.dumps({"requests": state.requests})
            return self.send_body(200, body, "application/json")
        if parts.path == "/__reset" and self.command == "POST":
            with state.lock:
                state.requests = []
                state.fail_count = 0
            return self.send_body(200, "reset\n", "text/plain")
        if parts.path == "/__fail" and self.command == "POST":
            query = {k: v[-1] for k, v in parse_qs(parts.query).items()}
            try:
                count, status = int(query.get("count", 1)), int(query.get("status", 503))
            except ValueError:
                return self.send_body(400, "bad number\n", "text/plain")
            with state.lock:
                state.fail_count, state.fail_status = count, status
            return self.send_body(200, "failing %d\n" % count, "text/plain")
        return self.send_body(404, "unknown bookkeeping path\n", "text/plain")


class Server(ThreadingHTTPServer):
    daemon_threads = True
    block_on_close = False
    request_queue_size = 128

    def __init__(self, addr, state, ssl_ctx):
        super().__init__(addr, Handler)
        self.state = state
        self.ssl_ctx = ssl_ctx

    def finish_request(self, request, client_address):
        if self.ssl_ctx is None:
            return super().finish_request(request, client_address)
        # The handshake runs in the connection's own thread, so a client that never completes
        # it cannot hold up accept().
        try:
            request.settimeout(Handler.timeout)
            tls = self.ssl_ctx.wrap_socket(request, server_side=True)
        except (OSError, ssl.SSLError):
            return
        try:
            self.RequestHandlerClass(tls, client_address, self)
        finally:
            try:
                tls.close()
            except OSError:
                pass

    def handle_error(self, request, client_address):
        if VERBOSE:
            super().handle_error(request, client_address)


def parse_identities(texts):
    identities = {}
    for text in texts:
        fields = text.split(":", 2)
        if len(fields) < 2 or not fields[0] or not fields[1]:
            raise ValueError("credentials must be KEY:SECRET[:TOKEN], got %r" % text)
        token = fields[2] if len(fields) == 3 and fields[2] != "none" else None
        identities[fields[0]] = (fields[1], token)
    return identities


def main():
    global VERBOSE
    ap = argparse.ArgumentParser(description="S3 front that checks SigV4 with botocore.")
    ap.add_argument("--plain", action="store_true", help="HTTP instead of HTTPS")
    ap.add_argument("--cert", default=os.path.join(HERE, "tls", "cert.pem"))
    ap.add_argument("--key", default=os.path.join(HERE, "tls", "key.pem"))
    ap.add_argument("--port", type=int, default=0, help="default: a free one")
    ap.add_argument("--port-file", help='write the port here instead of "PORT <n>" on stdout')
    ap.add_argument("--max-seconds", type=float, default=600.0, help="0: no time limit")
    ap.add_argument("--credentials", action="append", default=[],
                    help="KEY:SECRET[:TOKEN], in addition to the built-in identities")
    ap.add_argument("--verbose", action="store_true")
    args = ap.parse_args()
    VERBOSE = args.verbose
    if S3SigV4Auth is None:
        sys.stderr.write("sigv4_peer.py: botocore missing (Debian package python3-botocore)\n")
        return SKIP
    try:
        identities = parse_identities(list(DEFAULT_IDENTITIES) + args.credentials)
    except ValueError as e:
        ap.error(str(e))

    ctx = None
    if not args.plain:
        ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        ctx.load_cert_chain(args.cert, args.key)
    server = Server(("127.0.0.1", args.port), State(identities), ctx)
    port = server.server_address[1]
    fault_peer.watch_lifetime(args.max_seconds)
    if args.port_file:
        with open(args.port_file + ".tmp", "w") as f:
            f.write("%d\n" % port)
        os.replace(args.port_file + ".tmp", args.port_file)
    else:
        sys.stdout.write("PORT %d\n" % port)
        sys.stdout.flush()
    try:
        server.serve_forever(poll_interval=0.25)
    except KeyboardInterrupt:
        pass
    os._exit(0)


if __name__ == "__main__":
    sys.exit(main())
