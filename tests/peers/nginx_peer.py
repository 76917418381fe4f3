#!/usr/bin/env python3
"""Debian's nginx as a throw-away loopback HTTP + HTTPS peer (python3 standard library only).

As a library:

    with NginxPeer(data_dir) as peer:
        peer.http_port, peer.https_port

serves `data_dir` at `/` (byte ranges, HEAD, 416 for impossible ranges: nginx does all of that
itself) and accepts WebDAV PUT / DELETE / MKCOL under `/upload/` (stored in `data_dir/upload/`).
HTTPS uses the test-only certificate in tls/ (CN localhost, SANs *.localhost and friends).

As a command:

    python3 nginx_peer.py --data DIR [--make-file NAME:SIZE ...] [--port-file FILE] \
                          -- COMMAND ARGS...

creates the generated files, starts nginx, writes "HTTP_PORT HTTPS_PORT" to FILE, runs COMMAND with
MDX_NGINX_HTTP_PORT, MDX_NGINX_HTTPS_PORT and MDX_PEER_DATA in its environment, stops nginx and
exits with COMMAND's status. Without a COMMAND it serves until interrupted.

Generated files (--make-file small.bin:1000, big.bin:64M) hold the first SIZE bytes of the
deterministic stream described in peer_body.py, so tests can recompute any byte from its offset:

    n = i >> 3;  w = mix(n & 0x1FFF) ^ mix(0x2000 + (n >> 13));  byte(i) = (w >> 8*(i & 7)) & 0xFF
    mix = the 64-bit finaliser with 0x9E3779B97F4A7C15, 0xBF58476D1CE4E5B9, 0x94D049BB133111EB
          (written out in peer_body.py, in Python and C++).
"""

import argparse
import ctypes
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.dont_write_bytecode = True  # keep the source tree clean of __pycache__
import peer_body  # noqa: E402

NGINX = os.environ.get("MDX_NGINX", "/usr/sbin/nginx")
CERT = os.path.join(HERE, "tls", "cert.pem")
KEY = os.path.join(HERE, "tls", "key.pem")

_libc = None


def die_with_parent():
    """preexec_fn: have the kernel send SIGTERM to the child when its parent goes away, so a
    killed test runner (ctest timeout, SIGKILL) never leaves a peer holding a port."""
    global _libc
    try:
        if _libc is None:
            _libc = ctypes.CDLL(None, use_errno=True)
        _libc.prctl(1, signal.SIGTERM, 0, 0, 0)  # PR_SET_PDEATHSIG
    except Exception:
        pass


def free_port():
    """A port that was free a moment ago. Another process may take it before nginx binds it;
    NginxPeer notices that and tries again with new ports."""
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_for_port(port, deadline, proc=None):
    while True:
        if proc is not None and proc.poll() is not None:
            return False
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=0.5):
                return True
        except OSError:
            if time.monotonic() >= deadline:
                return False
            time.sleep(0.005)


def make_files(data_dir, entries):
    """entries: iterable of 'NAME:SIZE'. Files already holding the right size are kept, since the
    content only depends on the size."""
    for entry in entries:
        name, _, size_text = entry.rpartition(":")
        if not name:
            raise ValueError("--make-file wants NAME:SIZE, got %r" % entry)
        size = peer_body.parse_size(size_text)
        path = os.path.join(data_dir, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        if os.path.isfile(path) and os.path.getsize(path) == size:
            continue
        peer_body.write_file(path, size)


CONFIG = """\
# Written by nginx_peer.py for one test run; everything lives under this folder.
{user}daemon off;
master_process off;
worker_processes 1;
pid {tmp}/nginx.pid;
lock_file {tmp}/nginx.lock;
error_log {tmp}/error.log warn;

events {{
    worker_connections 512;
}}

http {{
    access_log off;
    default_type application/octet-stream;
    sendfile on;
    keepalive_requests 100000;
    keepalive_timeout 60s;
    client_body_temp_path {tmp}/client_body;
    proxy_temp_path {tmp}/proxy;
    fastcgi_temp_path {tmp}/fastcgi;
    uwsgi_temp_path {tmp}/uwsgi;
    scgi_temp_path {tmp}/scgi;

    server {{
        listen 127.0.0.1:{http_port};
        listen 127.0.0.1:{https_port} ssl;
        server_name _;
        ssl_certificate {cert};
        ssl_certificate_key {key};

        location / {{
            root {data};
        }}

        location /upload/ {{
            root {data};
            dav_methods PUT DELETE MKCOL;
            dav_access user:rw group:r all:r;
            create_full_put_path on;
            client_max_body_size 0;
        }}
    }}
}}
"""


class NginxPeer:
    """Starts nginx on two free loopback ports; stops it and removes its folder on exit."""

    def __init__(self, data_dir, start_timeout=10.0, attempts=5, workdir=None):
        self.data_dir = os.path.abspath(data_dir)
        self.workdir = workdir  # where nginx's own folder goes (default: the temp folder)
        self.start_timeout = start_timeout
        self.attempts = attempts
        self.tmp = None
        self.proc = None
        self.http_port = None
        self.https_port = None

    def start(self):
        try:
            return self._start()
        except BaseException:
            self.stop()  # also on SIGTERM mid-start: no nginx and no folder left behind
            raise

    def _start(self):
        if not os.access(NGINX, os.X_OK):
            raise FileNotFoundError("nginx not found at %s (Debian package nginx)" % NGINX)
        os.makedirs(os.path.join(self.data_dir, "upload"), exist_ok=True)
        self.tmp = tempfile.mkdtemp(prefix="mdx-nginx-", dir=self.workdir)
        deadline = time.monotonic() + self.start_timeout
        last_error = ""
        for _ in range(self.attempts):
            self.http_port, self.https_port = free_port(), free_port()
            if self.http_port == self.https_port:
                continue
            conf = os.path.join(self.tmp, "nginx.conf")
            with open(conf, "w") as f:
                f.write(CONFIG.format(
                    user="user root;\n" if os.geteuid() == 0 else "",
                    tmp=self.tmp, data=self.data_dir, cert=CERT, key=KEY,
                    http_port=self.http_port, https_port=self.https_port))
            # -e: the built-in error log path is outside our folder, and nginx opens it before
            # reading the configuration.
            with open(os.path.join(self.tmp, "stderr.log"), "wb") as err:
                self.proc = subprocess.Popen(
                    [NGINX, "-p", self.tmp + "/", "-c", conf,
                     "-e", os.path.join(self.tmp, "error.log")],
                    stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=err,
                    preexec_fn=die_with_parent)
            if (wait_for_port(self.http_port, deadline, self.proc)
                    and wait_for_port(self.https_port, deadline, self.proc)):
                return self
            # Either a port was taken in between (try new ones) or nginx is unhappy.
            last_error = self._stop_proc()
            if "Address already in use" not in last_error:
                break
        raise RuntimeError("nginx did not start:\n" + last_error)

    def _stop_proc(self):
        """Stop nginx; return whatever it said on stderr and in its error log."""
        if self.proc is None:
            return ""
        proc, self.proc = self.proc, None
        if proc.poll() is None:
            proc.terminate()
            try:
                proc.wait(5)
            except subprocess.TimeoutExpired:
                proc.kill()
                proc.wait()
        text = ""
        for name in ("stderr.log", "error.log"):
            try:
                with open(os.path.join(self.tmp, name), errors="replace") as f:
                    text += f.read()
            except OSError:
                pass
        return text

    def stop(self):
        self._stop_proc()
        if self.tmp:
            shutil.rmtree(self.tmp, ignore_errors=True)
            self.tmp = None

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()
        return False


def main(argv=None):
    argv = sys.argv[1:] if argv is None else argv
    command = []
    if "--" in argv:
        i = argv.index("--")
        argv, command = argv[:i], argv[i + 1:]
    ap = argparse.ArgumentParser(description="Run nginx as a loopback test peer.")
    ap.add_argument("--data", required=True, help="folder served at / (created if missing)")
    ap.add_argument("--port-file", help='write "HTTP_PORT HTTPS_PORT" here once nginx is up')
    ap.add_argument("--make-file", action="append", default=[], metavar="NAME:SIZE",
                    help="generate a deterministic file in DATA first (repeatable; SIZE like 5M)")
    args = ap.parse_args(argv)

    os.makedirs(args.data, exist_ok=True)
    make_files(args.data, args.make_file)

    # Turn SIGTERM/SIGHUP into a clean exit so the context manager stops nginx; while COMMAND
    # runs they are passed on to it instead.
    child = None

    def on_signal(signum, _frame):
        if child is not None and child.poll() is None:
            child.send_signal(signum)
        else:
            raise SystemExit(128 + signum)

    for s in (signal.SIGTERM, signal.SIGHUP, signal.SIGINT):
        signal.signal(s, on_signal)

    with NginxPeer(args.data) as peer:
        if args.port_file:
            with open(args.port_file + ".tmp", "w") as f:
                f.write("%d %d\n" % (peer.http_port, peer.https_port))
            os.replace(args.port_file + ".tmp", args.port_file)
        env = dict(os.environ,
                   MDX_NGINX_HTTP_PORT=str(peer.http_port),
                   MDX_NGINX_HTTPS_PORT=str(peer.https_port),
                   MDX_PEER_DATA=os.path.abspath(args.data))
        if not command:
            print("nginx on http://127.0.0.1:%d and https://127.0.0.1:%d serving %s"
                  % (peer.http_port, peer.https_port, args.data), flush=True)
            try:
                while peer.proc.poll() is None:
                    time.sleep(0.5)
            except SystemExit:
                pass
            return 0
        child = subprocess.Popen(command, env=env, preexec_fn=die_with_parent)
        rc = child.wait()
    return 128 - rc if rc < 0 else rc


if __name__ == "__main__":
    sys.exit(main())
