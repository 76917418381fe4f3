#!/usr/bin/env bash
# Installs what is needed, builds the debug configuration with the address and
# undefined-behaviour sanitizers and runs every test, then the tests of
# threaded code under ThreadSanitizer. Exits non-zero when any test failed.
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
status=0
ctest --test-dir build/test --output-on-failure -j2 || status=$?

# Threaded code once more under ThreadSanitizer: a second, small build.
echo "== threads (ThreadSanitizer)"
cmake -S . -B build/tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DMDX_TSAN=ON \
  -DMDX_BUILD_TESTS=ON -DMDX_BUILD_TOOLS=OFF "-DMDX_SAMPLES_DIR=$SAMPLES"
cmake --build build/tsan --target tagfile_threads_test container_test qa_threads_test azure_auth_test \
  cloudreader_test cloudreader_peer_test
export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1"
# The parallel build (headers parsed on workers, merged in file order) and the
# element pool whose blocks move between those threads.
MDX_SAMPLES=$SAMPLES build/tsan/tests/core/mdxlib/tagfile_threads_test || status=$?
build/tsan/tests/core/cloudreader/container_test --gtest_filter='KzContainer.concurrent*' || status=$?
build/tsan/tests/core/mdxlib/qa/qa_threads_test || status=$?
# Azure token renewal: one thread renews under the mutex while the others wait.
python3 tests/peers/run_with_peers.py --with azure -- \
  build/tsan/tests/core/cloudauth/azure_auth_test --gtest_filter='*OneThread*:*Renewed*' || status=$?
build/tsan/tests/core/cloudreader/cloudreader_test || status=$?
python3 tests/peers/run_with_peers.py --with aws --timeout 600 \
  -- build/tsan/tests/core/cloudreader/cloudreader_peer_test --gtest_filter=-*RealTime* || status=$?
exit $status
