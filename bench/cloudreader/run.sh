#!/usr/bin/env bash
# Runs bench_cloudreader against a loopback nginx serving a 64 KiB object and
# a large one from memory (/dev/shm when there is one).
#
#   bench/cloudreader/run.sh [bench_cloudreader options...]
#
# Environment: MDX_BENCH_BUILD (build folder, default build/bench),
# MDX_BENCH_SIZE (the large object, default 1GiB).
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
build=${MDX_BENCH_BUILD:-$root/build/bench}
bench=$build/bench/cloudreader/bench_cloudreader
size=${MDX_BENCH_SIZE:-1GiB}

if [ ! -x "$bench" ]; then
  echo "run.sh: $bench is missing; build it first:" >&2
  echo "  cmake -S $root -B $build -G Ninja -DCMAKE_BUILD_TYPE=Release -DMDX_BUILD_BENCH=ON -DMDX_BUILD_TESTS=OFF" >&2
  echo "  cmake --build $build --target bench_cloudreader" >&2
  exit 2
fi
base=${TMPDIR:-/tmp}
if [ -d /dev/shm ] && [ -w /dev/shm ]; then
  base=/dev/shm
fi
data=$(mktemp -d "$base/mdx-bench-cloudreader.XXXXXX")
trap 'rm -rf "$data"' EXIT
bytes=$(python3 -c "import sys; sys.path.insert(0, '$root/tests/peers'); import peerlib; print(peerlib.parse_size('$size'))")
echo "generating $size in $data ..."
python3 "$root/tests/peers/run_with_peers.py" --data "$data" --make-file "obj.bin:64K" --make-file "big.bin:$size" \
  -- bash -c 'cat "$MDX_PEER_DATA/big.bin" > /dev/null; echo "cpus: $(nproc), $(curl --version | head -n 1)"; exec "$@"' \
  bench "$bench" --big-size "$bytes" "$@"
