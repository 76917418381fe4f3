# What the command-line checks share; sourced after MDX is set. Makes a
# scratch folder W (removed at exit) and works in it; out and err hold the
# last command's standard output and error.
W=$(mktemp -d)
trap 'chmod -R u+rwx "$W"; rm -rf "$W"' EXIT
cd "$W" || exit 1
FAILS=0
fail() { echo "FAIL: $*" >&2; FAILS=$((FAILS + 1)); }

# run STATUS WHAT ARGS...: mdx ARGS must exit with STATUS.
run() {
  local want=$1 what=$2
  shift 2
  "$MDX" "$@" >out 2>err
  local got=$?
  [ "$got" -eq "$want" ] || fail "$what: exit $got, expected $want: $(head -c 300 err)"
}
# has FILE REGEX WHAT / lacks FILE REGEX WHAT
has() { grep -Eq -- "$2" "$1" || fail "$3: no /$2/ in $1"; }
lacks() { ! grep -Eq -- "$2" "$1" || fail "$3: /$2/ in $1"; }
# json EXPR WHAT: EXPR on the JSON document d of out must be true.
json() {
  python3 -c "import json,sys; d=json.load(open('out')); sys.exit(0 if ($1) else 1)" ||
    fail "$2: not ($1) in $(head -c 300 out)"
}
# one_line WHAT: the failure was told in one "mdx: " line.
one_line() { [ "$(wc -l <err)" -eq 1 ] && grep -q '^mdx: ' err || fail "$1: not one mdx line: $(cat err)"; }
