#!/usr/bin/env bash
# Installs what building, testing and the demo need on Debian 12. Safe to run again:
# it asks apt only for packages that are not installed yet, and npm only when the browser tests'
# lock file changed.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git
  qt6-base-dev qt6-base-dev-tools qt6-tools-dev qt6-tools-dev-tools qt6-l10n-tools
  libqt6opengl6-dev libgl-dev libglx-dev libvulkan-dev
  libssl-dev openssl libxml2-dev libxml2-utils libp11-kit-dev
  softhsm2 opensc
  xvfb xauth xdotool x11-utils openbox
  clang llvm libclang-rt-14-dev
  valgrind gdb python3 ccache
  chromium firefox-esr lintian
)
# A private headless Wayland desktop (sway), its keyboard (wtype) and camera (grim), Qt on Wayland.
packages+=(sway wtype grim qt6-wayland)
# A TPM-backed token for the tests and the demo: tpm2-pkcs11 on a software TPM behind the access broker
# on a private D-Bus bus (scripts/tpm-token.sh).
packages+=(swtpm tpm2-abrmd libtss2-tcti-tabrmd0 libtss2-tcti-swtpm0 libtpm2-pkcs11-1 libtpm2-pkcs11-tools tpm2-tools dbus-daemon dbus-bin)
# The server library (tools/scriva-server) signs requests with the first and reads answers with the
# second (a validating parser); the rest install it with pip into a virtual environment, offline.
packages+=( python3-cryptography python3-lxml python3-venv python3-pip python3-setuptools python3-wheel )
# A session's accessibility bus and a screen reader's view of it, for the test that reads the PIN form.
packages+=(at-spi2-core python3-pyatspi dbus)
# Node.js drives the browsers in the browser tests; a machine may have its own build of it.
command -v node >/dev/null || packages+=(nodejs)
command -v npm >/dev/null || packages+=(npm)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  echo "Installing: ${missing[*]}"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# puppeteer-core, pinned by the lock files of the browser tests and of the portal's end-to-end recipe
# in docs/examples/portal-e2e (the same version). It drives the Debian browsers above and never
# downloads one of its own.
root=$(cd "$(dirname "$0")/.." && pwd)
for folder in tests/browser docs/examples/portal-e2e; do
  stamp=$root/$folder/node_modules/.scriva-installed-lock
  if ! cmp -s "$root/$folder/package-lock.json" "$stamp"; then
    echo "Installing the npm packages of $folder"
    (cd "$root/$folder" && PUPPETEER_SKIP_DOWNLOAD=1 npm ci --no-audit --no-fund --loglevel=error)
    cp "$root/$folder/package-lock.json" "$stamp"
  fi
done
