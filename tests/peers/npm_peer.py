#!/usr/bin/env python3
"""Runs one of the npm servers the upload tests store objects on, as a peer like the others: it
picks a free port of 127.0.0.1, starts the server from its cached npm prefix
(scripts/install-npm-peers.sh; MDX_NPM_PEERS, default ~/.cache/mdxlib/npm), waits until it
accepts connections, prints "PORT <n>" and ends with its runner. Exit 77 when the server is not
installed. Both serve HTTPS with the test certificate.

    npm_peer.py s3       s3rver 3.7.1, bucket "mybucket", access key and secret "S3RVER"; reach it
                         as https://mybucket.s3.us-east-1.localhost:PORT/key
    npm_peer.py azure    azurite 3.37.0 blob service, account "myaccount" (key in AZURE_KEY),
                         --oauth basic, in memory; https://myaccount.blob.localhost:PORT/cont/blob
"""

import argparse
import base64
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

import peerlib

PREFIX = os.environ.get("MDX_NPM_PEERS") or os.path.expanduser("~/.cache/mdxlib/npm")
AZURE_KEY = base64.b64encode(b"mysecretkey1234567890").decode()


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def command(kind, port, data):
    if kind == "s3":
        return ([os.path.join(PREFIX, "s3rver", "node_modules", ".bin", "s3rver"), "-d", data, "-a", "127.0.0.1",
                 "-p", str(port), "--key", peerlib.KEY, "--cert", peerlib.CERT, "--service-endpoint", "localhost",
                 "--configure-bucket", "mybucket", "--silent"], {})
    return ([os.path.join(PREFIX, "azurite", "node_modules", ".bin", "azurite-blob"), "--blobHost", "127.0.0.1",
             "--blobPort", str(port), "--cert", peerlib.CERT, "--key", peerlib.KEY, "--oauth", "basic",
             "--disableTelemetry", "--inMemoryPersistence", "--silent"],
            {"AZURITE_ACCOUNTS": "myaccount:" + AZURE_KEY})


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("kind", choices=["s3", "azure"])
    parser.add_argument("--max-seconds", type=float, default=600.0)
    args = parser.parse_args()
    data = tempfile.mkdtemp(prefix="mdx-%s-peer-" % args.kind)
    port = free_port()
    argv, extra = command(args.kind, port, data)
    if not os.access(argv[0], os.X_OK):
        sys.stderr.write("npm_peer.py: %s is not installed (scripts/install-npm-peers.sh)\n" % argv[0])
        return peerlib.SKIP
    server = subprocess.Popen(argv, env=dict(os.environ, **extra), stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, preexec_fn=peerlib.die_with_parent)

    def stop(*_):
        server.terminate()
        try:
            server.wait(10)
        except subprocess.TimeoutExpired:
            server.kill()
        shutil.rmtree(data, ignore_errors=True)
        os._exit(0)
    signal.signal(signal.SIGTERM, stop)
    deadline = time.monotonic() + 60
    while True:
        if server.poll() is not None:
            sys.stderr.write("npm_peer.py: %s exited with %s\n" % (argv[0], server.returncode))
            return 1
        try:
            socket.create_connection(("127.0.0.1", port), 0.2).close()
            break
        except OSError:
            if time.monotonic() > deadline:
                stop()
            time.sleep(0.1)
    print("PORT %d" % port, flush=True)
    # As peerlib.watch_lifetime, but the server's folder goes too: the end of stdin (the runner
    # holds it), the parent going away, or the time limit.
    threading.Thread(target=lambda: (sys.stdin.buffer.read(), stop()), daemon=True).start()
    parent, limit = os.getppid(), time.monotonic() + (args.max_seconds or float("inf"))
    while server.poll() is None and os.getppid() == parent and time.monotonic() < limit:
        time.sleep(0.25)
    stop()

if __name__ == "__main__":
    sys.exit(main())
