#!/usr/bin/env bash
# Installs the npm servers the upload tests store objects on, pinned, each in
# its own prefix under MDX_NPM_PEERS (default ~/.cache/mdxlib/npm), where
# tests/peers/npm_peer.py finds them. A prefix that already holds the pinned
# version is kept: azurite alone is about 365 MB and 30 s of npm.
set -euo pipefail

prefix_root=${MDX_NPM_PEERS:-$HOME/.cache/mdxlib/npm}
PEERS=(s3rver:s3rver@3.7.1 azurite:azurite@3.37.0)

if ! command -v npm >/dev/null; then
  echo "error: npm is missing (scripts/install-deps.sh)" >&2
  exit 1
fi
for entry in "${PEERS[@]}"; do
  dir=${entry%%:*}
  package=${entry#*:}
  name=${package%@*}
  version=${package##*@}
  prefix=$prefix_root/$dir
  installed=$(node -p "require('$prefix/node_modules/$name/package.json').version" 2>/dev/null || true)
  if [ "$installed" = "$version" ]; then
    echo "$package is installed in $prefix"
    continue
  fi
  echo "installing $package into $prefix"
  mkdir -p "$prefix"
  npm install --prefix "$prefix" --save-exact --no-audit --no-fund "$package" >/dev/null
done
