#!/usr/bin/env bash
# Takes the pictures in docs/ of the host window and the PIN dialogs, in English and Czech, on a
# private X server (Xvfb) with a small window manager (openbox), at 100% scale:
#   scripts/screenshots.sh [build-dir] [output-dir]
# Needs a built tree (scripts/build.sh) and the tools of scripts/install-deps.sh.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
out=${2:-$root/docs}
for tool in Xvfb openbox xprop; do
  command -v "$tool" >/dev/null || { echo "$tool is missing: run scripts/install-deps.sh" >&2; exit 1; }
done
cmake --build "$build" --target uiscreenshots >/dev/null
mkdir -p "$out"

work=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# The server writes its display number once it accepts clients.
Xvfb -displayfd 3 -nolisten tcp -screen 0 1280x800x24 3>"$work/display" 2>"$work/xvfb.log" &
pids+=($!)
for _ in $(seq 100); do [ -s "$work/display" ] && break; sleep 0.1; done
[ -s "$work/display" ] || { cat "$work/xvfb.log" >&2; exit 1; }
export DISPLAY=":$(head -n1 "$work/display")"

openbox --sm-disable >"$work/openbox.log" 2>&1 &
pids+=($!)
# openbox announces itself on the root window when it manages the screen.
for _ in $(seq 100); do xprop -root _NET_SUPPORTING_WM_CHECK 2>/dev/null | grep -q 'window id' && break; sleep 0.1; done

# Plain settings of an unconfigured desktop, so the pictures do not depend on the machine.
env -u QT_QPA_PLATFORMTHEME -u QT_STYLE_OVERRIDE QT_QPA_PLATFORM=xcb QT_SCALE_FACTOR=1 QT_AUTO_SCREEN_SCALE_FACTOR=0 \
  LANG=C.UTF-8 "$build/testbin/uiscreenshots" "$out"
