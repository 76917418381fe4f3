#!/usr/bin/env bash
# Containers on servers (run_with_peers.py --with s3): one container that mdx kz create wrote,
# served by nginx and put on s3rver, is listed, and its members are read by mdx cat and mdx cp
# byte for byte against the files it was made of; local members the same way. Missing members
# and bad tables give one line and their exit status.
set -uo pipefail
MDX=$1
if [ -z "${MDX_S3RVER_PORT:-}" ]; then
  echo "s3rver not installed (scripts/install-npm-peers.sh); skipping"
  exit 77
fi
source "$(dirname "${BASH_SOURCE[0]}")/cli_lib.sh"

mkdir in
printf 'hello' >in/a.dcm
head -c 700000 /dev/urandom >in/b.dcm
: >in/empty.dcm
"$MDX" kz create -q c.kz in/a.dcm in/b.dcm in/empty.dcm || fail "create"
mkdir -p "$MDX_PEER_DATA/cli"
cp c.kz "$MDX_PEER_DATA/cli/c.kz"
head -c 60 c.kz >"$MDX_PEER_DATA/cli/cut.kz"

printf '[default]\naws_access_key_id = S3RVER\naws_secret_access_key = S3RVER\nregion = us-east-1\n' >aws.ini
export AWS_CONFIG_FILE=$W/aws.ini MDX_EC2_METADATA_ADDRESS=127.0.0.1:9 MDX_S3_DOMAIN=localhost:$MDX_S3RVER_PORT
run 0 "put the container on s3" cp -q c.kz s3://mybucket/kz/c.kz

run 0 "ls local" kz ls --json c.kz
mv out local.json
for c in "http://127.0.0.1:$MDX_NGINX_HTTP_PORT/cli/c.kz" s3://mybucket/kz/c.kz "$W/c.kz"; do
  if [ "$c" != "$W/c.kz" ]; then
    run 0 "ls $c" kz ls --json "$c"
    python3 -c "import json; assert json.load(open('out'))['members'] == json.load(open('local.json'))['members']" ||
      fail "ls $c: not the local table"
  fi
  for m in a.dcm b.dcm empty.dcm; do
    run 0 "cat $c/$m" cat "$c/$m"
    cmp -s out "in/$m" || fail "cat $c/$m: not the member's bytes"
  done
  rm -f got.dcm
  run 0 "cp $c/b.dcm" cp -q "$c/b.dcm" got.dcm
  cmp -s got.dcm in/b.dcm || fail "cp $c/b.dcm: not the member's bytes"
  run 4 "cat of a missing member of $c" cat "$c/none.dcm"
  one_line "missing member of $c"
  has err 'does not include none.dcm' "missing member of $c named"
done
run 0 "cp a member to s3" cp -q c.kz/b.dcm s3://mybucket/kz/b.dcm
run 0 "read it back" cat s3://mybucket/kz/b.dcm
cmp -s out in/b.dcm || fail "a member copied to s3"

run 3 "ls of a cut container" kz ls "http://127.0.0.1:$MDX_NGINX_HTTP_PORT/cli/cut.kz"
one_line "cut container"
has err 'is not a container: Invalid offset table' "cut container: the reason"
run 3 "cat from a cut container" cat "http://127.0.0.1:$MDX_NGINX_HTTP_PORT/cli/cut.kz/a.dcm"
has err 'Invalid offset table' "cat from a cut container: the reason"
run 3 "ls of a missing container" kz ls "http://127.0.0.1:$MDX_NGINX_HTTP_PORT/cli/none.kz"
has err '404' "missing container: the status"
run 4 "cp of a missing member" cp -q c.kz/none.dcm got2.dcm
[ ! -e got2.dcm ] || fail "a failed copy leaves no file"

[ "$FAILS" -eq 0 ] || { echo "$FAILS failures" >&2; exit 1; }
echo "all passed"
