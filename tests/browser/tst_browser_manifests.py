#!/usr/bin/env python3
"""The extension and the host manifests must name each other, and install-host.sh must put the
manifests where Chromium, Google Chrome, Brave, Vivaldi, Microsoft Edge and Firefox look, for the
user and for the system, and take them away again."""
import argparse
import base64
import hashlib
import json
import os
import re
import subprocess
import sys
import tempfile

HOST_NAME = "com.corvant.scriva.pkcs11"
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


def load(path):
    with open(path) as file:
        return json.load(file)


def files_under(root):
    return sorted(os.path.relpath(os.path.join(folder, name), root) for folder, _, names in os.walk(root) for name in names)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--source", required=True)
    parser.add_argument("--build", required=True)
    args = parser.parse_args()
    extension = load(os.path.join(args.source, "browser", "extension", "manifest.json"))
    share = os.path.join(args.build, "share", "scriva")
    manifests = {name: load(os.path.join(share, "native-messaging-hosts", name, HOST_NAME + ".json"))
                 for name in ("chromium", "firefox")}
    # Chromium's extension id: the first 128 bits of SHA-256 of the public key, as letters a-p.
    digest = hashlib.sha256(base64.b64decode(extension["key"])).hexdigest()[:32]
    chromium_id = "".join(chr(ord("a") + int(digit, 16)) for digit in digest)
    admitted = {"chromium": ("allowed_origins", f"chrome-extension://{chromium_id}/"),
                "firefox": ("allowed_extensions", extension["browser_specific_settings"]["gecko"]["id"])}
    for name, manifest in manifests.items():
        key, value = admitted[name]
        check(manifest[key] == [value] and manifest["name"] == HOST_NAME and manifest["type"] == "stdio"
              and os.path.isabs(manifest["path"]) and os.access(manifest["path"], os.X_OK),
              f"{name}'s manifest names the built host and admits the extension", manifest)
    seen = (extension["manifest_version"], extension["permissions"], sorted(extension["content_scripts"][0]["matches"]))
    check(seen == (3, ["nativeMessaging"], ["http://127.0.0.1/*", "http://localhost/*", "https://*/*"]),
          "the extension is Manifest V3 with native messaging, on https and local pages only", seen)
    version = re.search(r"project\(ScrivaPkcs11 VERSION (\S+)", open(os.path.join(args.source, "CMakeLists.txt")).read())[1]
    seen = (extension["version"], load(os.path.join(args.source, "browser", "client", "package.json"))["version"])
    check(seen == (version, version), "the extension and the page client carry the program's version", seen)

    script = os.path.join(share, "install-host.sh")
    with tempfile.TemporaryDirectory() as home:
        env = {key: value for key, value in os.environ.items() if key != "XDG_CONFIG_HOME"}
        env["HOME"] = home
        root = os.path.join(home, "root")
        # The folders that stay after uninstalling: the ones every user or system has anyway.
        for scope, folders, top, kept in (
                ("--user", USER_FOLDERS, home, [".", ".config"]),
                ("--system", SYSTEM_FOLDERS, root, [".", "etc", "usr", "usr/lib", "usr/lib/mozilla"])):
            extra = [scope] if scope == "--user" else [scope, "--root", root]
            subprocess.run(["sh", script] + extra, env=env, check=True, capture_output=True)
            installed = {path: (load(os.path.join(top, path)), os.stat(os.path.join(top, path)).st_mode & 0o777)
                         for path in files_under(top)}
            check(installed == {os.path.join(folder, HOST_NAME + ".json"):
                                (manifests["firefox" if "mozilla" in folder else "chromium"], 0o644) for folder in folders},
                  f"install-host.sh {scope} gives every browser its manifest, readable by all", installed)
            subprocess.run(["sh", script, "--uninstall"] + extra, env=env, check=True, capture_output=True)
            left = sorted(os.path.relpath(folder, top) for folder, _, _ in os.walk(top))
            check(files_under(top) == [] and left == kept,
                  f"install-host.sh {scope} --uninstall removes them and the folders it made", left)

        subprocess.run(["sh", script, "--user"], env=dict(env, XDG_CONFIG_HOME=os.path.join(home, "xdg")),
                       check=True, capture_output=True)
        check(len(files_under(os.path.join(home, "xdg"))) == len(USER_FOLDERS) - 1,
              "install-host.sh --user follows XDG_CONFIG_HOME for the Chromium family", files_under(home))
        checked = subprocess.run(["sh", script, "--check"], capture_output=True, text=True,
                                 env=dict(env, XDG_CONFIG_HOME=os.path.join(home, "xdg"), QT_QPA_PLATFORM="offscreen"))
        check(checked.stdout.count(f"ok: {home}/") == len(USER_FOLDERS),
              "install-host.sh --check starts each registered host as its browser would, and it answers", checked)
        missing = subprocess.run(["sh", script, "--user", "--manifests", os.path.join(home, "none")], env=env,
                                 capture_output=True, text=True)
        check(missing.returncode != 0 and "missing" in missing.stderr, "install-host.sh refuses without manifests",
              missing.stderr)

    print(f"{len(failures)} failed" if failures else "all checks passed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
