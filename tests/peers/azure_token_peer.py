#!/usr/bin/env python3
"""Azure's token sources over plain HTTP (see peerlib.py for the common options): the instance
metadata service and the login endpoint of the client-credentials grant, in one peer.

    GET /metadata/identity/oauth2/token?api-version=2018-02-01&resource=R   needs "Metadata: true"
    POST /<tenant>/oauth2/token    form grant_type=client_credentials, client_id, client_secret,
                                   resource; the identity below, else 401 invalid_client
Both answer {"access_token", "token_type": "Bearer", "expires_in", ...}; the metadata service
gives "expires_in" as a string, the login endpoint as a number, as the real services do. The
token is a JWT that azurite (--oauth basic) accepts: iss "https://sts.windows.net/<tenant>/", aud
the resource without its trailing slash, iat/nbf now, exp now + expires_in. azurite checks the
claims, not the signature.
Control: POST /__mode?name=NAME[&expires_in=S] sets the mode and forgets the counters. Modes:
normal, error500, not_json, no_token_type, empty_token, hangup (no answer at all). GET /__stats
gives {"requests": {"VERB path": n}, "forms": [...], "raw_forms": [...], "metadata_headers": [...]}.
"""

import base64
import json
import time
from urllib.parse import parse_qs, urlsplit

import peerlib

MODES = ("normal", "error500", "not_json", "no_token_type", "empty_token", "hangup")
METADATA = "/metadata/identity/oauth2/token"
TENANT = "mdx-tenant"
CLIENT_ID = "00000000-mdx0-test-0000-client000id"
CLIENT_SECRET = "s3cr&t=/+ value"


def fresh(mode="normal", options=None):
    options = options or {}
    return {"mode": mode, "expires_in": int(options.get("expires_in", 3599)), "requests": {}, "forms": [],
            "raw_forms": [], "metadata_headers": []}


def b64url(data):
    return base64.urlsafe_b64encode(data).rstrip(b"=").decode()


def jwt(tenant, resource, lifetime):
    now = int(time.time())
    header = {"typ": "JWT", "alg": "RS256"}
    claims = {"aud": resource.rstrip("/"), "iss": "https://sts.windows.net/%s/" % tenant, "iat": now - 60,
              "nbf": now - 60, "exp": now + lifetime, "oid": "mdx-test", "tid": tenant}
    return "%s.%s.%s" % (b64url(json.dumps(header).encode()), b64url(json.dumps(claims).encode()),
                         b64url(b"not-a-signature"))


class TokenHandler(peerlib.Handler):
    server_version = "azure-token-peer"

    def route(self):
        body = self.read_body()
        url = urlsplit(self.path)
        lock = self.server.lock
        if self.control(url, MODES, fresh):
            return None
        with lock:
            st = self.server.state
            key = "%s %s" % (self.command, url.path)
            st["requests"][key] = st["requests"].get(key, 0) + 1
            mode, lifetime = st["mode"], st["expires_in"]
        if mode == "hangup":
            self.close_connection = True
            return None
        if mode == "error500":
            return self.send(500, '{"error": "internal"}', "application/json")
        if url.path == METADATA and self.command == "GET":
            with lock:
                st["metadata_headers"].append(self.headers.get("Metadata"))
            query = {k: v[-1] for k, v in parse_qs(url.query).items()}
            if self.headers.get("Metadata") != "true" or query.get("api-version") != "2018-02-01":
                return self.send(400, '{"error": "invalid_request"}', "application/json")
            return self.answer(mode, TENANT, query.get("resource", ""), lifetime, str(lifetime))
        parts = url.path.strip("/").split("/")
        if self.command == "POST" and len(parts) == 3 and parts[1:] == ["oauth2", "token"]:
            form = {k: v[-1] for k, v in parse_qs(body.decode(), keep_blank_values=True).items()}
            with lock:
                st["forms"].append(form)
                st["raw_forms"].append(body.decode())
            if (parts[0] != TENANT or form.get("grant_type") != "client_credentials"
                    or form.get("client_id") != CLIENT_ID or form.get("client_secret") != CLIENT_SECRET):
                return self.send(401, '{"error": "invalid_client"}', "application/json")
            return self.answer(mode, parts[0], form.get("resource", ""), lifetime, lifetime)
        return self.send(404, '{"error": "not found"}', "application/json")

    def answer(self, mode, tenant, resource, lifetime, expires_in):
        if mode == "not_json":
            return self.send(200, "<html>token service</html>", "text/html")
        document = {"access_token": "" if mode == "empty_token" else jwt(tenant, resource, lifetime),
                    "token_type": "Bearer", "expires_in": expires_in, "resource": resource}
        if mode == "no_token_type":
            del document["token_type"]
        return self.send(200, json.dumps(document), "application/json")


if __name__ == "__main__":
    peerlib.serve(TokenHandler, "Azure instance metadata and login endpoint.", state=lambda args: fresh())
