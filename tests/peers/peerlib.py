"""What every python peer shares: the byte stream they serve (PeerBody.h is the same in C++),
server, dispatch, command line, "PORT <n>" announcement, and the rules by which a peer ends itself,
so that a crashed test never leaves one holding a port.

Byte i of the stream is (w >> 8 * (i & 7)) & 0xFF, with n = i >> 3 and w = mix(n & 0x1FFF) ^
mix(0x2000 + (n >> 13)): every 64 KiB segment is one pattern XORed with a word of its own, so no
two segments or offsets look alike, and a segment is one big-integer XOR here.
"""

import argparse
import ctypes
import json
import os
import re
import signal
import ssl
import stat
import sys
import threading
import time
import traceback
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from urllib.parse import parse_qs

HERE = os.path.dirname(os.path.abspath(__file__))
CERT = os.path.join(HERE, "tls", "cert.pem")
KEY = os.path.join(HERE, "tls", "key.pem")
SKIP = 77  # a peer that cannot run on this machine
SEGMENT = 1 << 16
_MASK = (1 << 64) - 1


def mix(x):
    x = (x + 0x9E3779B97F4A7C15) & _MASK
    x = ((x ^ (x >> 30)) * 0xBF58476D1CE4E5B9) & _MASK
    x = ((x ^ (x >> 27)) * 0x94D049BB133111EB) & _MASK
    return x ^ (x >> 31)


_BASE = int.from_bytes(b"".join(mix(j).to_bytes(8, "little") for j in range(SEGMENT // 8)), "little")
_REPEAT = int.from_bytes((1).to_bytes(8, "little") * (SEGMENT // 8), "little")


def byte_at(i):
    n = i >> 3
    return ((mix(n & 0x1FFF) ^ mix(0x2000 + (n >> 13))) >> (8 * (i & 7))) & 0xFF


def segment(k):
    """The 64 KiB of the stream starting at byte k * SEGMENT."""
    return (_BASE ^ (mix(0x2000 + k) * _REPEAT)).to_bytes(SEGMENT, "little")


def chunks(start, end, piece=SEGMENT):
    """The stream bytes [start, end) in pieces of at most `piece` bytes."""
    while start < end:
        k = start // SEGMENT
        view = memoryview(segment(k))[start - k * SEGMENT:min(SEGMENT, end - k * SEGMENT)]
        for off in range(0, len(view), piece):
            yield bytes(view[off:off + piece])
        start += len(view)


def write_file(path, size):
    tmp = "%s.part%d" % (path, os.getpid())
    with open(tmp, "wb") as f:
        for data in chunks(0, size):
            f.write(data)
    os.replace(tmp, path)


def parse_size(text):
    """'1000', '4k', '5M', '64MiB', '1G' -> bytes (multiples of 1024)."""
    m = re.fullmatch(r"\s*(\d+)\s*([kmgt]?)(i?b)?\s*", text.lower())
    if not m:
        raise ValueError("not a size: %r" % text)
    return int(m.group(1)) << (10 * " kmgt".index(m.group(2) or " "))


def die_with_parent():
    """preexec_fn: the kernel sends SIGTERM to the child when its parent goes away."""
    try:
        ctypes.CDLL(None, use_errno=True).prctl(1, signal.SIGTERM, 0, 0, 0)  # PR_SET_PDEATHSIG
    except Exception:
        pass


def watch_lifetime(max_seconds):
    """Exit on the first of: the time limit, stdin closed (when it is a pipe or socket), the
    parent going away."""
    if max_seconds > 0:
        timer = threading.Timer(max_seconds, lambda: os._exit(0))
        timer.daemon = True
        timer.start()
    try:
        mode = os.fstat(sys.stdin.fileno()).st_mode
        if stat.S_ISFIFO(mode) or stat.S_ISSOCK(mode):
            threading.Thread(target=lambda: (sys.stdin.buffer.read(), os._exit(0)), daemon=True).start()
    except (OSError, ValueError, AttributeError):
        pass
    parent = os.getppid()

    def watch_parent():
        while os.getppid() == parent:
            time.sleep(0.25)
        os._exit(0)
    threading.Thread(target=watch_parent, daemon=True).start()


class Handler(BaseHTTPRequestHandler):
    """Every verb goes to route(); a bug there shows as a 500, a client that hangs up is normal."""
    protocol_version = "HTTP/1.1"
    timeout = 120
    verbose = False

    def log_message(self, fmt, *args):
        if self.verbose:
            sys.stderr.write("%s: %s\n" % (type(self).__module__, fmt % args))

    def dispatch(self):
        try:
            self.route()
        except (OSError, ssl.SSLError):
            self.close_connection = True
        except Exception:
            traceback.print_exc()
            self.send(500, b"peer error\n")

    do_GET = do_HEAD = do_PUT = do_POST = do_DELETE = dispatch

    def read_body(self):
        length = int(self.headers.get("Content-Length") or 0)
        return self.rfile.read(length) if length > 0 else b""

    def control(self, url, modes, fresh, hidden=()):
        """The mode peers' own two paths: /__mode?name=M&... replaces the state with fresh(M, options),
        /__stats answers it as JSON (without the hidden keys). True when the request was one of them."""
        if url.path == "/__mode":
            options = {k: v[-1] for k, v in parse_qs(url.query).items()}
            if options.get("name") not in modes:
                self.send(400, "unknown mode\n")
            else:
                with self.server.lock:
                    self.server.state = fresh(options["name"], options)
                self.send(200, "mode set\n")
            return True
        if url.path == "/__stats":
            with self.server.lock:
                body = json.dumps({k: v for k, v in self.server.state.items() if k not in hidden})
            self.send(200, body, "application/json")
            return True
        return False

    def send(self, code, body=b"", ctype="text/plain", headers=()):
        if isinstance(body, str):
            body = body.encode()
        self.send_response(code)
        for name, value in headers:
            self.send_header(name, value)
        if code not in (204, 304):
            self.send_header("Content-Type", ctype)
            self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        if self.command != "HEAD" and code not in (204, 304):
            self.wfile.write(body)


class Server(ThreadingHTTPServer):
    daemon_threads = True
    block_on_close = False
    request_queue_size = 128

    def __init__(self, address, handler, tls, state):
        super().__init__(address, handler)
        self.state = state
        self.lock = threading.Lock()
        self.tls = None
        if tls:
            self.tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            self.tls.load_cert_chain(CERT, KEY)

    def finish_request(self, request, client_address):
        if self.tls is None:
            return super().finish_request(request, client_address)
        # The handshake runs in the connection's own thread: a client that never completes it
        # cannot hold up accept().
        try:
            request.settimeout(self.RequestHandlerClass.timeout)
            request = self.tls.wrap_socket(request, server_side=True)
        except (OSError, ssl.SSLError):
            return
        try:
            self.RequestHandlerClass(request, client_address, self)
        finally:
            request.close()

    def handle_error(self, request, client_address):
        if self.RequestHandlerClass.verbose:
            super().handle_error(request, client_address)


def serve(handler, description, state=lambda args: None, options=lambda parser: None, tls=False):
    """The main of a peer: parses its command line (--tls, --port-file, --max-seconds,
    --verbose and the peer's own options), binds 127.0.0.1 on a free port, announces it with
    "PORT <n>" on stdout (or the port in --port-file) and serves until it must end."""
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("--tls", action="store_true", default=tls, help="HTTPS with the test certificate")
    parser.add_argument("--plain", dest="tls", action="store_false", help="plain HTTP")
    parser.add_argument("--port-file", help='write the port here instead of "PORT <n>" on stdout')
    parser.add_argument("--max-seconds", type=float, default=600.0, help="0: no time limit")
    parser.add_argument("--verbose", action="store_true", help="log requests and connection errors")
    options(parser)
    args = parser.parse_args()
    handler.verbose = args.verbose
    server = Server(("127.0.0.1", 0), handler, args.tls, state(args))
    watch_lifetime(args.max_seconds)
    port = server.server_address[1]
    if args.port_file:
        with open(args.port_file + ".tmp", "w") as f:
            f.write("%d\n" % port)
        os.replace(args.port_file + ".tmp", args.port_file)
    else:
        print("PORT %d" % port, flush=True)
    try:
        server.serve_forever(poll_interval=0.25)
    except KeyboardInterrupt:
        pass
    os._exit(0)
