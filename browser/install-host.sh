#!/bin/sh
# Registers the ScrivaPkcs11 host with Chromium, Google Chrome, Brave, Vivaldi, Microsoft Edge and
# Firefox by copying its native-messaging manifests into the browsers' folders, or removes them.
#
#   install-host.sh [--user | --system] [--uninstall] [--manifests DIR] [--root DIR]
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
    -h|--help) sed -n '2,16s/^# \{0,1\}//p' "$0"; exit 0 ;;
    *) echo "install-host.sh: unknown option $1" >&2; exit 2 ;;
  esac
  shift
done

# Each line: which manifest, the folder that stays, the browser's folder below it.
if [ "$scope" = user ]; then
  config=${XDG_CONFIG_HOME:-$HOME/.config}
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
