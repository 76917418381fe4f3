#!/usr/bin/env python3
"""An EC2-style instance metadata service over plain HTTP (see peerlib.py for the common options).

    PUT /latest/api/token                  needs "X-aws-ec2-metadata-token-ttl-seconds: 1..21600"
    GET /latest/meta-data/placement/region the region
    GET /latest/meta-data/iam/security-credentials          the role and a line feed
    GET /latest/meta-data/iam/security-credentials/<role>   {"AccessKeyId", "SecretAccessKey",
                                           "Token", "Expiration", ...}; 404 for another role
Once a token is out, every GET must carry one (401 otherwise), as in the token-only mode.
Control: POST /__mode?name=NAME[&delay=S][&expires_in=S][&region=R] sets the mode and forgets
counters and tokens. Modes: normal, no_token (the PUT answers 403), empty_region, empty_role,
invalid_credentials (no key and secret in the document), error500 (everything), error500_credentials,
hangup (no answer at all). GET /__stats gives {"requests": {"VERB path": n}, "tokens": [...],
"token_headers": {"VERB path": [...]}, "ttl_headers": [...]}.
"""

import datetime
import json
import time
from urllib.parse import urlsplit

import peerlib

MODES = ("normal", "no_token", "empty_region", "empty_role", "invalid_credentials", "error500",
         "error500_credentials", "hangup")
TOKEN = "/latest/api/token"
ROLES = "/latest/meta-data/iam/security-credentials"
ROLE = "mdx-test-role"
IDENTITY = {"AccessKeyId": "ASIAMETADATAEXAMPLE", "SecretAccessKey": "metadata/secret/EXAMPLEKEY",
            "Token": "metadata-session-token-EXAMPLE"}


def fresh(mode="normal", options=None):
    options = options or {}
    return {"mode": mode, "delay": min(30.0, float(options.get("delay", 0))),
            "expires_in": int(options.get("expires_in", 21600)), "region": options.get("region", "us-east-1"),
            "requests": {}, "tokens": [], "token_headers": {}, "ttl_headers": []}


class MetadataHandler(peerlib.Handler):
    server_version = "ec2-metadata-peer"

    def route(self):
        self.read_body()
        url = urlsplit(self.path)
        lock = self.server.lock
        if self.control(url, MODES, fresh, hidden=("delay",)):
            return None
        key = "%s %s" % (self.command, url.path)
        sent = self.headers.get("X-aws-ec2-metadata-token")
        ttl = self.headers.get("X-aws-ec2-metadata-token-ttl-seconds")
        with lock:
            st = self.server.state
            st["requests"][key] = st["requests"].get(key, 0) + 1
            if url.path == TOKEN:
                st["ttl_headers"].append(ttl)
            else:
                st["token_headers"].setdefault(key, []).append(sent)
            mode, tokens = st["mode"], list(st["tokens"])
        time.sleep(st["delay"])
        if mode == "hangup":
            self.close_connection = True
            return None
        if mode == "error500" or (mode == "error500_credentials" and url.path.startswith(ROLES + "/")):
            return self.send(500, "Internal Server Error\n")
        if url.path == TOKEN:
            if mode == "no_token":
                return self.send(403, "Forbidden\n")
            if not (ttl or "").isdigit() or not 1 <= int(ttl) <= 21600:
                return self.send(400, "Bad Request\n")
            with lock:
                st["tokens"].append("AQAEA-peer-token-%d" % (len(st["tokens"]) + 1))
                return self.send(200, st["tokens"][-1])
        if tokens and sent not in tokens:
            return self.send(401, "Unauthorized\n")
        if url.path == "/latest/meta-data/placement/region":
            return self.send(200, "" if mode == "empty_region" else st["region"])
        if url.path == ROLES:
            return self.send(200, "" if mode == "empty_role" else ROLE + "\n")
        if url.path != ROLES + "/" + ROLE:
            return self.send(404, "Not Found\n")
        expiration = datetime.datetime.now(datetime.timezone.utc) + datetime.timedelta(seconds=st["expires_in"])
        document = dict(IDENTITY, Code="Success", Expiration=expiration.strftime("%Y-%m-%dT%H:%M:%SZ"))
        if mode == "invalid_credentials":
            del document["AccessKeyId"], document["SecretAccessKey"]
        return self.send(200, json.dumps(document, indent=2))


if __name__ == "__main__":
    peerlib.serve(MetadataHandler, "EC2-style instance metadata service.", state=lambda args: fresh())
