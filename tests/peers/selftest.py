#!/usr/bin/env python3
"""Checks the peers themselves, so that a failing transport test never has to wonder whether the
peer or the library is wrong. Runs under run_with_peers.py --with aws (ctest: peers_selftest)."""

import http.client
import json
import os
import ssl
import sys
import unittest

import peerlib
import sigv4_peer

sys.dont_write_bytecode = True


def request(port_variable, method, path, headers=None, body=None, tls=False, host=None):
    port = os.environ.get(port_variable)
    if not port:
        raise unittest.SkipTest(port_variable + " not set")
    context = ssl._create_unverified_context()
    conn = (http.client.HTTPSConnection("127.0.0.1", int(port), context=context, timeout=10) if tls
            else http.client.HTTPConnection("127.0.0.1", int(port), timeout=10))
    conn.request(method, path, body=body, headers=dict(headers or {}, **({"Host": host} if host else {})))
    response = conn.getresponse()
    try:
        return response, response.read()
    except http.client.IncompleteRead as e:
        return response, e.partial


class Peers(unittest.TestCase):
    def test_the_stream_formula_and_the_files_nginx_serves(self):
        for i in list(range(0, 70000, 997)) + [(1 << 30) + 12345]:
            k = i // peerlib.SEGMENT
            self.assertEqual(peerlib.segment(k)[i - k * peerlib.SEGMENT], peerlib.byte_at(i), i)
        response, body = request("MDX_NGINX_HTTP_PORT", "GET", "/medium.bin", {"Range": "bytes=65530-65545"})
        self.assertEqual((response.status, body), (206, b"".join(peerlib.chunks(65530, 65546))))

    def test_fault_peer_shapes_and_breaks_answers(self):
        cases = [("size=100000", {"Range": "bytes=70000-70009"}, 206, peerlib.chunks(70000, 70010)),
                 ("size=100&bad_range=3", {"Range": "bytes=10-19"}, 206, peerlib.chunks(13, 23)),
                 ("size=5000&close_after=3000", {}, 200, peerlib.chunks(0, 3000)),
                 ("size=5000&chunked=1", {}, 200, peerlib.chunks(0, 5000)),
                 ("status=503&times=1&size=10", {}, 503, [b"injected fault 503\n"]),
                 ("status=503&times=1&size=10", {}, 200, peerlib.chunks(0, 10))]
        for query, headers, status, expected in cases:  # "times" counts the requests of one id
            response, body = request("MDX_FAULT_TLS_PORT", "GET", "/x?id=%s&%s" % (query, query), headers, tls=True)
            self.assertEqual((response.status, body), (status, b"".join(expected)), query)
        _, stats = request("MDX_FAULT_TLS_PORT", "GET", "/__stats?id=" + cases[-1][0], tls=True)
        self.assertEqual(json.loads(stats)["requests"], 2)

    def test_fault_peer_breaks_uploads_by_kind_of_request(self):
        path = "/q/id=self-upload&status=503&times=1&on=PUT:partNumber/key"
        cases = [("POST", path + "?uploads=", 200, b"<UploadId>fault-peer-upload</UploadId>"),
                 ("PUT", path + "?partNumber=1&uploadId=u", 503, b"injected fault 503"),
                 ("PUT", path + "?partNumber=1&uploadId=u", 201, b'"length": 4'),
                 ("POST", "/q/id=self-error/k?uploadId=u&error200=1", 200, b"<Error><Code>InternalError")]
        for method, target, status, part in cases:
            response, body = request("MDX_FAULT_TLS_PORT", method, target, body=b"body", tls=True)
            self.assertEqual(response.status, status, target)
            self.assertIn(part, body, target)
        with self.assertRaises((ConnectionError, OSError, http.client.HTTPException)):
            request("MDX_FAULT_PORT", "PUT", "/x?id=self-reset&reset_after=10", body=b"x" * 200000)

    def test_metadata_peer_insists_on_its_token_once_one_is_out(self):
        region = "/latest/meta-data/placement/region"
        self.assertEqual(request("MDX_EC2_PORT", "GET", region)[1], b"us-east-1")
        response, token = request("MDX_EC2_PORT", "PUT", "/latest/api/token",
                                  {"X-aws-ec2-metadata-token-ttl-seconds": "60"})
        self.assertEqual(response.status, 200)
        self.assertEqual(request("MDX_EC2_PORT", "GET", region)[0].status, 401)
        self.assertEqual(request("MDX_EC2_PORT", "GET", region, {"X-aws-ec2-metadata-token": token})[0].status, 200)

    def test_sigv4_peer_accepts_botocore_signatures_only(self):
        import datetime
        host = "b.s3.us-east-1.localhost"
        now = datetime.datetime.utcnow().strftime("%Y%m%dT%H%M%SZ")
        for secret, status in (("sigv4/plain/SECRETKEY", 200), ("wrong", 403)):
            signature = sigv4_peer.botocore_signature("GET", host, "/k", {"host": host}, now, "AKIDSIGV4PLAIN",
                                                      secret, None, "us-east-1")
            authorization = ("AWS4-HMAC-SHA256 Credential=AKIDSIGV4PLAIN/%s/us-east-1/s3/aws4_request, "
                             "SignedHeaders=host;x-amz-content-sha256;x-amz-date, Signature=%s" % (now[:8], signature))
            headers = {"X-Amz-Date": now, "X-Amz-Content-SHA256": "UNSIGNED-PAYLOAD", "Authorization": authorization}
            response, _ = request("MDX_SIGV4_PORT", "GET", "/k", headers, tls=True, host=host)
            self.assertEqual(response.status, status)


if __name__ == "__main__":
    unittest.main(verbosity=1)
