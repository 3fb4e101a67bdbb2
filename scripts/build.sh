#!/usr/bin/env bash
# Configures and builds one build tree: scripts/build.sh <build-dir> [extra cmake arguments...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=$1; shift
launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  # Paths relative to the checkout, so a fresh clone reuses what an earlier one compiled.
  export CCACHE_BASEDIR="$root" CCACHE_NOHASHDIR=true
fi
cmake -S "$root" -B "$dir" -G Ninja "${launcher[@]}" "$@" >/dev/null
cmake --build "$dir" -j"$(nproc)"
