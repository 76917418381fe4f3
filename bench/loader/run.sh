#!/usr/bin/env bash
# Runs bench_loader next to a loopback nginx and s3rver.
#
#   bench/loader/run.sh [bench_loader options...]
#
# Environment: MDX_BENCH_BUILD (build folder, default build/bench). The
# objects are made in a folder on /dev/shm when there is one (about 290 MB
# for 1,000 objects), so that the figures are the readers' cost, not the disk's.
set -euo pipefail

source "$(dirname "$0")/../support/bench_lib.sh"
bench_setup loader -

python3 "$root/tests/peers/run_with_peers.py" --data "$data" --make-file "small.bin:1000" --with s3 \
  -- "$bench" "$@"
