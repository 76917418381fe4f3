#!/usr/bin/env bash
# mdx cp end to end against s3rver and azurite (run_with_peers.py --with aws --with s3 --with
# azure): the objects are fetched back with the curl tool and compared byte for byte; failures
# give their exit status and one line on standard error.
set -uo pipefail
MDX=$1
if [ -z "${MDX_S3RVER_PORT:-}" ] || [ -z "${MDX_AZURITE_PORT:-}" ]; then
  echo "s3rver or azurite not installed (scripts/install-npm-peers.sh); skipping"
  exit 77
fi
source "$(dirname "${BASH_SOURCE[0]}")/cli_lib.sh"

head -c $((20 * 1048576 + 4321)) /dev/urandom >big.bin
printf 'small object\n' >small.bin

# ---- S3 (s3rver checks no signature; its key is S3RVER)
printf '[default]\naws_access_key_id = S3RVER\naws_secret_access_key = S3RVER\nregion = us-east-1\n' >aws.ini
export AWS_CONFIG_FILE=$W/aws.ini MDX_EC2_METADATA_ADDRESS=127.0.0.1:9 MDX_S3_DOMAIN=localhost:$MDX_S3RVER_PORT
for f in big.bin small.bin; do
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
for f in big.bin small.bin; do
  run 0 "cp $f to azure" cp --quiet "$f" "az://myaccount/cont/$f"
  curl -sfk -H "Authorization: Bearer $token" -H "x-ms-version: 2020-04-08" -o "back-az-$f" "$blobs/$f" ||
    fail "get azure $f"
  cmp -s "$f" "back-az-$f" || fail "azure $f differs"
done

# ---- failures
run 2 "missing file" cp nothing.bin s3://mybucket/x
one_line "missing file"
run 1 "from a URL" cp s3://mybucket/cp/small.bin here.bin
one_line "from a URL"
run 1 "two local files" cp small.bin other.bin
curl -sf -X POST "http://127.0.0.1:$MDX_AZURE_TOKEN_PORT/__mode?name=empty_token" >/dev/null
run 5 "no token" cp small.bin az://myaccount/cont/refused.bin
one_line "no token"
grep -q "403" err || fail "no token: the status is not named: $(cat err)"
curl -sk -o /dev/null -w '%{http_code}' -H "Authorization: Bearer $token" -H "x-ms-version: 2020-04-08" \
  "$blobs/refused.bin" | grep -q 404 || fail "a refused upload left a blob"

[ "$FAILS" -eq 0 ] && echo "mdx cp: all checks passed"
exit $((FAILS > 0))
