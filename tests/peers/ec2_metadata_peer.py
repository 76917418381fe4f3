#!/usr/bin/env python3
"""An EC2-style instance metadata service for credential tests (python3 standard library only).

    python3 ec2_metadata_peer.py [--port-file FILE] [--max-seconds 600] [--verbose]
                                 [--region us-east-1] [--role mdx-test-role]
                                 [--access-key ASIAMETADATAEXAMPLE] [--secret S] [--token T]
                                 [--expires-in 21600]

Binds 127.0.0.1 on a free port and prints "PORT <n>" as the first line on stdout (or, with
--port-file, writes "<n>" to FILE). Plain HTTP, like the real service. What it answers:

    PUT /latest/api/token                      needs "X-aws-ec2-metadata-token-ttl-seconds: 1..21600"
                                               (400 otherwise); the body is a new session token
    GET /latest/meta-data/placement/region     the region, as plain text
    GET /latest/meta-data/iam/security-credentials
                                               the role name and a line feed
    GET /latest/meta-data/iam/security-credentials/<role>
                                               {"Code", "LastUpdated", "Type", "AccessKeyId",
                                                "SecretAccessKey", "Token", "Expiration"}; 404 for
                                               any other role
    anything else                              404

Once a token has been handed out, every GET must carry "X-aws-ec2-metadata-token" with one of the
tokens handed out (401 otherwise), as the real service does in its token-only mode; before that,
GETs without the header are answered (the older mode).

Behaviour switches, all through the control endpoint (not counted as requests):

    POST /__mode?name=NAME[&delay=S][&expires_in=S][&region=R][&role=R]
        sets the mode and forgets all counters and handed-out tokens. NAME is one of
          normal                  everything works
          no_token                the token PUT answers 403; GETs work without a token
          empty_region            the region answers 200 with an empty body
          empty_role              the role list answers 200 with an empty body
          invalid_credentials     the credentials document lacks AccessKeyId and SecretAccessKey
          error500                every request (the token PUT too) answers 500
          error500_credentials    only the credentials document answers 500
          hangup                  every request is read and the connection closed without answer
        delay=S (at most 30) waits S seconds before each answer, in any mode; expires_in sets the
        Expiration of the credentials to now + S seconds; region and role replace the defaults.
    GET /__stats
        {"mode": ..., "total": n,
         "requests": {"PUT /latest/api/token": n, "GET /latest/meta-data/...": n, ...},
         "tokens": [tokens handed out],
         "token_headers": {"GET /latest/...": [the X-aws-ec2-metadata-token of each request, or null]},
         "ttl_headers": [the TTL header of each token PUT, or null]}

The peer exits by itself after --max-seconds, when its stdin is a pipe that gets closed, and when
its parent process goes away (see fault_peer.watch_lifetime).
"""

import argparse
import datetime
import json
import os
import sys
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from urllib.parse import parse_qs, urlsplit

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.dont_write_bytecode = True  # keep the source tree clean of __pycache__
import fault_peer  # noqa: E402  (watch_lifetime)

MODES = ("normal", "no_token", "empty_region", "empty_role", "invalid_credentials", "error500",
         "error500_credentials", "hangup")
MAX_DELAY = 30.0
TOKEN_PATH = "/latest/api/token"
BASE = "/latest/meta-data/"
REGION_PATH = BASE + "placement/region"
ROLES_PATH = BASE + "iam/security-credentials"
VERBOSE = False


class State:
    def __init__(self, args):
        self.lock = threading.Lock()
        self.defaults = args
        self.reset("normal", {})

    def reset(self, mode, options):
        """Called with the lock held (or before the server runs)."""
        args = self.defaults
        self.mode = mode
        self.delay = min(MAX_DELAY, max(0.0, float(options.get("delay", 0))))
        self.expires_in = int(options.get("expires_in", args.expires_in))
        self.region = options.get("region", args.region)
        self.role = options.get("role", args.role)
        self.requests = {}
        self.token_headers = {}
        self.ttl_headers = []
        self.tokens = []

    def stats(self):
        return {"mode": self.mode, "total": sum(self.requests.values()), "requests": self.requests,
                "tokens": self.tokens, "token_headers": self.token_headers,
                "ttl_headers": self.ttl_headers}


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "ec2-metadata-peer"
    timeout = 60

    def log_message(self, fmt, *args):
        if VERBOSE:
            sys.stderr.write("ec2_metadata_peer: " + (fmt % args) + "\n")

    def send_text(self, code, body=b"", ctype="text/plain"):
        if isinstance(body, str):
            body = body.encode()
        self.send_response(code)
        self.send_header("Content-Type", ctype)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(body)

    def drain_body(self):
        length = int(self.headers.get("Content-Length") or 0)
        if length > 0:
            self.rfile.read(length)

    def do_GET(self):
        self.dispatch()

    def do_PUT(self):
        self.dispatch()

    def do_POST(self):
        self.dispatch()

    def dispatch(self):
        self.drain_body()
        parts = urlsplit(self.path)
        path = parts.path
        state = self.server.state
        if path == "/__mode" and self.command == "POST":
            options = {k: v[-1] for k, v in parse_qs(parts.query, keep_blank_values=True).items()}
            name = options.get("name", "normal")
            if name not in MODES:
                return self.send_text(400, "unknown mode %r\n" % name)
            try:
                with state.lock:
                    state.reset(name, options)
            except ValueError as e:
                return self.send_text(400, "bad option: %s\n" % e)
            return self.send_text(200, "mode %s\n" % name)
        if path == "/__stats" and self.command == "GET":
            with state.lock:
                body = json.dumps(state.stats())
            return self.send_text(200, body, "application/json")

        key = "%s %s" % (self.command, path)
        token_header = self.headers.get("X-aws-ec2-metadata-token")
        with state.lock:
            state.requests[key] = state.requests.get(key, 0) + 1
            if path == TOKEN_PATH:
                state.ttl_headers.append(self.headers.get("X-aws-ec2-metadata-token-ttl-seconds"))
            else:
                state.token_headers.setdefault(key, []).append(token_header)
            mode, delay = state.mode, state.delay
        if delay > 0:
            time.sleep(delay)
        if mode == "hangup":
            self.close_connection = True
            return
        if mode == "error500":
            return self.send_text(500, "Internal Server Error\n")

        if path == TOKEN_PATH:
            return self.answer_token(mode)
        if self.command != "GET":
            return self.send_text(405, "Method Not Allowed\n")
        with state.lock:
            issued = list(state.tokens)
        if issued and token_header not in issued:
            return self.send_text(401, "Unauthorized\n")
        if path == REGION_PATH:
            return self.send_text(200, "" if mode == "empty_region" else state.region)
        if path in (ROLES_PATH, ROLES_PATH + "/"):
            return self.send_text(200, "" if mode == "empty_role" else state.role + "\n")
        if path.startswith(ROLES_PATH + "/"):
            return self.answer_credentials(mode, path[len(ROLES_PATH) + 1:])
        return self.send_text(404, "Not Found\n")

    def answer_token(self, mode):
        if self.command != "PUT":
            return self.send_text(405, "Method Not Allowed\n")
        if mode == "no_token":
            return self.send_text(403, "Forbidden\n")
        ttl = self.headers.get("X-aws-ec2-metadata-token-ttl-seconds")
        try:
            ttl_ok = ttl is not None and 1 <= int(ttl) <= 21600
        except ValueError:
            ttl_ok = False
        if not ttl_ok:
            return self.send_text(400, "Bad Request\n")
        state = self.server.state
        with state.lock:
            token = "AQAEA-peer-token-%d" % (len(state.tokens) + 1)
            state.tokens.append(token)
        return self.send_text(200, token)

    def answer_credentials(self, mode, role):
        state = self.server.state
        if mode == "error500_credentials":
            return self.send_text(500, "Internal Server Error\n")
        if role != state.role:
            return self.send_text(404, "Not Found\n")
        now = datetime.datetime.now(datetime.timezone.utc).replace(microsecond=0)
        expiration = now + datetime.timedelta(seconds=state.expires_in)
        args = state.defaults
        document = {
            "Code": "Success",
            "LastUpdated": now.strftime("%Y-%m-%dT%H:%M:%SZ"),
            "Type": "AWS-HMAC",
            "AccessKeyId": args.access_key,
            "SecretAccessKey": args.secret,
            "Token": args.token,
            "Expiration": expiration.strftime("%Y-%m-%dT%H:%M:%SZ"),
        }
        if mode == "invalid_credentials":
            del document["AccessKeyId"]
            del document["SecretAccessKey"]
        return self.send_text(200, json.dumps(document, indent=2), "text/plain")


class Server(ThreadingHTTPServer):
    daemon_threads = True
    block_on_close = False
    request_queue_size = 128

    def __init__(self, addr, state):
        super().__init__(addr, Handler)
        self.state = state

    def handle_error(self, request, client_address):
        if VERBOSE:
            super().handle_error(request, client_address)


def main():
    global VERBOSE
    ap = argparse.ArgumentParser(description="EC2-style instance metadata peer.")
    ap.add_argument("--port", type=int, default=0, help="default: a free one")
    ap.add_argument("--port-file", help='write the port here instead of "PORT <n>" on stdout')
    ap.add_argument("--max-seconds", type=float, default=600.0, help="0: no time limit")
    ap.add_argument("--verbose", action="store_true")
    ap.add_argument("--region", default="us-east-1")
    ap.add_argument("--role", default="mdx-test-role")
    ap.add_argument("--access-key", default="ASIAMETADATAEXAMPLE")
    ap.add_argument("--secret", default="metadata/secret/EXAMPLEKEY")
    ap.add_argument("--token", default="metadata-session-token-EXAMPLE")
    ap.add_argument("--expires-in", type=int, default=21600, help="seconds of credential life")
    args = ap.parse_args()
    VERBOSE = args.verbose

    server = Server(("127.0.0.1", args.port), State(args))
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
    main()
