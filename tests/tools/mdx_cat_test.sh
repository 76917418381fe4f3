#!/usr/bin/env bash
# mdx cat against the loopback peers (run through run_with_peers.py): objects
# and ranges byte for byte against the files nginx serves, a transfer that
# breaks off and refusals as one line with a named exit status, wrong usage.
set -uo pipefail
MDX=$1
source "$(dirname "${BASH_SOURCE[0]}")/cli_lib.sh"

HTTP=http://127.0.0.1:$MDX_NGINX_HTTP_PORT
HTTPS=https://127.0.0.1:$MDX_NGINX_HTTPS_PORT
for url in "$HTTP/medium.bin" "$HTTPS/medium.bin" "$HTTP/small.bin"; do
  run 0 "cat $url" cat --progress "$url"
  cmp -s out "$MDX_PEER_DATA/$(basename "$url")" || fail "cat $url: not the served bytes"
  [ ! -s err ] || fail "cat $url: unexpected stderr: $(head -c 300 err)"
done
python3 -c "import sys; d=open(sys.argv[1],'rb').read(); open('range.bin','wb').write(d[1048570:2097161])" \
  "$MDX_PEER_DATA/medium.bin"
for src in "$HTTP/medium.bin" "$MDX_PEER_DATA/medium.bin"; do
  run 0 "cat --range of $src" cat --range 1048570-2097160 "$src"
  cmp -s range.bin out || fail "range of $src"
done
mkdir in && head -c 300000 /dev/urandom >in/m.dcm && "$MDX" kz create -q c.kz in/m.dcm || fail "kz create"
for r in 100- 5-9; do
  run 0 "cat --range $r of a member" cat --range "$r" c.kz/m.dcm
  python3 -c "import sys; a,b=sys.argv[1].split('-'); d=open('in/m.dcm','rb').read()[int(a):int(b)+1 if b else None]; \
sys.exit(d != open('out','rb').read())" "$r" || fail "cat --range $r of a member"
done
run 0 "cat of a local file" cat "$MDX_PEER_DATA/small.bin"
cmp -s out "$MDX_PEER_DATA/small.bin" || fail "cat of a local file"
run 3 "cat broken off" cat "http://127.0.0.1:$MDX_FAULT_PORT/o?id=catcut&size=3000000&close_after=1500000"
one_line "cat broken off"
run 2 "cat of a missing file" cat nothing.bin
run 1 "cat with a bad range" cat --range 9-3 "$HTTP/small.bin"
run 0 "cat after retries" cat "http://127.0.0.1:$MDX_FAULT_PORT/o?id=cat503&status=503&times=1&size=3000"
[ "$(stat -c %s out)" -eq 3000 ] || fail "cat after a 503: $(stat -c %s out) bytes"
run 3 "cat of a missing object" cat "$HTTP/missing.bin"
[ "$(wc -l <err)" -eq 1 ] || fail "missing object: not one line: $(cat err)"
grep -q "^mdx: cannot read $HTTP/missing.bin: .*unrecoverable error 404" err || fail "missing object: $(cat err)"
[ ! -s out ] || fail "missing object: output written"
run 1 "cat without URL" cat
run 1 "cat with two URLs" cat a b
run 1 "cat with an unknown option" cat --frobnicate "$HTTP/small.bin"
run 0 "cat --help" cat --help
grep -q "^usage: mdx cat" out || fail "cat --help: $(head -c 200 out)"
if [ "$FAILS" -gt 0 ]; then
  echo "$FAILS check(s) failed" >&2
  exit 1
fi
echo "all mdx cat checks passed"
