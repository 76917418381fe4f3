# Shared start of the benchmarks' run.sh scripts: source it, then call
#   bench_setup NAME DEFAULT_SIZE
# It sets root (the source tree), bench (the benchmark binary, built in
# $MDX_BENCH_BUILD, default build/bench), size ($MDX_BENCH_SIZE or the
# default) and data: a fresh folder removed at exit, on /dev/shm when there
# is one so that reading the data costs the clients nothing. It stops with
# the commands to build the binary when that is missing.

bench_setup() {
  local name=$1
  root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
  local build=${MDX_BENCH_BUILD:-$root/build/bench}
  bench=$build/bench/$name/bench_$name
  size=${MDX_BENCH_SIZE:-$2}
  if [ ! -x "$bench" ]; then
    echo "run.sh: $bench is missing; build it first:" >&2
    echo "  cmake -S $root -B $build -G Ninja -DCMAKE_BUILD_TYPE=Release -DMDX_BUILD_BENCH=ON -DMDX_BUILD_TESTS=OFF" >&2
    echo "  cmake --build $build --target bench_$name" >&2
    exit 2
  fi
  local base=${TMPDIR:-/tmp}
  if [ -d /dev/shm ] && [ -w /dev/shm ]; then
    base=/dev/shm
  fi
  data=$(mktemp -d "$base/mdx-bench-$name.XXXXXX")
  trap 'rm -rf "$data"' EXIT
}

# Bytes of a size text such as 64K or 1GiB.
bench_bytes() {
  python3 -c "import sys; sys.path.insert(0, '$root/tests/peers'); import peerlib; print(peerlib.parse_size('$1'))"
}
