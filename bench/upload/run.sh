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

source "$(dirname "$0")/../support/bench_lib.sh"
bench_setup upload 256MiB

echo "generating $size in $data ..."
python3 -c "import sys; sys.path.insert(0, '$root/tests/peers'); import peerlib; peerlib.write_file('$data/big.bin', $(bench_bytes "$size"))"
echo "cpus: $(nproc), $(curl --version | head -n 1), $(/usr/bin/aws --version 2>&1 | head -n 1)"
python3 "$root/tests/peers/run_with_peers.py" --with s3 --with azure --with google -- "$bench" "$data/big.bin" "$@"
