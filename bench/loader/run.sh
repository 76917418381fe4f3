#!/usr/bin/env bash
# Runs bench_loader next to a loopback nginx and s3rver.
#
#   bench/loader/run.sh [bench_loader options...]
#
# Environment: MDX_BENCH_BUILD (build folder, default build/bench). The
# objects are made in a folder on /dev/shm when there is one (about 290 MB
# for 1,000 objects), so that the figures are the readers' cost, not the disk's.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
build=${MDX_BENCH_BUILD:-$root/build/bench}
bench=$build/bench/loader/bench_loader

if [ ! -x "$bench" ]; then
  echo "run.sh: $bench is missing; build it first:" >&2
  echo "  cmake -S $root -B $build -G Ninja -DCMAKE_BUILD_TYPE=Release -DMDX_BUILD_BENCH=ON -DMDX_BUILD_TESTS=OFF" >&2
  echo "  cmake --build $build --target bench_loader" >&2
  exit 2
fi

base=${TMPDIR:-/tmp}
if [ -d /dev/shm ] && [ -w /dev/shm ]; then
  base=/dev/shm
fi
data=$(mktemp -d "$base/mdx-bench-loader.XXXXXX")
trap 'rm -rf "$data"' EXIT

python3 "$root/tests/peers/run_with_peers.py" --data "$data" --make-file "small.bin:1000" --with s3 \
  -- "$bench" "$@"
