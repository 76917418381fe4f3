#!/usr/bin/env bash
# mdx cp to gs:// end to end against gcs_peer.py and google_token_peer.py (run_with_peers.py
# --with google): a service account key made here by openssl, the token checked by the token
# peer, required by the storage peer, and the objects fetched back with the curl tool and
# compared byte for byte; a failed copy gives its exit status, one line, and no object.
set -uo pipefail
MDX=$1
W=$(mktemp -d)
trap 'rm -rf "$W"' EXIT
cd "$W"
FAILS=0
fail() { echo "FAIL: $*" >&2; FAILS=$((FAILS + 1)); }
run() {
  local want=$1 what=$2
  shift 2
  "$MDX" "$@" >out 2>err
  local got=$?
  [ "$got" -eq "$want" ] || fail "$what: exit $got, expected $want: $(head -c 300 err)"
}
TOKENS=http://127.0.0.1:$MDX_GOOGLE_TOKEN_PORT
GCS=http://127.0.0.1:$MDX_GCS_PORT

openssl genpkey -algorithm RSA -out key.pem 2>/dev/null && openssl pkey -in key.pem -pubout -out pub.pem || exit 1
python3 - "$TOKENS" <<'PY' || exit 1
import json, sys
key, pub = open("key.pem").read(), open("pub.pem").read()
json.dump({"type": "service_account", "private_key_id": "cp-key", "private_key": key,
           "client_email": "cp@mdx-test.iam.gserviceaccount.com", "token_uri": sys.argv[1] + "/token"},
          open("adc.json", "w"))
json.dump({"kid": "cp-key", "client_email": "cp@mdx-test.iam.gserviceaccount.com", "public_key": pub},
          open("account.json", "w"))
PY
curl -sf -X POST --data-binary @account.json "$TOKENS/__key" >/dev/null || fail "register the key"
# Each mdx run asks for its own token: the n-th the token peer gives out is "ya29.mdx-n", and the
# storage peer refuses any other.
issued=0
expect_token() {
  issued=$((issued + 1))
  curl -sf -X POST "$GCS/__mode?token=ya29.mdx-$issued" >/dev/null || fail "storage mode"
}
export GOOGLE_APPLICATION_CREDENTIALS=$W/adc.json MDX_GCS_UPLOAD_ENDPOINT=$GCS/ MDX_GCE_METADATA_HOST=127.0.0.1:9

head -c $((20 * 1048576 + 4321)) /dev/urandom >big.bin
printf 'small object\n' >small.bin
for f in big.bin small.bin; do
  expect_token
  run 0 "cp $f to gs" cp --quiet "$f" "gs://bucket/cp/$f"
  curl -sf -o "back-$f" "$GCS/bucket/cp/$f" || fail "get gs $f"
  cmp -s "$f" "back-$f" || fail "gs $f differs"
done
curl -sf "$TOKENS/__stats" | python3 -c "import json,sys; d=json.load(sys.stdin); assert not d['rejections'], d" ||
  fail "the token peer refused an assertion"

# A session the server no longer knows: exit 5, one line, nothing stored.
expect_token
curl -sf -X POST "$GCS/__fail?kind=404" >/dev/null
run 5 "lost session" cp --quiet big.bin gs://bucket/cp/lost.bin
[ "$(wc -l <err)" -eq 1 ] && grep -q '^mdx: ' err || fail "lost session: not one mdx line: $(cat err)"
curl -s -o /dev/null -w '%{http_code}' "$GCS/bucket/cp/lost.bin" | grep -q 404 || fail "a failed copy left an object"

[ "$FAILS" -eq 0 ] && echo "mdx cp gs: all checks passed"
exit $((FAILS > 0))
