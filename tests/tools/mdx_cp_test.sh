#!/usr/bin/env bash
# mdx cp end to end against nginx, the fault peer, s3rver and azurite (run_with_peers.py --with s3
# --with azure): uploads are fetched back with the curl tool, downloads and cloud-to-cloud copies
# compared with their sources byte for byte, at the copy's 1 MiB step and twice it; a transfer that
# breaks off, or a wrong MD5 or size, leaves no object and no file; failures give their exit status
# and one line on standard error.
set -uo pipefail
MDX=$1
if [ -z "${MDX_S3RVER_PORT:-}" ] || [ -z "${MDX_AZURITE_PORT:-}" ]; then
  echo "s3rver or azurite not installed (scripts/install-npm-peers.sh); skipping"
  exit 77
fi
source "$(dirname "${BASH_SOURCE[0]}")/cli_lib.sh"

head -c $((20 * 1048576 + 4321)) /dev/urandom >big.bin
printf 'small object\n' >small.bin
head -c 1048576 /dev/urandom >one.bin
head -c 2097152 /dev/urandom >two.bin
cp one.bin two.bin "$MDX_PEER_DATA/"
HTTP=http://127.0.0.1:$MDX_NGINX_HTTP_PORT
CUT="http://127.0.0.1:$MDX_FAULT_PORT/o?size=$((20 * 1048576))&close_after=$((12 * 1048576))"

# ---- S3 (s3rver checks no signature; its key is S3RVER)
printf '[default]\naws_access_key_id = S3RVER\naws_secret_access_key = S3RVER\nregion = us-east-1\n' >aws.ini
export AWS_CONFIG_FILE=$W/aws.ini MDX_EC2_METADATA_ADDRESS=127.0.0.1:9 MDX_S3_DOMAIN=localhost:$MDX_S3RVER_PORT
for f in big.bin small.bin one.bin two.bin; do
  run 0 "cp $f to s3" cp --quiet "$f" "s3://mybucket/cp/$f"
  curl -sfk -o "back-$f" "https://mybucket.s3.us-east-1.localhost:$MDX_S3RVER_PORT/cp/$f" || fail "get s3 $f"
  cmp -s "$f" "back-$f" || fail "s3 $f differs"
done
run 0 "cp --json" cp --json small.bin s3://mybucket/cp/json.bin
python3 -c "import json; d=json.load(open('out')); assert d['bytes'] == 13 and d['destination'].startswith('s3://')" ||
  fail "cp --json: $(cat out)"

# ---- Azure (a managed identity token from the token peer)
export MDX_AZURE_METADATA_ADDRESS=127.0.0.1:$MDX_AZURE_TOKEN_PORT MDX_AZURE_BLOB_SUFFIX=.blob.localhost:$MDX_AZURITE_PORT
unset AZURE_APPLICATION_CREDENTIALS
token=$(curl -sf -H "Metadata: true" \
  "http://127.0.0.1:$MDX_AZURE_TOKEN_PORT/metadata/identity/oauth2/token?api-version=2018-02-01&resource=https://storage.azure.com/" |
  python3 -c "import json,sys; print(json.load(sys.stdin)['access_token'])")
blobs=https://myaccount.blob.localhost:$MDX_AZURITE_PORT/cont
curl -sfk -X PUT -H "Authorization: Bearer $token" -H "x-ms-version: 2020-04-08" "$blobs?restype=container" ||
  fail "create container"
for f in big.bin small.bin one.bin two.bin; do
  run 0 "cp $f to azure" cp --quiet "$f" "az://myaccount/cont/$f"
  curl -sfk -H "Authorization: Bearer $token" -H "x-ms-version: 2020-04-08" -o "back-az-$f" "$blobs/$f" ||
    fail "get azure $f"
  cmp -s "$f" "back-az-$f" || fail "azure $f differs"
done

# ---- from anywhere: nginx to both clouds, back down, across
for f in one.bin two.bin; do
  for to in "s3://mybucket/web/$f" "az://myaccount/cont/web-$f"; do
    run 0 "cp $HTTP/$f to $to" cp --quiet "$HTTP/$f" "$to"
    run 0 "cp $to down" cp --quiet "$to" "down-$f"
    cmp -s "$f" "down-$f" || fail "$HTTP/$f via $to differs"
  done
  run 0 "cp s3 to azure" cp --quiet "s3://mybucket/web/$f" "az://myaccount/cont/across-$f"
  run 0 "cp across down" cp --quiet "az://myaccount/cont/across-$f" "across-$f"
  cmp -s "$f" "across-$f" || fail "$f from s3 to azure differs"
done

# ---- failures: nothing is left behind
run 3 "broken off to s3" cp "$CUT&id=s3cut" s3://mybucket/cp/cut.bin
one_line "broken off to s3"
curl -sk -o /dev/null -w '%{http_code}' "https://mybucket.s3.us-east-1.localhost:$MDX_S3RVER_PORT/cp/cut.bin" |
  grep -q 404 || fail "a broken-off copy left an s3 object"
run 3 "broken off to a file" cp "$CUT&id=filecut" cut.bin
one_line "broken off to a file"
[ ! -e cut.bin ] || fail "a broken-off copy left a file"
run 6 "wrong md5" cp --md5 0123456789abcdef0123456789abcdef one.bin s3://mybucket/cp/md5.bin
one_line "wrong md5"
run 6 "wrong size" cp --size 5 "$HTTP/one.bin" size.bin
[ ! -e size.bin ] || fail "a copy of the wrong size left a file"
run 0 "right md5 and size" cp --md5 "$(md5sum <two.bin | cut -c1-32)" --size 2097152 "$HTTP/two.bin" md5.bin
cmp -s two.bin md5.bin || fail "checked copy differs"
run 2 "missing file" cp nothing.bin s3://mybucket/x
one_line "missing file"
run 1 "to an http URL" cp small.bin "$HTTP/upload/x"
run 1 "bad md5" cp --md5 xyz small.bin other.bin
curl -sf -X POST "http://127.0.0.1:$MDX_AZURE_TOKEN_PORT/__mode?name=empty_token" >/dev/null
run 5 "no token" cp small.bin az://myaccount/cont/refused.bin
one_line "no token"
grep -q "403" err || fail "no token: the status is not named: $(cat err)"
curl -sk -o /dev/null -w '%{http_code}' -H "Authorization: Bearer $token" -H "x-ms-version: 2020-04-08" \
  "$blobs/refused.bin" | grep -q 404 || fail "a refused upload left a blob"

[ "$FAILS" -eq 0 ] && echo "mdx cp: all checks passed"
exit $((FAILS > 0))
