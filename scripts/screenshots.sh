#!/usr/bin/env bash
# Takes the pictures in docs/ of the host window and the PIN dialogs, in English and Czech:
#   scripts/screenshots.sh [--wayland] [build-dir] [output-dir]
# By default on a private X server (Xvfb) with a small window manager (openbox), at 100% scale.
# With --wayland the PIN forms on a private headless sway (scripts/headless_sway.py), the host on
# Qt's wayland platform, at 100% and 200% scale, photographed with grim:
# pin-form-*-wayland-1x.png and pin-form-*-wayland-2x.png.
# Needs a built tree (scripts/build.sh) and the tools of scripts/install-deps.sh.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
wayland=false
if [ "${1:-}" = --wayland ]; then wayland=true; shift; fi
build=${1:-$root/build}
out=${2:-$root/docs}
tools=(Xvfb openbox xprop)
$wayland && tools=(sway swaymsg grim)
for tool in "${tools[@]}"; do
  command -v "$tool" >/dev/null || { echo "$tool is missing: run scripts/install-deps.sh" >&2; exit 1; }
done
cmake --build "$build" --target uiscreenshots >/dev/null
mkdir -p "$out"

work=$(mktemp -d)
runtime=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work" "$runtime"
}
trap cleanup EXIT

# Plain settings of an unconfigured desktop, so the pictures do not depend on the machine.
plain=(env -u QT_QPA_PLATFORMTHEME -u QT_STYLE_OVERRIDE -u QT_SCALE_FACTOR LANG=C.UTF-8)

if $wayland; then
  python3 "$root/scripts/headless_sway.py" run "$runtime" &
  pids+=($!)
  WAYLAND_DISPLAY=$(python3 "$root/scripts/headless_sway.py" ready "$runtime")
  SWAYSOCK=$(echo "$runtime"/sway-ipc.*.sock)
  export XDG_RUNTIME_DIR=$runtime WAYLAND_DISPLAY SWAYSOCK
  for scale in 1 2; do
    swaymsg -q output '*' scale "$scale"
    mkdir "$work/$scale"
    "${plain[@]}" QT_QPA_PLATFORM=wayland "$build/testbin/uiscreenshots" "$work/$scale" >/dev/null
    for picture in "$work/$scale"/pin-form-*.png; do
      cp "$picture" "$out/$(basename "$picture" .png)-wayland-${scale}x.png"
      echo "$out/$(basename "$picture" .png)-wayland-${scale}x.png"
    done
  done
  exit 0
fi

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

"${plain[@]}" QT_QPA_PLATFORM=xcb QT_SCALE_FACTOR=1 QT_AUTO_SCREEN_SCALE_FACTOR=0 "$build/testbin/uiscreenshots" "$out"
