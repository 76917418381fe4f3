#!/usr/bin/env python3
"""Google's token sources over plain HTTP (see peerlib.py for the common options): the OAuth 2.0
token endpoint of the JWT-bearer grant (RFC 7523) and the Compute Engine metadata token, in one peer.

    POST /token   form grant_type=urn:ietf:params:oauth:grant-type:jwt-bearer, assertion=JWT.
                  The JWT is checked with Debian's python3-cryptography: three URL-safe Base64
                  parts without "=", header {"alg": "RS256", "kid": <registered>, "typ": "JWT"},
                  claims iss = the registered account, aud = this endpoint's URL, scope = the
                  Cloud Platform scope, integer iat within 60 s of now and exp = iat + 3600, and
                  the RS256 signature under the registered public key. Else 400 invalid_grant
                  with the reason in "error_description".
    GET /computeMetadata/v1/instance/service-accounts/default/token   needs "Metadata-Flavor: Google"
Both answer {"access_token": "ya29.mdx-<n>", "token_type": "Bearer", "expires_in": S}.
Control: POST /__key with JSON {"kid", "client_email", "public_key"} registers the account;
POST /__mode?name=NAME[&expires_in=S] sets the mode and forgets the counters (modes: normal,
error500, no_token_type, empty_token). GET /__stats gives {"requests": {"VERB path": n},
"raw_forms": [...], "claims": [...], "headers": [...], "rejections": [...],
"metadata_flavor": [...]}.
"""

import base64
import json
import time
from urllib.parse import parse_qs, urlsplit

import peerlib

try:
    from cryptography.exceptions import InvalidSignature
    from cryptography.hazmat.primitives import hashes, serialization
    from cryptography.hazmat.primitives.asymmetric import padding
except ImportError:  # Debian package python3-cryptography
    InvalidSignature = None

MODES = ("normal", "error500", "no_token_type", "empty_token")
METADATA = "/computeMetadata/v1/instance/service-accounts/default/token"
GRANT = "urn:ietf:params:oauth:grant-type:jwt-bearer"
SCOPE = "https://www.googleapis.com/auth/cloud-platform"


def fresh(mode="normal", options=None, key=None):
    options = options or {}
    return {"mode": mode, "expires_in": int(options.get("expires_in", 3599)), "requests": {}, "raw_forms": [],
            "claims": [], "headers": [], "rejections": [], "metadata_flavor": [], "issued": 0, "key": key}


def b64url_decode(text):
    if "=" in text or "+" in text or "/" in text:
        raise ValueError("not URL-safe Base64 without padding")
    return base64.urlsafe_b64decode(text + "=" * (-len(text) % 4))


def check_assertion(assertion, key, audience):
    """The reason the assertion is refused, or None; and the header and claims read."""
    parts = assertion.split(".")
    if len(parts) != 3:
        return "not three parts", None, None
    try:
        header_raw, claims_raw, signature = (b64url_decode(p) for p in parts)
        header, claims = json.loads(header_raw), json.loads(claims_raw)
    except ValueError as e:
        return "undecodable: %s" % e, None, None
    if header_raw != json.dumps(header, separators=(",", ":"), sort_keys=True).encode():
        return "header not compact JSON with sorted keys", header, claims
    if header != {"alg": "RS256", "kid": key["kid"], "typ": "JWT"}:
        return "bad header", header, claims
    if claims.get("iss") != key["client_email"]:
        return "bad issuer", header, claims
    if claims.get("aud") != audience:
        return "bad audience %r, expected %r" % (claims.get("aud"), audience), header, claims
    if claims.get("scope") != SCOPE:
        return "bad scope", header, claims
    iat, exp = claims.get("iat"), claims.get("exp")
    if type(iat) is not int or type(exp) is not int:
        return "iat and exp must be integers", header, claims
    if abs(iat - time.time()) > 60 or exp - iat != 3600:
        return "bad issued/expiry window", header, claims
    public = serialization.load_pem_public_key(key["public_key"].encode())
    try:
        public.verify(signature, (parts[0] + "." + parts[1]).encode(), padding.PKCS1v15(), hashes.SHA256())
    except InvalidSignature:
        return "bad signature", header, claims
    return None, header, claims


class TokenHandler(peerlib.Handler):
    server_version = "google-token-peer"

    def route(self):
        body = self.read_body()
        url = urlsplit(self.path)
        lock = self.server.lock
        if url.path == "/__key":
            with lock:
                self.server.state["key"] = json.loads(body)
            return self.send(200, "key registered\n")
        # A new mode keeps the registered key.
        if self.control(url, MODES, lambda name, options: fresh(name, options, self.server.state["key"])):
            return None
        with lock:
            st = self.server.state
            key = "%s %s" % (self.command, url.path)
            st["requests"][key] = st["requests"].get(key, 0) + 1
            mode, lifetime = st["mode"], st["expires_in"]
        if mode == "error500":
            return self.send(500, '{"error": "internal"}', "application/json")
        if url.path == METADATA and self.command == "GET":
            flavor = self.headers.get("Metadata-Flavor")
            with lock:
                st["metadata_flavor"].append(flavor)
            if flavor != "Google":
                return self.send(403, "Missing Metadata-Flavor:Google header.\n")
            return self.answer(mode, lifetime)
        if url.path == "/token" and self.command == "POST":
            raw = body.decode()
            form = {k: v[-1] for k, v in parse_qs(raw, keep_blank_values=True).items()}
            with lock:
                st["raw_forms"].append(raw)
                account = st["key"]
            reason = None
            if InvalidSignature is None:
                reason = "python3-cryptography missing"
            elif account is None:
                reason = "no key registered"
            elif form.get("grant_type") != GRANT:
                reason = "unsupported grant_type"
            else:
                audience = "http://127.0.0.1:%d/token" % self.server.server_address[1]
                reason, header, claims = check_assertion(form.get("assertion", ""), account, audience)
                with lock:
                    st["headers"].append(header)
                    st["claims"].append(claims)
            if reason:
                with lock:
                    st["rejections"].append(reason)
                return self.send(400, json.dumps({"error": "invalid_grant", "error_description": reason}),
                                 "application/json")
            return self.answer(mode, lifetime)
        return self.send(404, '{"error": "not found"}', "application/json")

    def answer(self, mode, lifetime):
        with self.server.lock:
            self.server.state["issued"] += 1
            token = "ya29.mdx-%d" % self.server.state["issued"]
        document = {"access_token": "" if mode == "empty_token" else token, "token_type": "Bearer",
                    "expires_in": lifetime}
        if mode == "no_token_type":
            del document["token_type"]
        return self.send(200, json.dumps(document), "application/json")


if __name__ == "__main__":
    peerlib.serve(TokenHandler, "Google OAuth token endpoint and metadata token.", state=lambda args: fresh())
