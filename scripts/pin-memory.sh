#!/usr/bin/env bash
# Dumps the built host (build/bin/ScrivaPkcs11) after its PIN form has been answered in four ways
# and counts the copies of the PIN left in its memory; needs no display of its own.
#   scripts/pin-memory.sh [--build <build-dir>] [--keep] [ok|wrong|cancel|terminate ...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
exec python3 "$root/scripts/pin-memory.py" "$@"
