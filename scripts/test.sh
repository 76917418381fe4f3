#!/usr/bin/env bash
# Installs what is needed, builds the debug configuration with the address and
# undefined-behaviour sanitizers and runs every test. Exits with ctest's status.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

: "${HOME:=$(cd ~ && pwd)}"
# The CMake uses ccache when it exists; one cache per machine keeps reruns fast.
export CCACHE_DIR=${CCACHE_DIR:-${XDG_CACHE_HOME:-$HOME/.cache}/mdxlib/ccache}

echo "== dependencies"
bash scripts/install-deps.sh
SAMPLES=$(bash scripts/fetch-samples.sh --print-dir)

echo "== configure build/test"
cmake -S . -B build/test -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DMDX_SANITIZE=ON -DMDX_BUILD_TESTS=ON "-DMDX_SAMPLES_DIR=$SAMPLES"

echo "== build"
cmake --build build/test

echo "== test"
exec ctest --test-dir build/test --output-on-failure -j2
