#!/usr/bin/env python3
"""install-host.sh puts the build's manifests where Chromium, Google Chrome, Brave, Vivaldi, Microsoft Edge and
Firefox look, for the user and for the system, and takes them away again; the extension asks for no more than it
needs and carries the program's version. (That the manifests admit the extension, the browsers show end to end.)"""
import json
import os
import re
import subprocess
import sys
import tempfile

HOST_NAME = "com.corvant.scriva.pkcs11"
source, build = sys.argv[1:]
folders = [line.split() for line in open(os.path.join(source, "tests/data/browser/manifest-folders.txt"))
           if not line.startswith("#")]
USER_FOLDERS, SYSTEM_FOLDERS = ([folder for scope, folder in folders if scope == kind] for kind in ("user", "system"))
load = lambda *path: json.load(open(os.path.join(*path)))  # noqa: E731
files_under = lambda root: sorted(os.path.relpath(os.path.join(folder, name), root)  # noqa: E731
                                  for folder, _, names in os.walk(root) for name in names)

extension = load(source, "browser", "extension", "manifest.json")
seen = (extension["manifest_version"], extension["permissions"], sorted(extension["content_scripts"][0]["matches"]))
assert seen == (3, ["nativeMessaging"], ["http://127.0.0.1/*", "http://localhost/*", "https://*/*"]), seen
version = re.search(r"project\(ScrivaPkcs11 VERSION (\S+)", open(os.path.join(source, "CMakeLists.txt")).read())[1]
seen = (extension["version"], load(source, "browser", "client", "package.json")["version"])
assert seen == (version, version), f"the extension and the page client are not version {version}: {seen}"

share = os.path.join(build, "share", "scriva")
manifests = {name: load(share, "native-messaging-hosts", name, HOST_NAME + ".json") for name in ("chromium", "firefox")}
script = os.path.join(share, "install-host.sh")
with tempfile.TemporaryDirectory() as home:
    env = dict({k: v for k, v in os.environ.items() if k != "XDG_CONFIG_HOME"}, HOME=home, QT_QPA_PLATFORM="offscreen")
    sh = lambda *options: subprocess.run(["sh", script, *options], env=env, capture_output=True, text=True)  # noqa: E731
    root = os.path.join(home, "root")
    # The folders that stay after uninstalling: the ones every user or system has anyway.
    for scope, folders, top, kept in (("--user", USER_FOLDERS, home, [".", ".config"]),
                                      ("--system", SYSTEM_FOLDERS, root, [".", "etc", "usr", "usr/lib", "usr/lib/mozilla"])):
        extra = [scope] if scope == "--user" else [scope, "--root", root]
        sh(*extra).check_returncode()
        installed = {path: (load(top, path), os.stat(os.path.join(top, path)).st_mode & 0o777) for path in files_under(top)}
        assert installed == {os.path.join(folder, HOST_NAME + ".json"): (
            manifests["firefox" if "mozilla" in folder else "chromium"], 0o644) for folder in folders}, (scope, installed)
        sh("--uninstall", *extra).check_returncode()
        left = sorted(os.path.relpath(folder, top) for folder, _, _ in os.walk(top))
        assert files_under(top) == [] and left == kept, f"{scope} --uninstall leaves {left}"

    env["XDG_CONFIG_HOME"] = os.path.join(home, "xdg")  # followed by the Chromium family, not by Firefox
    sh("--user").check_returncode()
    assert len(files_under(env["XDG_CONFIG_HOME"])) == len(USER_FOLDERS) - 1, files_under(home)
    checked = sh("--check")  # starts each registered host as its browser would, and it answers
    assert checked.stdout.count(f"ok: {home}/") == len(USER_FOLDERS), checked
    missing = sh("--user", "--manifests", os.path.join(home, "none"))
    assert missing.returncode != 0 and "missing" in missing.stderr, missing.stderr
print("all checks passed")
