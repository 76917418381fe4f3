#!/usr/bin/env bash
# Installs the Debian 12 packages the project builds, tests and demonstrates
# with, then the sample DICOM data (scripts/fetch-samples.sh).
#
# Idempotent: only missing packages are installed, and the package lists are
# refreshed only when something is missing, so a second run takes a moment.
# Runs as root, or through sudo otherwise.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

PACKAGES=(
  build-essential cmake ninja-build ccache pkg-config git
  qtbase5-dev libdcmtk-dev dcmtk
  libcurl4-openssl-dev libssl-dev libdeflate-dev liblzma-dev libsqlite3-dev libpq-dev
  python3-numpy python3-scipy
  libgtest-dev libgmock-dev
  python3 python3-pydicom python3-botocore
  python3-cryptography
  zip unzip
  nodejs npm
  nginx postgresql curl
  awscli
  clang
  libxml2-utils
  tzdata
)

echo "== system packages"

# Every installed package, and every name an installed package provides (the
# Node.js package of some repositories ships npm itself and conflicts with
# Debian's npm package, so a provided name counts as installed).
installed=$(dpkg-query -W -f='${Status}\t${Package}\t${Provides}\n' 2>/dev/null |
  awk -F'\t' '$1 == "install ok installed" {
    print $2
    n = split($3, provided, ",")
    for (i = 1; i <= n; i++) {
      name = provided[i]
      sub(/^ +/, "", name)
      sub(/ .*$/, "", name)
      if (name != "") print name
    }
  }' | sort -u)

missing=()
for package in "${PACKAGES[@]}"; do
  if ! grep -qxF -- "$package" <<<"$installed"; then
    missing+=("$package")
  fi
done

if ((${#missing[@]} == 0)); then
  echo "all ${#PACKAGES[@]} packages are installed"
else
  sudo=()
  if ((EUID != 0)); then
    if ! command -v sudo >/dev/null; then
      echo "error: not root and no sudo; install as root: ${missing[*]}" >&2
      exit 1
    fi
    sudo=(sudo)
  fi
  echo "installing: ${missing[*]}"
  "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -q
  "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

# The upload tests' npm servers; without them those tests skip.
bash scripts/install-npm-peers.sh || echo "warning: the npm test peers could not be installed" >&2
bash scripts/fetch-samples.sh
