#!/usr/bin/env bash
# mdx kz end to end: containers it writes are read back by Python's zipfile
# and unzip -t, listed and read by the tool; failures give one line and the
# documented exit status.
set -uo pipefail
MDX=$1
ORACLE=$(cd "$(dirname "${BASH_SOURCE[0]}")/../support" && pwd)/zip_oracle.py
source "$(dirname "${BASH_SOURCE[0]}")/cli_lib.sh"
py() { python3 -c "$1" || fail "$2"; }

mkdir in sub
printf 'hello' > in/a.dcm
head -c 200000 /dev/urandom > in/b.dcm
: > in/empty.dcm
printf 'other' > sub/a.dcm

run 0 "create" kz create -q c.kz in/a.dcm in/b.dcm in/empty.dcm
[ ! -s out ] || fail "create --quiet prints nothing"
python3 "$ORACLE" inspect c.kz > oracle.json || fail "zipfile inspect"
py "
import json, hashlib
d = json.load(open('oracle.json'))
assert d['ok'] and d['testzip'] is None, d
assert [m['name'] for m in d['members']] == ['a.dcm', 'b.dcm', 'empty.dcm'], d
for m in d['members']:
    assert m['md5'] == hashlib.md5(open('in/' + m['name'], 'rb').read()).hexdigest(), m
" "zipfile reads what create wrote"
unzip -tq c.kz >/dev/null || fail "unzip -t accepts what create wrote"

run 0 "ls --json" kz ls --json c.kz
py "
import json
d = json.load(open('out')); o = json.load(open('oracle.json'))
assert [(m['name'], m['offset'], m['size']) for m in d['members']] == \
       [(m['name'], m['dataOffset'], m['size']) for m in o['members']], (d, o)
" "ls gives the offsets zipfile finds"
run 0 "ls" kz ls c.kz
has out '^3 members, 200005 bytes$' "ls summary"
run 0 "create --json" kz create --json j.kz in/a.dcm
py "
import json, hashlib, os
d = json.load(open('out'))
assert d['md5'] == hashlib.md5(open('j.kz', 'rb').read()).hexdigest() and d['bytes'] == os.path.getsize('j.kz'), d
" "create --json gives the MD5 and size of the file"

"$MDX" kz cat c.kz b.dcm > got.bin 2>err || fail "cat: $(cat err)"
cmp -s got.bin in/b.dcm || fail "cat gives the member's bytes"
run 0 "cat of an empty member" kz cat c.kz empty.dcm
[ ! -s out ] || fail "an empty member is empty"
run 0 "name" kz name key 37
has out '^146c07ef2411\.kz$' "name"

python3 "$ORACLE" make plain plain.zip in/a.dcm > /dev/null || fail "python makes a zip"
cp c.kz old.kz
while IFS='|' read -r want what args; do
  eval "run $want \"$what\" $args"
  [ "$want" -eq 0 ] || { [ "$(wc -l < err)" -eq 1 ] && has err '^mdx: ' "$what: one line"; }
done <<'EOF2'
1|no sub-command|kz
1|unknown sub-command|kz pack c.kz
1|create without files|kz create x.kz
1|cat without a member|kz cat c.kz
2|create from a missing file|kz create x.kz in/a.dcm in/none.dcm
2|ls of a missing container|kz ls none.kz
3|ls of a plain zip|kz ls plain.zip
4|cat of a missing member|kz cat c.kz none.dcm
5|two members of one name|kz create old.kz in/a.dcm sub/a.dcm
0|help|kz create --help
EOF2
run 3 "ls of a plain zip" kz ls plain.zip
has err 'Unexpected filename length' "a plain zip is refused for its first name"
run 5 "twins" kz create old.kz in/a.dcm sub/a.dcm
has err 'have the same name' "twins named"
cmp -s old.kz c.kz || fail "a failed create leaves the old container"
[ -z "$(ls -A | grep '\.part$')" ] || fail "no part file is left"

# A disk that fills up: the file size limit stops the writes with EFBIG.
(
  ulimit -f 64
  trap '' XFSZ
  "$MDX" kz create -q full.kz in/a.dcm in/b.dcm >out 2>err
  echo $? >status
)
[ "$(cat status)" -eq 5 ] || fail "a write that fails: exit $(cat status): $(head -c 300 err)"
has err '^mdx: cannot write full.kz: Could not write to full.kz: File too large; I/O error$' "the failed write says why"
[ "$(wc -l < err)" -eq 1 ] || fail "the failed write: one line"
[ ! -e full.kz ] && [ -z "$(ls -A | grep '\.part$')" ] || fail "a failed write leaves nothing"

[ "$FAILS" -eq 0 ] || { echo "$FAILS failures" >&2; exit 1; }
echo "all passed"
