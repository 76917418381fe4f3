#!/usr/bin/env python3
"""Debian's nginx as a throw-away loopback HTTP + HTTPS peer.

`with NginxPeer(data_dir) as peer:` serves data_dir at / on peer.http_port and peer.https_port
(ranges, HEAD, 416: nginx does all of that), with WebDAV PUT/DELETE under /upload/, and data_dir/dcm/
again under /ffs/ for requests with "Authorization: Bearer mdx-ffs-token" alone (a file server).
"""

import os
import shutil
import socket
import subprocess
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
        # A file server: the folder dcm/ again, for the bearer token "mdx-ffs-token" only.
        location /ffs/ {{
            alias {data}/dcm/;
            if ($http_authorization != "Bearer mdx-ffs-token") {{ return 401; }}
        }}
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
