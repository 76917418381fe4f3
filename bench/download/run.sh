#!/usr/bin/env bash
# Runs bench_download against a loopback nginx serving one generated file.
#
#   bench/download/run.sh [bench_download options...]
#
# Environment: MDX_BENCH_BUILD (build folder, default build/bench),
# MDX_BENCH_SIZE (file size, default 1GiB), SSL_CIPHER_LIST (read by mdxlib:
# unset keeps its default, empty leaves the choice to libcurl).
# The file lives on /dev/shm when there is one, so that nginx serves it from
# memory and the figures are the clients' cost, not the disk's.
set -euo pipefail

source "$(dirname "$0")/../support/bench_lib.sh"
bench_setup download 1GiB

# Inside the peer: read the file once (page cache when not on tmpfs), note
# the TLS parameters each client ends up with, then run the benchmark.
inner='
set -e
cat "$MDX_PEER_DATA/big.bin" > /dev/null
url="https://127.0.0.1:$MDX_NGINX_HTTPS_PORT/big.bin"
tls() { curl -sk -v -r 0-0 -o /dev/null "$@" "$url" 2>&1 | sed -n "s/^\* SSL connection using /  /p" | head -n 1; }
echo "TLS of curl:                               $(tls)"
echo "TLS of curl with mdxlib'"'"'s default cipher list: $(tls --ciphers AES128-GCM-SHA256)"
echo "nginx: 1 worker on http://127.0.0.1:$MDX_NGINX_HTTP_PORT and https://127.0.0.1:$MDX_NGINX_HTTPS_PORT, data in $MDX_PEER_DATA"
echo "cpus: $(nproc), $(curl --version | head -n 1)"
echo
exec "$@"
'

echo "generating $size in $data ..."
python3 "$root/tests/peers/run_with_peers.py" --data "$data" --make-file "big.bin:$size" \
  -- bash -c "$inner" bench "$bench" "$@"
