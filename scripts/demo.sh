#!/usr/bin/env bash
# Installs what is needed, builds the release configuration and scans the
# sample DICOM data with the mdx tool. Exits with the tool's status.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

: "${HOME:=$(cd ~ && pwd)}"
export CCACHE_DIR=${CCACHE_DIR:-${XDG_CACHE_HOME:-$HOME/.cache}/mdxlib/ccache}

echo "== dependencies"
bash scripts/install-deps.sh
SAMPLES=$(bash scripts/fetch-samples.sh --print-dir)

echo "== configure build/release"
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DMDX_BUILD_TESTS=OFF

echo "== build"
cmake --build build/release

echo "== mdx scan $SAMPLES"
exec build/release/tools/mdx/mdx scan "$SAMPLES"
