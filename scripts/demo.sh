#!/usr/bin/env bash
# The demo: installs what is missing, builds the host and talks to it through its real
# stdin/stdout, printing every message and answer. Without a display it types the PIN itself on a
# private Xvfb; --xvfb does so even when DISPLAY is set, --wayland on a private headless sway with wtype.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/install-deps.sh"
bash "$root/scripts/build.sh" "$root/build"
exec python3 "$root/demo/demo.py" --build "$root/build" "$@"
