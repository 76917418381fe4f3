#!/usr/bin/env python3
"""s3rver 3.7.1 (npm) as an S3 peer: installed on first use into a cache folder, started on a
free port of 127.0.0.1 over HTTPS with the test certificate.

    python3 s3rver_peer.py [--cache DIR] [--data DIR] [--bucket mybucket] [--port-file FILE]
                           [--max-seconds 600] [--verbose]

The package is installed with `npm install --prefix DIR s3rver@3.7.1` into
${XDG_CACHE_HOME:-$HOME/.cache}/mdxlib/npm/s3rver (or --cache), once: later runs find it there.
Parallel runs take turns through a lock file next to that folder, and the install goes to a
temporary folder that is renamed into place, so a broken install never looks finished.

s3rver then runs as

    s3rver -d DATA -a 127.0.0.1 -p PORT --key KEY --cert CERT --service-endpoint localhost
           --configure-bucket BUCKET --silent

so buckets are reached as virtual hosts "<bucket>.s3.<region>.localhost:PORT" (libcurl resolves
*.localhost to 127.0.0.1 by itself). Its access key is S3RVER with the secret S3RVER; it wants
X-Amz-Date near now and an X-Amz-Content-SHA256 header, and it does not check signatures or
Content-MD5. When it answers HTTP, the peer prints "PORT <n>" on stdout (or writes "<n>" to
--port-file).

Exit status 77 (a skip for ctest) when node or npm is missing or the package cannot be installed
(no registry); 1 when s3rver does not come up. The peer stops s3rver and removes the data folder
(when it made it) after --max-seconds, when its stdin is a pipe that gets closed, when its parent
goes away, and on SIGTERM/SIGINT/SIGHUP. s3rver itself gets SIGTERM from the kernel if the peer
is killed outright.
"""

import argparse
import fcntl
import json
import os
import shutil
import signal
import socket
import ssl
import stat
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.dont_write_bytecode = True  # keep the source tree clean of __pycache__
import nginx_peer  # noqa: E402  (die_with_parent, free_port, CERT, KEY)

PACKAGE = "s3rver"
VERSION = "3.7.1"
SKIP = 77
INSTALL_TIMEOUT = 300.0
START_TIMEOUT = 30.0
VERBOSE = False


def say(text):
    if VERBOSE:
        sys.stderr.write("s3rver_peer: %s\n" % text)


def default_cache():
    base = os.environ.get("XDG_CACHE_HOME") or os.path.join(os.path.expanduser("~"), ".cache")
    return os.path.join(base, "mdxlib", "npm", PACKAGE)


def entry_point(prefix):
    return os.path.join(prefix, "node_modules", PACKAGE, "bin", "s3rver.js")


def installed(prefix):
    try:
        with open(os.path.join(prefix, "node_modules", PACKAGE, "package.json")) as f:
            return json.load(f).get("version") == VERSION and os.path.isfile(entry_point(prefix))
    except (OSError, ValueError):
        return False


def ensure_installed(prefix, npm):
    """True when the pinned package is (now) in prefix."""
    if installed(prefix):
        return True
    parent = os.path.dirname(prefix)
    os.makedirs(parent, exist_ok=True)
    with open(prefix + ".lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)  # another run may be installing right now
        if installed(prefix):
            return True
        staging = tempfile.mkdtemp(prefix=os.path.basename(prefix) + ".install-", dir=parent)
        try:
            t0 = time.monotonic()
            sys.stderr.write("s3rver_peer: installing %s@%s into %s\n" % (PACKAGE, VERSION, prefix))
            try:
                done = subprocess.run(
                    [npm, "install", "--prefix", staging, "--no-audit", "--no-fund",
                     "--fetch-retries", "1", "%s@%s" % (PACKAGE, VERSION)],
                    stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                    timeout=INSTALL_TIMEOUT, preexec_fn=nginx_peer.die_with_parent)
            except subprocess.TimeoutExpired:
                sys.stderr.write("s3rver_peer: npm install took longer than %g s\n"
                                 % INSTALL_TIMEOUT)
                return False
            if done.returncode != 0 or not installed(staging):
                sys.stderr.write("s3rver_peer: npm install failed (%d):\n%s\n"
                                 % (done.returncode, done.stdout.decode(errors="replace")[-2000:]))
                return False
            if os.path.exists(prefix):
                shutil.rmtree(prefix)  # an older or broken copy
            os.rename(staging, prefix)  # .bin links inside are relative, so this keeps them valid
            staging = None
            sys.stderr.write("s3rver_peer: installed in %.1f s\n" % (time.monotonic() - t0))
            return True
        finally:
            if staging:
                shutil.rmtree(staging, ignore_errors=True)


def answers_http(port, deadline):
    """True once a TLS request to port gets any HTTP status line."""
    ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    ctx.check_hostname = False
    ctx.verify_mode = ssl.CERT_NONE
    left = max(0.05, min(2.0, deadline - time.monotonic()))
    try:
        with socket.create_connection(("127.0.0.1", port), timeout=left) as raw:
            with ctx.wrap_socket(raw, server_hostname="localhost") as tls:
                tls.sendall(b"GET / HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n")
                return tls.recv(16).startswith(b"HTTP/1.")
    except (OSError, ssl.SSLError):
        return False


def start(node, prefix, data, bucket, log_path):
    """(process, port) of a running s3rver, or raises RuntimeError."""
    for _attempt in range(5):
        port = nginx_peer.free_port()
        cmd = [node, entry_point(prefix), "-d", data, "-a", "127.0.0.1", "-p", str(port),
               "--key", nginx_peer.KEY, "--cert", nginx_peer.CERT,
               "--service-endpoint", "localhost", "--configure-bucket", bucket, "--silent"]
        with open(log_path, "ab") as log:
            proc = subprocess.Popen(cmd, stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                    preexec_fn=nginx_peer.die_with_parent)
        deadline = time.monotonic() + START_TIMEOUT
        while time.monotonic() < deadline:
            if proc.poll() is not None:
                break  # most likely someone took the port first: try another one
            if answers_http(port, deadline):
                return proc, port
            time.sleep(0.05)
        if proc.poll() is None:
            proc.kill()
            proc.wait()
            raise RuntimeError("s3rver did not answer within %g s" % START_TIMEOUT)
    try:
        with open(log_path, "rb") as f:
            tail = f.read()[-2000:].decode(errors="replace")
    except OSError:
        tail = ""
    raise RuntimeError("s3rver exited at start-up:\n" + tail)


def wait_for_the_end(max_seconds):
    """Blocks until the time limit, stdin closing (a pipe or socket only), the parent going away
    or a termination signal."""
    done = threading.Event()
    for s in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
        signal.signal(s, lambda *_: done.set())
    try:
        mode = os.fstat(sys.stdin.fileno()).st_mode
        watch_stdin = stat.S_ISFIFO(mode) or stat.S_ISSOCK(mode)
    except (OSError, ValueError, AttributeError):
        watch_stdin = False
    if watch_stdin:
        def read_stdin():
            try:
                while os.read(sys.stdin.fileno(), 4096):
                    pass
            except OSError:
                pass
            done.set()
        threading.Thread(target=read_stdin, daemon=True).start()
    parent = os.getppid()
    limit = time.monotonic() + max_seconds if max_seconds and max_seconds > 0 else None
    while not done.wait(0.25):
        if os.getppid() != parent or (limit is not None and time.monotonic() > limit):
            break


def main():
    global VERBOSE
    ap = argparse.ArgumentParser(description="s3rver %s on a free loopback port." % VERSION)
    ap.add_argument("--cache", default=default_cache(), help="npm prefix holding s3rver")
    ap.add_argument("--data", help="data folder (default: a temporary one, removed at the end)")
    ap.add_argument("--bucket", default="mybucket")
    ap.add_argument("--port-file", help='write the port here instead of "PORT <n>" on stdout')
    ap.add_argument("--max-seconds", type=float, default=600.0, help="0: no time limit")
    ap.add_argument("--verbose", action="store_true")
    args = ap.parse_args()
    VERBOSE = args.verbose

    node = shutil.which("node") or shutil.which("nodejs")
    npm = shutil.which("npm")
    if not node or not npm:
        sys.stderr.write("s3rver_peer.py: node/npm missing (Debian packages nodejs, npm); "
                         "skipping\n")
        return SKIP
    t0 = time.monotonic()
    if not ensure_installed(args.cache, npm):
        sys.stderr.write("s3rver_peer.py: %s@%s not available; skipping\n" % (PACKAGE, VERSION))
        return SKIP

    made_data = args.data is None
    data = args.data or tempfile.mkdtemp(prefix="mdx-s3rver-")
    os.makedirs(data, exist_ok=True)
    log_path = os.path.join(data, "s3rver.log")
    proc = None
    try:
        try:
            store = os.path.join(data, "store")
            os.makedirs(store, exist_ok=True)
            proc, port = start(node, args.cache, store, args.bucket,
                               log_path)
        except RuntimeError as e:
            sys.stderr.write("s3rver_peer.py: %s\n" % e)
            return 1
        say("s3rver up on port %d in %.2f s" % (port, time.monotonic() - t0))
        if args.port_file:
            with open(args.port_file + ".tmp", "w") as f:
                f.write("%d\n" % port)
            os.replace(args.port_file + ".tmp", args.port_file)
        else:
            sys.stdout.write("PORT %d\n" % port)
            sys.stdout.flush()
        wait_for_the_end(args.max_seconds)
        return 0
    finally:
        if proc is not None and proc.poll() is None:
            proc.terminate()
            try:
                proc.wait(3.0)
            except subprocess.TimeoutExpired:
                proc.kill()
                proc.wait()
        if made_data:
            shutil.rmtree(data, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
