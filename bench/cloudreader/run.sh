#!/usr/bin/env bash
# Runs bench_cloudreader against a loopback nginx serving a 64 KiB object and
# a large one from memory (/dev/shm when there is one).
#
#   bench/cloudreader/run.sh [bench_cloudreader options...]
#
# Environment: MDX_BENCH_BUILD (build folder, default build/bench),
# MDX_BENCH_SIZE (the large object, default 1GiB).
set -euo pipefail

source "$(dirname "$0")/../support/bench_lib.sh"
bench_setup cloudreader 1GiB
bytes=$(bench_bytes "$size")
echo "generating $size in $data ..."
python3 "$root/tests/peers/run_with_peers.py" --data "$data" --make-file "obj.bin:64K" --make-file "big.bin:$size" \
  -- bash -c 'cat "$MDX_PEER_DATA/big.bin" > /dev/null; echo "cpus: $(nproc), $(curl --version | head -n 1)"; exec "$@"' \
  bench "$bench" --big-size "$bytes" "$@"
