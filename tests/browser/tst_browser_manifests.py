#!/usr/bin/env python3
"""The extension and the host manifests must name each other, and install-host.sh must put the
manifests where Chromium, Google Chrome, Brave, Vivaldi, Microsoft Edge and Firefox look, and take
them away again."""
import argparse
import base64
import hashlib
import json
import os
import subprocess
import sys
import tempfile

HOST_NAME = "com.corvant.scriva.pkcs11"
# Where Chromium, Google Chrome, Brave, Vivaldi, Microsoft Edge and Firefox look on Linux.
USER_FOLDERS = [".config/chromium/NativeMessagingHosts", ".config/google-chrome/NativeMessagingHosts",
                ".config/BraveSoftware/Brave-Browser/NativeMessagingHosts", ".config/vivaldi/NativeMessagingHosts",
                ".config/microsoft-edge/NativeMessagingHosts", ".mozilla/native-messaging-hosts"]
# Brave and Vivaldi read Chrome's system folder.
SYSTEM_FOLDERS = ["etc/chromium/native-messaging-hosts", "etc/opt/chrome/native-messaging-hosts",
                  "etc/opt/edge/native-messaging-hosts", "usr/lib/mozilla/native-messaging-hosts"]
failures = []


def check(condition, what, detail=""):
    print(("ok   " if condition else "FAIL ") + what + ("" if condition else f"  ({detail})"), flush=True)
    if not condition:
        failures.append(what)


def chromium_id(public_key_base64):
    """Chromium's extension id: the first 128 bits of SHA-256 of the public key, as letters a-p."""
    digest = hashlib.sha256(base64.b64decode(public_key_base64)).hexdigest()[:32]
    return "".join(chr(ord("a") + int(digit, 16)) for digit in digest)


def load(path):
    with open(path) as file:
        return json.load(file)


def files_under(root):
    return sorted(os.path.relpath(os.path.join(folder, name), root)
                  for folder, _, names in os.walk(root) for name in names)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--source", required=True)
    parser.add_argument("--build", required=True)
    args = parser.parse_args()
    extension = load(os.path.join(args.source, "browser", "extension", "manifest.json"))
    share = os.path.join(args.build, "share", "scriva")
    chromium = load(os.path.join(share, "native-messaging-hosts", "chromium", HOST_NAME + ".json"))
    firefox = load(os.path.join(share, "native-messaging-hosts", "firefox", HOST_NAME + ".json"))

    check(chromium["allowed_origins"] == [f"chrome-extension://{chromium_id(extension['key'])}/"],
          "Chromium's manifest admits the id that follows from the extension's key", chromium["allowed_origins"])
    check(firefox["allowed_extensions"] == [extension["browser_specific_settings"]["gecko"]["id"]],
          "Firefox's manifest admits the extension's gecko id", firefox["allowed_extensions"])
    for manifest in (chromium, firefox):
        check(manifest["name"] == HOST_NAME and manifest["type"] == "stdio" and os.path.isabs(manifest["path"])
              and os.access(manifest["path"], os.X_OK), "a manifest names the built host", manifest)
    check(extension["manifest_version"] == 3 and "nativeMessaging" in extension["permissions"],
          "the extension is Manifest V3 with native messaging", extension.get("permissions"))
    matches = extension["content_scripts"][0]["matches"]
    check(sorted(matches) == ["http://127.0.0.1/*", "http://localhost/*", "https://*/*"],
          "the content script runs only on https and local pages", matches)

    script = os.path.join(share, "install-host.sh")
    with tempfile.TemporaryDirectory() as home:
        env = {key: value for key, value in os.environ.items() if key != "XDG_CONFIG_HOME"}
        env["HOME"] = home
        root = os.path.join(home, "root")
        # The folders that stay after uninstalling: the ones every user or system has anyway.
        for scope, folders, kept in (("--user", USER_FOLDERS, [".", ".config"]),
                                     ("--system", SYSTEM_FOLDERS, [".", "etc", "usr", "usr/lib", "usr/lib/mozilla"])):
            top = home if scope == "--user" else root
            extra = [] if scope == "--user" else ["--root", root]
            subprocess.run(["sh", script, scope] + extra, env=env, check=True, capture_output=True)
            installed = files_under(top)
            expected = sorted(os.path.join(folder, HOST_NAME + ".json") for folder in folders)
            check(installed == expected, f"install-host.sh {scope} registers with every browser", installed)
            wrong = [path for path in installed if load(os.path.join(top, path)) != (firefox if "mozilla" in path else chromium)
                     or os.stat(os.path.join(top, path)).st_mode & 0o777 != 0o644]
            check(not wrong, f"install-host.sh {scope} gives each browser its manifest, readable by all", wrong)
            subprocess.run(["sh", script, scope, "--uninstall"] + extra, env=env, check=True, capture_output=True)
            left = sorted(os.path.relpath(folder, top) for folder, _, _ in os.walk(top))
            check(files_under(top) == [] and left == kept,
                  f"install-host.sh {scope} --uninstall removes them and the folders it made", left)

        xdg = dict(env, XDG_CONFIG_HOME=os.path.join(home, "xdg"))
        subprocess.run(["sh", script, "--user"], env=xdg, check=True, capture_output=True)
        check(len(files_under(os.path.join(home, "xdg"))) == len(USER_FOLDERS) - 1,
              "install-host.sh --user follows XDG_CONFIG_HOME for the Chromium family", files_under(home))
        missing = subprocess.run(["sh", script, "--user", "--manifests", os.path.join(home, "none")], env=env,
                                 capture_output=True, text=True)
        check(missing.returncode != 0 and "missing" in missing.stderr, "install-host.sh refuses without manifests",
              missing.stderr)

    print(f"{len(failures)} failed" if failures else "all checks passed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
