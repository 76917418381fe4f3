#!/usr/bin/env bash
# Runs bench_streamapi against a loopback nginx: Copy() against curl -o on
# objects of 1 MiB, 16 MiB and 256 MiB, then GetVideoMetaInfo on a 200 MiB
# video over HTTP with the default cloud reader settings and with a 1 MB
# chunk and one request per file (cloud-reader.xml below DICOMWEB_PATH).
#
#   bench/streamapi/run.sh [--runs N]
#
# Environment: MDX_BENCH_BUILD (build folder, default build/bench).
set -euo pipefail

source "$(dirname "$0")/../support/bench_lib.sh"
bench_setup streamapi -
config=$(mktemp -d)
trap 'rm -rf "$data" "$config"' EXIT
mkdir -p "$config/exconverter.x64"
cat >"$config/exconverter.x64/cloud-reader.xml" <<'XML'
<CloudReader>
  <Entry key="ChunkSizeMB" value="1"/>
  <Entry key="NumRequestsPerFile" value="1"/>
</CloudReader>
XML
"$bench" write-video "$data/video.dcm" 200

inner='
set -e
http=http://127.0.0.1:$MDX_NGINX_HTTP_PORT
"$0" copy "$@" $http/one.bin $http/sixteen.bin $http/big.bin
echo
echo "default cloud-reader.xml:"
env -u DICOMWEB_PATH "$0" video $http/video.dcm
echo
echo "ChunkSizeMB 1, NumRequestsPerFile 1:"
DICOMWEB_PATH='"$config"' "$0" video $http/video.dcm
'
python3 "$root/tests/peers/run_with_peers.py" --data "$data" --make-file one.bin:1MiB \
  --make-file sixteen.bin:16MiB --make-file big.bin:256MiB -- bash -c "$inner" "$bench" "$@"
