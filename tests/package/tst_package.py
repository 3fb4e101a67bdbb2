#!/usr/bin/env python3
"""Builds the Debian package in the build tree, checks its control data and contents, unpacks it
into a scratch root and talks to the unpacked host as a browser would."""
import argparse
import glob
import json
import os
import shutil
import struct
import subprocess
import sys

PREFIX = "/opt/scriva"
HOST = "com.corvant.scriva.pkcs11.json"
EXPECTED = {
    PREFIX + "/bin/ScrivaPkcs11",
    PREFIX + "/share/translations/Scriva_en.qm",
    PREFIX + "/share/translations/Scriva_cs.qm",
    PREFIX + "/share/scriva/extension/manifest.json",
    PREFIX + "/share/scriva/extension/background.js",
    PREFIX + "/share/scriva/extension/content.js",
    PREFIX + "/share/scriva/client/scriva-client.js",
    PREFIX + "/share/scriva/install-host.sh",
    "/etc/chromium/native-messaging-hosts/" + HOST,
    "/etc/opt/chrome/native-messaging-hosts/" + HOST,
    "/etc/opt/edge/native-messaging-hosts/" + HOST,
    "/usr/lib/mozilla/native-messaging-hosts/" + HOST,
    "/usr/share/doc/scriva-pkcs11/copyright",
    "/usr/share/doc/scriva-pkcs11/changelog.Debian.gz",
}
failures = []


def check(condition, what, detail=""):
    print(("ok   " if condition else "FAIL ") + what + ("" if condition else f"  ({detail})"), flush=True)
    if not condition:
        failures.append(what)


def output(*arguments, cwd=None):
    return subprocess.run(arguments, cwd=cwd, capture_output=True, text=True, check=True).stdout


def talk(host, messages):
    """Sends framed JSON messages to the host and reads one framed answer per message."""
    payload = b"".join(struct.pack("<I", len(data)) + data for data in (json.dumps(m).encode() for m in messages))
    env = dict(os.environ, QT_QPA_PLATFORM="offscreen")
    process = subprocess.run([host, "chrome-extension://test/"], input=payload, capture_output=True, env=env,
                             timeout=60)
    answers, data = [], process.stdout
    while len(data) >= 4:
        (length,) = struct.unpack("<I", data[:4])
        answers.append(json.loads(data[4:4 + length]))
        data = data[4 + length:]
    return answers


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True)
    parser.add_argument("--work", required=True)
    args = parser.parse_args()
    shutil.rmtree(args.work, ignore_errors=True)
    os.makedirs(args.work)

    subprocess.run(["cpack", "-G", "DEB", "-B", args.work], cwd=args.build, check=True)
    packages = glob.glob(os.path.join(args.work, "scriva-pkcs11_*.deb"))
    check(len(packages) == 1, "cpack writes one package", packages)
    package = packages[0]

    fields = {name: output("dpkg-deb", "-f", package, name).strip() for name in ("Package", "Version", "Depends")}
    check(fields["Package"] == "scriva-pkcs11", "the package is named scriva-pkcs11", fields)
    check(fields["Version"].startswith("2.6.1-"), "the version is the program's with a package revision", fields)
    check("libqt6widgets6" in fields["Depends"] and "libssl3" in fields["Depends"],
          "dependencies come from the linked libraries", fields["Depends"])
    control = os.path.join(args.work, "control")
    subprocess.run(["dpkg-deb", "-e", package, control], check=True)
    with open(os.path.join(control, "conffiles")) as file:
        conffiles = set(file.read().split())
    check(conffiles == {path for path in EXPECTED if path.startswith("/etc/")},
          "the manifests in /etc are conffiles", conffiles)

    listing = {line.split()[-1].lstrip(".") for line in output("dpkg-deb", "-c", package).splitlines()}
    check(EXPECTED <= listing, "the package holds the expected files", sorted(EXPECTED - listing))
    stray = [path for path in listing if not path.startswith((PREFIX, "/etc/chromium", "/etc/opt", "/usr/lib/mozilla",
                                                                 "/usr/share/doc/", "/usr/share/lintian/"))
             and path not in ("/", "/etc/", "/usr/", "/usr/lib/", "/usr/share/", "/opt/")]
    check(not stray, "nothing lies outside the prefix but the browser and Debian folders", stray)

    root = os.path.join(args.work, "root")
    subprocess.run(["dpkg", "-x", package, root], check=True)
    for path in sorted(path for path in EXPECTED if path.endswith(HOST)):
        with open(root + path) as file:
            manifest = json.load(file)
        check(manifest["path"] == PREFIX + "/bin/ScrivaPkcs11" and manifest["type"] == "stdio",
              f"{path} names the installed host", manifest)
    host = root + PREFIX + "/bin/ScrivaPkcs11"
    check(".symtab" not in output("readelf", "-S", "-W", host), "the host is stripped")
    answers = talk(host, [{"method": "ScrivaPkcs11.1.0.0.qt.QES.CreateInstance", "id": "1"},
                          {"method": "ScrivaPkcs11.1.0.0.qt.QES.GetVersion", "id": "2"},
                          {"method": "ScrivaPkcs11.1.0.0.qt.QES.Terminate", "id": "3"}])
    check(len(answers) == 3 and answers[1]["result"] == "2.6.1 (qt)", "the unpacked host answers", answers)

    if shutil.which("lintian"):
        lint = subprocess.run(["lintian", "--fail-on", "error,warning", package], capture_output=True, text=True)
        check(lint.returncode == 0, "lintian accepts the package", lint.stdout + lint.stderr)
    print(f"{len(failures)} failed" if failures else "all checks passed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
