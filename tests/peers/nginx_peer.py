#!/usr/bin/env python3
"""Debian's nginx as a throw-away loopback HTTP + HTTPS peer.

As a library: `with NginxPeer(data_dir) as peer:` serves data_dir at / on peer.http_port and
peer.https_port (ranges, HEAD, 416: nginx does all of that), with WebDAV PUT/DELETE under /upload/.
As a command (bench/download/run.sh):
    python3 nginx_peer.py --data DIR [--make-file NAME:SIZE]... [--port-file FILE] -- COMMAND...
generates the files (the stream of peerlib.py), runs COMMAND with MDX_NGINX_HTTP_PORT,
MDX_NGINX_HTTPS_PORT and MDX_PEER_DATA, stops nginx and exits with COMMAND's status.
"""

import argparse
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

import peerlib

NGINX = os.environ.get("MDX_NGINX", "/usr/sbin/nginx")
CONFIG = """\
{user}daemon off;
master_process off;
worker_processes 1;
pid {tmp}/nginx.pid;
error_log {tmp}/error.log warn;
events {{ worker_connections 512; }}
http {{
    access_log off;
    default_type application/octet-stream;
    sendfile on;
    keepalive_requests 100000;
    client_body_temp_path {tmp}/client_body;
    proxy_temp_path {tmp}/proxy;
    fastcgi_temp_path {tmp}/fastcgi;
    uwsgi_temp_path {tmp}/uwsgi;
    scgi_temp_path {tmp}/scgi;
    server {{
        listen 127.0.0.1:{http_port};
        listen 127.0.0.1:{https_port} ssl;
        ssl_certificate {cert};
        ssl_certificate_key {key};
        location / {{ root {data}; }}
        location /upload/ {{
            root {data};
            dav_methods PUT DELETE MKCOL;
            create_full_put_path on;
            client_max_body_size 0;
        }}
    }}
}}
"""


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def make_files(data_dir, entries):
    """entries: 'NAME:SIZE'. A file of the right size is kept: the content follows from the size."""
    for entry in entries:
        name, _, size = entry.rpartition(":")
        path, size = os.path.join(data_dir, name), peerlib.parse_size(size)
        if not (os.path.isfile(path) and os.path.getsize(path) == size):
            peerlib.write_file(path, size)


class NginxPeer:
    def __init__(self, data_dir, workdir=None, start_timeout=10.0):
        self.data_dir, self.workdir, self.start_timeout = os.path.abspath(data_dir), workdir, start_timeout
        self.tmp = self.proc = self.http_port = self.https_port = None

    def __enter__(self):
        try:
            return self.start()
        except BaseException:
            self.stop()
            raise

    def __exit__(self, *exc):
        self.stop()

    def start(self):
        os.makedirs(os.path.join(self.data_dir, "upload"), exist_ok=True)
        self.tmp = tempfile.mkdtemp(prefix="mdx-nginx-", dir=self.workdir)
        conf = os.path.join(self.tmp, "nginx.conf")
        for _ in range(5):  # a port taken between free_port() and nginx's bind: new ports
            self.http_port, self.https_port = free_port(), free_port()
            with open(conf, "w") as f:
                f.write(CONFIG.format(user="user root;\n" if os.geteuid() == 0 else "", tmp=self.tmp,
                                      data=self.data_dir, cert=peerlib.CERT, key=peerlib.KEY,
                                      http_port=self.http_port, https_port=self.https_port))
            self.proc = subprocess.Popen([NGINX, "-p", self.tmp + "/", "-c", conf, "-e", self.tmp + "/error.log"],
                                         stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                         preexec_fn=peerlib.die_with_parent)
            deadline = time.monotonic() + self.start_timeout
            while self.proc.poll() is None and time.monotonic() < deadline:
                try:
                    for port in (self.http_port, self.https_port):
                        socket.create_connection(("127.0.0.1", port), timeout=0.5).close()
                    return self
                except OSError:
                    time.sleep(0.005)
            self.stop_process()
        with open(os.path.join(self.tmp, "error.log"), errors="replace") as f:
            raise RuntimeError("nginx did not start:\n" + f.read())

    def stop_process(self):
        if self.proc is not None and self.proc.poll() is None:
            self.proc.terminate()
            self.proc.wait()

    def stop(self):
        self.stop_process()
        if self.tmp:
            shutil.rmtree(self.tmp, ignore_errors=True)
            self.tmp = None


def main():
    argv = sys.argv[1:]
    split = argv.index("--") if "--" in argv else len(argv)
    parser = argparse.ArgumentParser(description="Run nginx as a loopback test peer.")
    parser.add_argument("--data", required=True, help="folder served at /")
    parser.add_argument("--port-file", help='write "HTTP_PORT HTTPS_PORT" here once nginx is up')
    parser.add_argument("--make-file", action="append", default=[], metavar="NAME:SIZE")
    args, command = parser.parse_args(argv[:split]), argv[split + 1:] or ["sleep", "infinity"]
    os.makedirs(args.data, exist_ok=True)
    make_files(args.data, args.make_file)
    signal.signal(signal.SIGTERM, lambda signum, frame: sys.exit(128 + signum))
    with NginxPeer(args.data) as peer:
        if args.port_file:
            with open(args.port_file, "w") as f:
                f.write("%d %d\n" % (peer.http_port, peer.https_port))
        env = dict(os.environ, MDX_NGINX_HTTP_PORT=str(peer.http_port), MDX_NGINX_HTTPS_PORT=str(peer.https_port),
                   MDX_PEER_DATA=os.path.abspath(args.data))
        rc = subprocess.call(command, env=env, preexec_fn=peerlib.die_with_parent)
    return 128 - rc if rc < 0 else rc


if __name__ == "__main__":
    sys.exit(main())
