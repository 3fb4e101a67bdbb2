#!/bin/sh
# Registers the ScrivaPkcs11 host with Chromium, Google Chrome, Brave, Vivaldi, Microsoft Edge and
# Firefox by copying its native-messaging manifests into the browsers' folders, or removes them.
#
#   install-host.sh [--user | --system] [--uninstall] [--manifests DIR] [--root DIR]
#   install-host.sh --check
#
#   --user       for the current user (default), under ${XDG_CONFIG_HOME:-~/.config}: chromium,
#                google-chrome, BraveSoftware/Brave-Browser, vivaldi, microsoft-edge; and
#                ~/.mozilla for Firefox
#   --system     for every user (needs root): /etc/chromium, /etc/opt/chrome (also read by Brave
#                and Vivaldi), /etc/opt/edge, /usr/lib/mozilla
#   --uninstall  remove the manifests (and the folders this left empty) instead
#   --manifests  folder holding chromium/ and firefox/ manifests (default: native-messaging-hosts
#                beside this script, as the build and the installation lay them out)
#   --root       prefix for the system-wide folders (for staging; default: none)
#   --check      change nothing: start the program of every manifest of the host in the folders that
#                browsers, the WebExtensions portal and xdg-native-messaging-proxy read, as they
#                start it (the browser's arguments, a session of its own, stdin and stdout as the
#                pipe), and ask its version; fails when one does not answer or there is none
#
# Browsers installed as a snap or a Flatpak cannot start the host themselves; after installing, the
# script says what applies to those it finds (docs/sandboxed-browsers.md has the details).
set -eu

name=com.corvant.scriva.pkcs11
here=$(cd "$(dirname "$0")" && pwd)
manifests=$here/native-messaging-hosts
scope=user
action=install
root=

while [ $# -gt 0 ]; do
  case $1 in
    --user) scope=user ;;
    --system) scope=system ;;
    --uninstall) action=uninstall ;;
    --manifests) manifests=$2; shift ;;
    --root) root=$2; shift ;;
    --check) action=check ;;
    -h|--help) sed -n '2,24s/^# \{0,1\}//p' "$0"; exit 0 ;;
    *) echo "install-host.sh: unknown option $1" >&2; exit 2 ;;
  esac
  shift
done

# A native-messaging frame: the message's length in 4 bytes, little-endian, then the message.
frame() {
  n=${#1}
  printf "$(printf '\\%03o\\%03o\\%03o\\%03o' $((n & 255)) $((n >> 8 & 255)) $((n >> 16 & 255)) $((n >> 24)))%s" "$1"
}

config=${XDG_CONFIG_HOME:-$HOME/.config}
if [ "$action" = check ]; then
  found=0
  failed=0
  for dir in "$config"/chromium "$config"/google-chrome "$config"/BraveSoftware/Brave-Browser "$config"/vivaldi \
      "$config"/microsoft-edge /etc/chromium /etc/opt/chrome /etc/opt/edge "$HOME"/.mozilla "$config"/mozilla \
      /usr/lib/mozilla /usr/lib64/mozilla /usr/lib/*-linux-gnu/mozilla; do
    for manifest in "$dir"/NativeMessagingHosts/$name.json "$dir"/native-messaging-hosts/$name.json; do
      [ -f "$manifest" ] || continue
      program=$(sed -n 's/^ *"path": *"\(.*\)",*$/\1/p' "$manifest")
      # Firefox passes the manifest and the extension id, Chromium the extension's origin.
      extension=$(sed -n 's/^ *"allowed_extensions": *\["\([^"]*\)".*/\1/p' "$manifest")
      origin=$(sed -n 's/^ *"allowed_origins": *\["\([^"]*\)".*/\1/p' "$manifest")
      set -- "$origin"
      [ -z "$extension" ] || set -- "$manifest" "$extension"
      version=$({ frame '{"method":"ScrivaPkcs11.1.0.0.qt.QES.CreateInstance"}'
                  frame '{"method":"ScrivaPkcs11.1.0.0.qt.QES.GetVersion"}'; } |
                timeout 30 setsid "$program" "$@" 2>/dev/null | tr -c '[:print:]' '\n' |
                sed -n 's/.*"method":"ScrivaPkcs11.1.0.0.qt.QES.GetVersion".*"result":"\([^"]*\)".*/\1/p')
      found=1
      if [ -n "$version" ]; then
        echo "ok: $manifest: $program answers, version $version"
      else
        failed=1
        echo "FAILED: $manifest: $program does not answer" >&2
      fi
    done
  done
  [ "$found" = 1 ] || { echo "install-host.sh: no manifest of $name found" >&2; exit 1; }
  exit $failed
fi

# Each line: which manifest, the folder that stays, the browser's folder below it.
if [ "$scope" = user ]; then
  targets="chromium|$config|chromium/NativeMessagingHosts
chromium|$config|google-chrome/NativeMessagingHosts
chromium|$config|BraveSoftware/Brave-Browser/NativeMessagingHosts
chromium|$config|vivaldi/NativeMessagingHosts
chromium|$config|microsoft-edge/NativeMessagingHosts
firefox|$HOME|.mozilla/native-messaging-hosts"
else
  targets="chromium|$root/etc|chromium/native-messaging-hosts
chromium|$root/etc|opt/chrome/native-messaging-hosts
chromium|$root/etc|opt/edge/native-messaging-hosts
firefox|$root/usr/lib/mozilla|native-messaging-hosts"
fi

echo "$targets" | while IFS='|' read -r browser base folder; do
  dir=$base/$folder
  if [ "$action" = uninstall ]; then
    if [ -e "$dir/$name.json" ]; then
      rm -f "$dir/$name.json"
      echo "removed $dir/$name.json"
    fi
    # Folders that held nothing else go too, up to the one that stays.
    while [ "$dir" != "$base" ] && rmdir "$dir" 2>/dev/null; do
      dir=$(dirname "$dir")
    done
    continue
  fi
  source=$manifests/$browser/$name.json
  if [ ! -f "$source" ]; then
    echo "install-host.sh: $source is missing (build the project first)" >&2
    exit 1
  fi
  mkdir -p "$dir"
  # Browsers read the manifest; it must not be writable by others.
  install -m 0644 "$source" "$dir/$name.json"
  echo "installed $dir/$name.json"
done

[ "$action" = install ] && [ -z "$root" ] || exit 0

# Sandboxed browsers on this machine, by the places their packages use.
flatpak_app() {
  [ -d "/var/lib/flatpak/app/$1" ] || [ -d "${XDG_DATA_HOME:-$HOME/.local/share}/flatpak/app/$1" ]
}
if [ -e /snap/bin/firefox ]; then
  echo "note: Firefox is a snap here. It starts the host through the WebExtensions portal of"
  echo "  xdg-desktop-portal, which reads ~/.mozilla/native-messaging-hosts and"
  echo "  /usr/lib/mozilla/native-messaging-hosts and asks once whether Firefox may start $name."
fi
if flatpak_app org.mozilla.firefox; then
  if [ -e /usr/share/dbus-1/services/org.freedesktop.NativeMessagingProxy.service ]; then
    echo "note: Firefox is a Flatpak here. From version 157 it starts the host through"
    echo "  xdg-native-messaging-proxy, which reads the same folders as Firefox outside a sandbox."
  else
    echo "note: Firefox is a Flatpak here. It can start the host only through xdg-native-messaging-proxy"
    echo "  (Firefox 157 or later), which is not installed: install it, or Firefox from its .deb."
  fi
fi
for app in /snap/bin/chromium org.chromium.Chromium com.google.Chrome com.brave.Browser com.vivaldi.Vivaldi \
    com.microsoft.Edge; do
  if [ -e "$app" ] || flatpak_app "$app"; then
    echo "note: $app is a sandboxed Chromium-family browser: it has no supported way to start a"
    echo "  native-messaging host. Install the browser from the distribution or the vendor's package."
  fi
done
