#!/usr/bin/env python3
"""A misbehaving HTTP(S) server for transport tests (python3 standard library only).

    python3 fault_peer.py [--tls] [--port-file FILE] [--max-seconds 600] [--verbose]

Binds 127.0.0.1 on a free port and prints "PORT <n>" as the first line on stdout (or, with
--port-file, writes "<n>" to FILE). Any path serves the deterministic stream of peer_body.py
(byte i is a function of i alone, so every body and range can be checked), shaped and broken on
request. Options come from the query string and/or a header "X-Fault: <same syntax>" (the header
wins on conflicts), e.g.

    GET /obj?id=t1&status=503&times=2&retry_after=1      503 twice, then the body
    GET /obj  X-Test-Id: t2  X-Fault: close_after=4096   every answer breaks after 4096 body bytes

Shape of the answer (always applied):
    size=N            body size (default 1000); Range: bytes=a-b | a- | -n gives 206 with
                      Content-Range (end clamped), 416 for a start >= N; HEAD gives headers only
    chunked=1         Transfer-Encoding: chunked (chunks of chunk=B bytes, default 4096)
    slow=B            write the body in pieces of B bytes with 1 ms between them
Faults (applied to the first `times` requests of the test id, default: all of them):
    times=N           how many requests of this test id get the faults below
    status=CODE       answer CODE with a short body instead (any method)
    retry_after=S     add "Retry-After: S" to the status answer
    error_doc=1       body is an XML error document (<Error><Code>error_code</Code>...); alone it
                      is a 200 carrying an error, with status=CODE it is that answer's body
    error_code=X      the <Code> of that document (default InternalError)
    delay=S           wait S seconds before answering (at most 30)
    close_after=K     full Content-Length in the headers, K body bytes, then close (K past the
                      end: the whole body, then close; chunked with K = size: no last chunk)
    short=1           same with K = half the body
    reset=1           close with a TCP reset instead of FIN (alone: right after the request)
    stall_after=K     after K body bytes sleep `stall` seconds (default 5, at most 30), then go on
    stall=S           (stall alone stalls right after the headers)
    bad_range=S       answer a Range request with 206 for the range shifted by S bytes
                      (bad_range=1: by one byte); Content-Range and body describe the shifted
                      range, not the one asked for (shifted back when that runs past the end)
    ignore_range=1    answer a Range request with 200 and the full body
    upload_close_after=K   read K bytes of a request body, then close
Numbers that do not parse, and unknown names in X-Fault, give 400.
Test id: header "X-Test-Id" or query "id" (requests without one share the id "").
Uploads: PUT answers 201, POST 200, both with {"length": n, "sha256": "<hex>"} of the received
body (Content-Length or chunked); DELETE answers 204. Nothing is stored.
Bookkeeping (not counted as requests):
    GET  /__stats?id=X    {"requests": n, "methods": [...], "ranges": [Range header or null],
                           "paths": [...], "at": [seconds since the id's first request],
                           "headers": [{...}], "uploads": [{"method","path","length","sha256"}]}
    POST /__reset?id=X    forget that id (no id: forget all)

The peer exits by itself after --max-seconds, when its stdin is a pipe that gets closed, and when
its parent process goes away, so a crashed test never leaves it behind.
"""

import argparse
import hashlib
import json
import os
import socket
import ssl
import stat
import struct
import sys
import threading
import time
import traceback
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from urllib.parse import parse_qs, urlsplit

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.dont_write_bytecode = True  # keep the source tree clean of __pycache__
import peer_body  # noqa: E402

MAX_SLEEP = 30.0
VERBOSE = False


class _Abort(Exception):
    """The connection was closed on purpose; nothing more to do for it."""


class TestState:
    def __init__(self):
        self.requests = 0
        self.first = None
        self.methods, self.ranges, self.paths, self.at, self.headers = [], [], [], [], []
        self.uploads = []

    def as_json(self):
        return {"requests": self.requests, "methods": self.methods, "ranges": self.ranges,
                "paths": self.paths, "at": self.at, "headers": self.headers,
                "uploads": self.uploads}


class Options:
    """Fault options of one request: query string first, X-Fault header on top."""

    KNOWN = ("size", "chunked", "chunk", "slow", "times", "status", "retry_after", "error_doc",
             "error_code", "delay", "close_after", "short", "reset", "stall_after", "stall",
             "bad_range", "ignore_range", "upload_close_after")
    INTS = ("size", "status", "times", "close_after", "stall_after", "bad_range", "slow",
            "chunk", "upload_close_after")
    FLOATS = ("delay", "stall")

    def __init__(self, query, header):
        self.values = {}
        for text in (query, header or ""):
            for k, v in parse_qs(text, keep_blank_values=True).items():
                self.values[k] = v[-1]
        # The query string also carries whatever the client under test puts there, but the
        # header only fault options: a misspelt one there must not silently do nothing.
        for k in parse_qs(header or "", keep_blank_values=True):
            if k not in self.KNOWN:
                raise ValueError("unknown option %r in X-Fault" % k)
        # Check the numbers now: a typo must give a 400, not a connection dropped mid-body.
        for name in self.INTS:
            self.int(name)
        for name in self.FLOATS:
            self.float(name)

    def has(self, name):
        return name in self.values

    def text(self, name, default=None):
        return self.values.get(name, default)

    def int(self, name, default=None):
        v = self.values.get(name)
        if v is None or v == "":
            return default
        return int(v)

    def float(self, name, default=None):
        v = self.values.get(name)
        if v is None or v == "":
            return default
        return float(v)

    def flag(self, name):
        return self.values.get(name, "0") not in ("0", "", "false", "no")


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "mdx-fault-peer/1"
    timeout = 120  # an idle or stuck client must not pin a thread forever

    # ---- plumbing -----------------------------------------------------------------------

    def log_message(self, fmt, *args):
        if VERBOSE:
            sys.stderr.write("fault_peer: %s %s\n" % (self.address_string(), fmt % args))

    def handle(self):
        try:
            super().handle()
        except _Abort:
            pass
        except (OSError, ssl.SSLError, ValueError):
            # Clients that hang up mid-answer are the normal case here, not an error.
            if VERBOSE:
                traceback.print_exc()

    def finish(self):
        try:
            super().finish()
        except (OSError, ValueError):
            pass

    def abort(self, reset=False):
        """Drop the connection without a proper end: FIN, or RST with reset=True."""
        sock = self.connection
        try:
            if reset:
                sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            else:
                sock.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        try:
            sock.close()
        except OSError:
            pass
        self.close_connection = True
        raise _Abort()

    def read_body(self, limit=None):
        """Read the request body (Content-Length or chunked); return (length, sha256 hex).
        With `limit`, stop after that many bytes and drop the connection."""
        h = hashlib.sha256()
        n = 0

        def take(data):
            nonlocal n
            if limit is not None and n + len(data) >= limit:
                h.update(data[:limit - n])
                self.abort()
            h.update(data)
            n += len(data)

        if "chunked" in self.headers.get("Transfer-Encoding", "").lower():
            while True:
                line = self.rfile.readline(1024)
                if not line:
                    raise _Abort()
                size = int(line.split(b";")[0].strip() or b"0", 16)
                if size == 0:
                    while self.rfile.readline(1024) not in (b"\r\n", b"\n", b""):
                        pass  # trailers
                    break
                left = size
                while left:
                    data = self.rfile.read(min(left, 1 << 16))
                    if not data:
                        raise _Abort()
                    take(data)
                    left -= len(data)
                self.rfile.readline(8)
        else:
            left = int(self.headers.get("Content-Length") or 0)
            if limit is not None and left == 0:
                self.abort()
            while left:
                data = self.rfile.read(min(left, 1 << 16))
                if not data:
                    raise _Abort()
                take(data)
                left -= len(data)
        return n, h.hexdigest()

    def send_simple(self, code, body=b"", ctype="text/plain", extra=()):
        self.send_response(code)
        for k, v in extra:
            self.send_header(k, v)
        if code not in (204, 304) and not (100 <= code < 200):
            self.send_header("Content-Type", ctype)
            self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        if self.command != "HEAD" and code not in (204, 304):
            self.wfile.write(body)

    def send_json(self, code, obj):
        self.send_simple(code, (json.dumps(obj) + "\n").encode(), "application/json")

    # ---- bookkeeping --------------------------------------------------------------------

    def test_id(self, query):
        tid = self.headers.get("X-Test-Id")
        if tid is None:
            tid = parse_qs(query).get("id", [""])[-1]
        return tid

    def record(self, tid, path):
        srv = self.server
        with srv.lock:
            st = srv.tests.setdefault(tid, TestState())
            now = time.monotonic()
            if st.first is None:
                st.first = now
            st.requests += 1
            st.methods.append(self.command)
            st.ranges.append(self.headers.get("Range"))
            st.paths.append(path)
            st.at.append(round(now - st.first, 4))
            st.headers.append({k: v for k, v in self.headers.items()})
            return st, st.requests

    # ---- methods ------------------------------------------------------------------------

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
        url = urlsplit(self.path)
        tid = self.test_id(url.query)
        if url.path == "/__stats":
            self.read_body()
            with self.server.lock:
                st = self.server.tests.get(tid) or TestState()
                obj = st.as_json()
            return self.send_json(200, obj)
        if url.path == "/__reset":
            self.read_body()
            with self.server.lock:
                if "id" in parse_qs(url.query) or "X-Test-Id" in self.headers:
                    self.server.tests.pop(tid, None)
                else:
                    self.server.tests.clear()
            return self.send_simple(204)

        try:
            opt = Options(url.query, self.headers.get("X-Fault"))
        except ValueError as e:
            self.read_body()
            return self.send_simple(400, b"bad fault option: %s\n" % str(e).encode())
        st, n = self.record(tid, url.path)
        times = opt.int("times")
        faulty = times is None or n <= times

        # The request body first, so an early answer leaves a clean connection behind.
        length, digest = 0, None
        if self.command in ("PUT", "POST") or self.headers.get("Content-Length") \
                or self.headers.get("Transfer-Encoding"):
            length, digest = self.read_body(opt.int("upload_close_after") if faulty else None)
            if self.command in ("PUT", "POST"):
                with self.server.lock:
                    st.uploads.append({"method": self.command, "path": url.path,
                                       "length": length, "sha256": digest})

        if faulty and opt.has("delay"):
            time.sleep(min(max(opt.float("delay", 0.0), 0.0), MAX_SLEEP))
        if faulty and opt.flag("reset") and not (opt.has("close_after") or opt.flag("short")):
            self.abort(reset=True)

        if faulty and (opt.has("status") or opt.flag("error_doc")):
            code = opt.int("status", 200)
            extra = []
            if opt.has("retry_after"):
                extra.append(("Retry-After", opt.text("retry_after")))
            if opt.flag("error_doc"):
                body = ("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Error><Code>%s</Code>"
                        "<Message>injected by the fault peer</Message></Error>\n"
                        % opt.text("error_code", "InternalError")).encode()
                return self.send_simple(code, body, "application/xml", extra)
            return self.send_simple(code, b"injected fault %d\n" % code, "text/plain", extra)

        if self.command == "PUT":
            return self.send_json(201, {"length": length, "sha256": digest})
        if self.command == "POST":
            return self.send_json(200, {"length": length, "sha256": digest})
        if self.command == "DELETE":
            return self.send_simple(204)
        return self.send_object(opt, faulty)

    # ---- the body -----------------------------------------------------------------------

    def parse_range(self, total):
        """(start, end_inclusive) for a single satisfiable range, 'unsatisfiable', or None."""
        value = self.headers.get("Range")
        if not value or not value.strip().lower().startswith("bytes="):
            return None
        ranges = value.strip()[6:].strip()
        if "," in ranges:
            return None  # several ranges: a full answer is allowed and good enough
        first, dash, last = ranges.partition("-")
        try:
            if not dash:
                return None
            if first.strip() == "":
                suffix = int(last)
                if suffix <= 0:
                    return "unsatisfiable"
                return (max(0, total - suffix), total - 1) if total else "unsatisfiable"
            start = int(first)
            end = int(last) if last.strip() else total - 1
        except ValueError:
            return None
        if start >= total:
            return "unsatisfiable"
        if end < start:
            return None
        return start, min(end, total - 1)

    def send_object(self, opt, faulty):
        total = opt.int("size", 1000)
        rng = None if (faulty and opt.flag("ignore_range")) else self.parse_range(total)
        if rng == "unsatisfiable":
            return self.send_simple(416, b"", "text/plain",
                                    [("Content-Range", "bytes */%d" % total)])
        code, start, end = 200, 0, total  # [start, end)
        if rng is not None:
            code, start, end = 206, rng[0], rng[1] + 1
            shift = opt.int("bad_range", 0) if faulty else 0
            if shift:
                # Answer a different range than the one asked for, truthfully labelled:
                # the client has to compare Content-Range with its request.
                width = end - start
                new_start = start + shift if start + shift < total else max(0, start - shift)
                start, end = new_start, min(new_start + width, total)

        chunked = opt.flag("chunked")
        self.send_response(code)
        self.send_header("Content-Type", "application/octet-stream")
        self.send_header("Accept-Ranges", "bytes")
        self.send_header("ETag", '"mdx-%d"' % total)
        self.send_header("Last-Modified", "Mon, 01 Jan 2024 00:00:00 GMT")
        if code == 206:
            self.send_header("Content-Range", "bytes %d-%d/%d" % (start, end - 1, total))
        if chunked:
            self.send_header("Transfer-Encoding", "chunked")
        else:
            self.send_header("Content-Length", str(end - start))
        self.end_headers()
        if self.command == "HEAD":
            return

        length = end - start
        close_at = None
        if faulty:
            if opt.has("close_after"):
                close_at = opt.int("close_after")
            if opt.flag("short"):
                close_at = length // 2 if close_at is None else min(close_at, length // 2)
        stall_at, stall_for = None, 0.0
        if faulty and (opt.has("stall_after") or opt.has("stall")):
            stall_at = opt.int("stall_after", 0)
            stall_for = min(max(opt.float("stall", 5.0), 0.0), MAX_SLEEP)
        reset = faulty and opt.flag("reset")
        slow = opt.int("slow")
        piece = slow if slow else (opt.int("chunk", 4096) if chunked else 1 << 16)
        piece = max(1, piece)

        sent = 0
        out = self.wfile

        def emit(data):
            nonlocal sent, stall_at
            pos = 0
            while True:
                if stall_at is not None and sent >= stall_at:
                    out.flush()
                    time.sleep(stall_for)
                    stall_at = None
                if close_at is not None and sent >= close_at:
                    out.flush()
                    self.abort(reset)
                if pos >= len(data):
                    return
                take = len(data) - pos
                if stall_at is not None:
                    take = min(take, stall_at - sent)
                if close_at is not None:
                    take = min(take, close_at - sent)
                out.write(data[pos:pos + take])
                pos += take
                sent += take

        first = True
        for data in peer_body.chunks(start, end, piece):
            if slow and not first:
                time.sleep(0.001)
            first = False
            if chunked:
                out.write(b"%x\r\n" % len(data))
                emit(data)
                out.write(b"\r\n")
            else:
                emit(data)
        emit(b"")  # faults placed exactly at the end of the body
        if chunked:
            out.write(b"0\r\n\r\n")
        if close_at is not None:
            self.close_connection = True  # close_after past the end: whole body, then close


class Server(ThreadingHTTPServer):
    daemon_threads = True
    block_on_close = False
    request_queue_size = 128

    def __init__(self, addr, ssl_ctx=None):
        super().__init__(addr, Handler)
        self.ssl_ctx = ssl_ctx
        self.lock = threading.Lock()
        self.tests = {}

    def finish_request(self, request, client_address):
        if self.ssl_ctx is None:
            return super().finish_request(request, client_address)
        # The TLS handshake runs here, in the connection's own thread, so a client that never
        # completes it cannot hold up accept().
        try:
            request.settimeout(Handler.timeout)
            tls = self.ssl_ctx.wrap_socket(request, server_side=True)
        except (OSError, ssl.SSLError):
            if VERBOSE:
                traceback.print_exc()
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


def watch_lifetime(max_seconds):
    """Exit on the first of: the time limit, stdin closed (only when it is a pipe or socket:
    a terminal or /dev/null says nothing about our caller), or the parent going away."""
    def leave():
        os._exit(0)

    if max_seconds and max_seconds > 0:
        t = threading.Timer(max_seconds, leave)
        t.daemon = True
        t.start()

    try:
        mode = os.fstat(sys.stdin.fileno()).st_mode
        watch_stdin = stat.S_ISFIFO(mode) or stat.S_ISSOCK(mode)
    except (OSError, ValueError, AttributeError):
        watch_stdin = False
    if watch_stdin:
        def read_stdin():
            fd = sys.stdin.fileno()
            try:
                while os.read(fd, 4096):
                    pass
            except OSError:
                pass
            leave()
        threading.Thread(target=read_stdin, daemon=True).start()

    parent = os.getppid()

    def watch_parent():
        while True:
            time.sleep(0.25)
            if os.getppid() != parent:
                leave()
    threading.Thread(target=watch_parent, daemon=True).start()


def main():
    global VERBOSE
    ap = argparse.ArgumentParser(description="HTTP(S) peer that injects faults on request.")
    ap.add_argument("--tls", action="store_true", help="serve HTTPS with the test certificate")
    ap.add_argument("--cert", default=os.path.join(HERE, "tls", "cert.pem"))
    ap.add_argument("--key", default=os.path.join(HERE, "tls", "key.pem"))
    ap.add_argument("--port", type=int, default=0, help="default: a free one")
    ap.add_argument("--port-file", help='write the port here instead of "PORT <n>" on stdout')
    ap.add_argument("--max-seconds", type=float, default=600.0, help="0: no time limit")
    ap.add_argument("--verbose", action="store_true", help="log requests and connection errors")
    args = ap.parse_args()
    VERBOSE = args.verbose

    ctx = None
    if args.tls:
        ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        ctx.load_cert_chain(args.cert, args.key)
    server = Server(("127.0.0.1", args.port), ctx)
    port = server.server_address[1]
    watch_lifetime(args.max_seconds)
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
