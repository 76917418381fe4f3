#!/usr/bin/env python3
"""Checks the test peers themselves, so a transport test failure never has to wonder whether
the peer or the library is wrong. Runs under run_with_peers.py (ctest: peers_selftest)."""

import hashlib
import http.client
import json
import os
import socket
import ssl
import sys
import time
import unittest
import uuid

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.dont_write_bytecode = True  # keep the source tree clean of __pycache__
import peer_body  # noqa: E402


def env_port(name):
    value = os.environ.get(name)
    if not value:
        raise unittest.SkipTest("%s not set: run me through run_with_peers.py" % name)
    return int(value)


def insecure():
    ctx = ssl.create_default_context()
    ctx.check_hostname = False
    ctx.verify_mode = ssl.CERT_NONE
    return ctx


def fresh_id():
    return uuid.uuid4().hex[:12]


class Peers(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.nginx = env_port("MDX_NGINX_HTTP_PORT")
        cls.nginx_tls = env_port("MDX_NGINX_HTTPS_PORT")
        cls.fault = env_port("MDX_FAULT_PORT")
        cls.fault_tls = env_port("MDX_FAULT_TLS_PORT")
        cls.data = os.environ["MDX_PEER_DATA"]

    def setUp(self):
        self.conns = []

    def tearDown(self):
        for c in self.conns:
            c.close()

    def http(self, port, tls=False):
        if tls:
            c = http.client.HTTPSConnection("127.0.0.1", port, timeout=10, context=insecure())
        else:
            c = http.client.HTTPConnection("127.0.0.1", port, timeout=10)
        self.conns.append(c)
        return c

    def call(self, conn, method, path, headers=None, body=None):
        conn.request(method, path, body=body, headers=headers or {})
        resp = conn.getresponse()
        return resp, resp.read()

    def stats(self, tid, tls=False):
        # Each fault peer is its own process with its own counters.
        conn = self.http(self.fault_tls, tls=True) if tls else self.http(self.fault)
        _, body = self.call(conn, "GET", "/__stats?id=" + tid)
        return json.loads(body)

    # ---- the body formula ------------------------------------------------------------------

    def test_generated_files_follow_the_formula(self):
        sizes = {"small.bin": 1000, "medium.bin": 5 << 20, "large.bin": 64 << 20}
        for name, size in sizes.items():
            path = os.path.join(self.data, name)
            self.assertEqual(os.path.getsize(path), size, name)
            with open(path, "rb") as f:
                for off in (0, 7, 999, 65535, 65536, size - 9, 3 << 20, (64 << 20) - 1):
                    if off < size:
                        f.seek(off)
                        self.assertEqual(f.read(1)[0], peer_body.byte_at(off), (name, off))
        # No repetition at power-of-two distances, the point of the formula.
        self.assertNotEqual(peer_body.data(0, 64), peer_body.data(1 << 20, (1 << 20) + 64))
        self.assertNotEqual(peer_body.data(0, 64), peer_body.data(1 << 16, (1 << 16) + 64))

    # ---- nginx ----------------------------------------------------------------------------

    def test_nginx_range_http(self):
        resp, body = self.call(self.http(self.nginx), "GET", "/medium.bin",
                               {"Range": "bytes=1000-1999"})
        self.assertEqual(resp.status, 206)
        self.assertEqual(resp.getheader("Content-Range"), "bytes 1000-1999/%d" % (5 << 20))
        self.assertEqual(body, peer_body.data(1000, 2000))

    def test_nginx_range_https(self):
        size = 64 << 20
        resp, body = self.call(self.http(self.nginx_tls, tls=True), "GET", "/large.bin",
                               {"Range": "bytes=%d-" % (size - 70000)})
        self.assertEqual(resp.status, 206)
        self.assertEqual(resp.getheader("Content-Range"),
                         "bytes %d-%d/%d" % (size - 70000, size - 1, size))
        self.assertEqual(body, peer_body.data(size - 70000, size))

    def test_certificate_names(self):
        # The certificate must verify for the virtual-host names curl resolves to loopback.
        ctx = ssl.create_default_context(cafile=os.environ.get("MDX_PEER_CA"))
        for name in ("localhost", "mybucket.s3.us-east-1.localhost", "myaccount.blob.localhost"):
            with socket.create_connection(("127.0.0.1", self.nginx_tls), timeout=10) as raw:
                with ctx.wrap_socket(raw, server_hostname=name) as tls:
                    self.assertTrue(tls.version())

    def test_nginx_416(self):
        resp, _ = self.call(self.http(self.nginx), "GET", "/small.bin", {"Range": "bytes=1000-"})
        self.assertEqual(resp.status, 416)

    def test_nginx_head(self):
        resp, body = self.call(self.http(self.nginx), "HEAD", "/medium.bin")
        self.assertEqual(resp.status, 200)
        self.assertEqual(int(resp.getheader("Content-Length")), 5 << 20)
        self.assertEqual(body, b"")

    def test_nginx_upload_put_get_delete(self):
        conn = self.http(self.nginx)
        payload = peer_body.data(123, 123 + 300000)
        path = "/upload/%s/deep/obj.bin" % fresh_id()
        resp, _ = self.call(conn, "PUT", path, body=payload)
        self.assertIn(resp.status, (201, 204))
        resp, body = self.call(conn, "GET", path)
        self.assertEqual((resp.status, body), (200, payload))
        self.assertTrue(os.path.isfile(os.path.join(self.data, path.lstrip("/"))))
        resp, _ = self.call(conn, "DELETE", path)
        self.assertEqual(resp.status, 204)
        resp, _ = self.call(conn, "GET", path)
        self.assertEqual(resp.status, 404)

    # ---- fault peer -----------------------------------------------------------------------

    def test_status_then_success_with_counters(self):
        tid = fresh_id()
        conn = self.http(self.fault)  # one connection: fault answers must keep it usable
        path = "/obj?id=%s&status=503&times=2&retry_after=1&size=5000" % tid
        for _ in range(2):
            resp, body = self.call(conn, "GET", path)
            self.assertEqual(resp.status, 503)
            self.assertEqual(resp.getheader("Retry-After"), "1")
        resp, body = self.call(conn, "GET", path)
        self.assertEqual(resp.status, 200)
        self.assertEqual(body, peer_body.data(0, 5000))
        st = self.stats(tid)
        self.assertEqual(st["requests"], 3)
        self.assertEqual(st["methods"], ["GET"] * 3)
        self.assertEqual(len(st["at"]), 3)
        self.call(self.http(self.fault), "POST", "/__reset?id=" + tid)
        self.assertEqual(self.stats(tid)["requests"], 0)

    def test_fault_header_and_test_id_header(self):
        tid = fresh_id()
        conn = self.http(self.fault)
        hdrs = {"X-Test-Id": tid, "X-Fault": "status=500&times=1", "Range": "bytes=10-19"}
        resp, _ = self.call(conn, "GET", "/o", hdrs)
        self.assertEqual(resp.status, 500)
        resp, body = self.call(conn, "GET", "/o", hdrs)
        self.assertEqual(resp.status, 206)
        self.assertEqual(body, peer_body.data(10, 20))
        st = self.stats(tid)
        self.assertEqual(st["requests"], 2)
        self.assertEqual(st["ranges"], ["bytes=10-19"] * 2)

    def test_close_after_gives_incomplete_read(self):
        conn = self.http(self.fault)
        conn.request("GET", "/o?size=100000&close_after=4096")
        resp = conn.getresponse()
        self.assertEqual(resp.status, 200)
        self.assertEqual(resp.getheader("Content-Length"), "100000")
        with self.assertRaises(http.client.IncompleteRead) as cm:
            resp.read()
        self.assertEqual(cm.exception.partial, peer_body.data(0, 4096))

    def test_close_after_over_tls(self):
        conn = self.http(self.fault_tls, tls=True)
        conn.request("GET", "/o?size=100000&close_after=1000")
        resp = conn.getresponse()
        with self.assertRaises((http.client.IncompleteRead, ssl.SSLError)):
            resp.read()

    def test_short_and_reset(self):
        conn = self.http(self.fault)
        conn.request("GET", "/o?size=10000&short=1")
        resp = conn.getresponse()
        with self.assertRaises(http.client.IncompleteRead) as cm:
            resp.read()
        self.assertEqual(len(cm.exception.partial), 5000)
        conn = self.http(self.fault)
        conn.request("GET", "/o?reset=1")
        with self.assertRaises((ConnectionResetError, http.client.RemoteDisconnected)):
            conn.getresponse().read()

    def test_chunked(self):
        resp, body = self.call(self.http(self.fault), "GET", "/o?size=10000&chunked=1")
        self.assertEqual(resp.status, 200)
        self.assertEqual(resp.getheader("Transfer-Encoding"), "chunked")
        self.assertIsNone(resp.getheader("Content-Length"))
        self.assertEqual(body, peer_body.data(0, 10000))

    def test_ranges(self):
        conn = self.http(self.fault)
        resp, body = self.call(conn, "GET", "/o?size=1000", {"Range": "bytes=900-5000"})
        self.assertEqual(resp.status, 206)
        self.assertEqual(resp.getheader("Content-Range"), "bytes 900-999/1000")
        self.assertEqual(body, peer_body.data(900, 1000))
        resp, body = self.call(conn, "GET", "/o?size=1000", {"Range": "bytes=-10"})
        self.assertEqual(resp.getheader("Content-Range"), "bytes 990-999/1000")
        resp, _ = self.call(conn, "GET", "/o?size=1000", {"Range": "bytes=1000-"})
        self.assertEqual(resp.status, 416)
        self.assertEqual(resp.getheader("Content-Range"), "bytes */1000")

    def test_bad_range(self):
        resp, body = self.call(self.http(self.fault), "GET", "/o?size=1000&bad_range=1",
                               {"Range": "bytes=100-199"})
        self.assertEqual(resp.status, 206)
        self.assertEqual(resp.getheader("Content-Range"), "bytes 101-200/1000")
        self.assertEqual(body, peer_body.data(101, 201))

    def test_ignore_range(self):
        resp, body = self.call(self.http(self.fault), "GET", "/o?size=3000&ignore_range=1",
                               {"Range": "bytes=100-199"})
        self.assertEqual(resp.status, 200)
        self.assertIsNone(resp.getheader("Content-Range"))
        self.assertEqual(body, peer_body.data(0, 3000))

    def test_head(self):
        resp, body = self.call(self.http(self.fault), "HEAD", "/o?size=123456")
        self.assertEqual(resp.status, 200)
        self.assertEqual(resp.getheader("Content-Length"), "123456")
        self.assertEqual(resp.getheader("Accept-Ranges"), "bytes")
        self.assertEqual(body, b"")

    def test_stall_and_slow(self):
        t = time.monotonic()
        resp, body = self.call(self.http(self.fault), "GET",
                               "/o?size=20000&stall_after=100&stall=0.3")
        self.assertGreaterEqual(time.monotonic() - t, 0.3)
        self.assertEqual(body, peer_body.data(0, 20000))
        resp, body = self.call(self.http(self.fault), "GET", "/o?size=20000&slow=4000")
        self.assertEqual(body, peer_body.data(0, 20000))

    def test_uploads_are_hashed_and_counted(self):
        tid = fresh_id()
        conn = self.http(self.fault_tls, tls=True)
        payload = peer_body.data(0, 200000)
        resp, body = self.call(conn, "PUT", "/up?id=" + tid, body=payload)
        self.assertEqual(resp.status, 201)
        self.assertEqual(json.loads(body),
                         {"length": 200000, "sha256": hashlib.sha256(payload).hexdigest()})
        # Chunked request body (unknown length), the way streaming uploads arrive.
        conn.request("POST", "/up?id=" + tid, body=iter([b"abc", b"defg"]),
                     encode_chunked=True, headers={"Transfer-Encoding": "chunked"})
        resp = conn.getresponse()
        self.assertEqual(resp.status, 200)
        self.assertEqual(json.loads(resp.read())["sha256"], hashlib.sha256(b"abcdefg").hexdigest())
        resp, _ = self.call(conn, "DELETE", "/up?id=" + tid)
        self.assertEqual(resp.status, 204)
        st = self.stats(tid, tls=True)
        self.assertEqual(st["methods"], ["PUT", "POST", "DELETE"])
        self.assertEqual([u["length"] for u in st["uploads"]], [200000, 7])

    def test_upload_close_after(self):
        conn = self.http(self.fault)
        with self.assertRaises((ConnectionError, http.client.RemoteDisconnected, OSError)):
            self.call(conn, "PUT", "/up?upload_close_after=1000", body=b"x" * 2000000)

    def test_error_document_and_bad_option(self):
        resp, body = self.call(self.http(self.fault), "GET", "/o?error_doc=1&error_code=SlowDown")
        self.assertEqual(resp.status, 200)
        self.assertIn(b"<Code>SlowDown</Code>", body)
        resp, _ = self.call(self.http(self.fault), "GET", "/o?size=lots")
        self.assertEqual(resp.status, 400)
        resp, _ = self.call(self.http(self.fault), "GET", "/o", {"X-Fault": "close_afterr=10"})
        self.assertEqual(resp.status, 400)


if __name__ == "__main__":
    unittest.main(verbosity=2)
