#!/usr/bin/env bash
# Runs bench_upload against s3rver, azurite and the Google peers
# (tests/peers/run_with_peers.py --with s3 --with azure --with google) with
# one generated file.
#
#   bench/upload/run.sh [bench_upload options...]
#
# Environment: MDX_BENCH_BUILD (build folder, default build/bench),
# MDX_BENCH_SIZE (file size, default 256MiB). The file lives on /dev/shm when
# there is one, so that reading it costs the clients nothing.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
build=${MDX_BENCH_BUILD:-$root/build/bench}
bench=$build/bench/upload/bench_upload
size=${MDX_BENCH_SIZE:-256MiB}

if [ ! -x "$bench" ]; then
  echo "run.sh: $bench is missing; build it first:" >&2
  echo "  cmake -S $root -B $build -G Ninja -DCMAKE_BUILD_TYPE=Release -DMDX_BUILD_BENCH=ON -DMDX_BUILD_TESTS=OFF" >&2
  echo "  cmake --build $build --target bench_upload" >&2
  exit 2
fi
base=${TMPDIR:-/tmp}
if [ -d /dev/shm ] && [ -w /dev/shm ]; then
  base=/dev/shm
fi
data=$(mktemp -d "$base/mdx-bench-upload.XXXXXX")
trap 'rm -rf "$data"' EXIT

echo "generating $size in $data ..."
python3 -c "import sys; sys.path.insert(0, '$root/tests/peers'); import peerlib; peerlib.write_file('$data/big.bin', peerlib.parse_size('$size'))"
echo "cpus: $(nproc), $(curl --version | head -n 1), $(/usr/bin/aws --version 2>&1 | head -n 1)"
python3 "$root/tests/peers/run_with_peers.py" --with s3 --with azure --with google -- "$bench" "$data/big.bin" "$@"
