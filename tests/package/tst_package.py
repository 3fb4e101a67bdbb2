#!/usr/bin/env python3
"""Builds the Debian package in the build tree, checks its control data and contents, unpacks it
into a scratch root and talks to the unpacked host as a browser would."""
import glob
import json
import os
import shutil
import struct
import subprocess
import sys

PREFIX = "/opt/scriva"
EXPECTED = {line.strip() for line in open(os.path.join(os.path.dirname(__file__), "../data/package-files.txt"))
            if line.startswith("/")}
MANIFESTS = {path for path in EXPECTED if "/native-messaging-hosts/" in path}
build, work = sys.argv[1:]
failures = []


def check(condition, what, detail=""):
    print(("ok   " if condition else "FAIL ") + what + ("" if condition else f"  ({detail})"), flush=True)
    failures.extend([] if condition else [what])


def output(*arguments):
    return subprocess.run(arguments, capture_output=True, text=True, check=True).stdout


shutil.rmtree(work, ignore_errors=True)
subprocess.run(["cpack", "-G", "DEB", "-B", work], cwd=build, check=True)
package, = glob.glob(os.path.join(work, "scriva-pkcs11_*.deb"))  # cpack writes one package

# The version is the program's with a package revision, the dependencies follow the linked libraries.
fields = {name: output("dpkg-deb", "-f", package, name).strip() for name in ("Package", "Version", "Depends")}
seen = (fields["Package"], fields["Version"].split("-")[0],
        *(name in fields["Depends"] for name in ("libqt6widgets6", "libssl3")))
check(seen == ("scriva-pkcs11", "2.6.1", True, True), "the package's name, version and dependencies", fields)
conffiles = set(output("dpkg-deb", "-I", package, "conffiles").split())
check(conffiles == {p for p in MANIFESTS if p.startswith("/etc/")}, "the manifests in /etc are conffiles", conffiles)

listing = {line.split()[-1].lstrip(".") for line in output("dpkg-deb", "-c", package).splitlines()}
check(EXPECTED <= listing, "the package holds the expected files", sorted(EXPECTED - listing))
stray = [path for path in listing if not path.startswith((PREFIX, "/etc/chromium", "/etc/opt", "/usr/lib/mozilla",
                                                             "/usr/share/doc/", "/usr/share/lintian/"))
         and path not in ("/", "/etc/", "/usr/", "/usr/lib/", "/usr/share/", "/opt/")]
check(not stray, "nothing lies outside the prefix but the browser and Debian folders", stray)

root = os.path.join(work, "root")
subprocess.run(["dpkg", "-x", package, root], check=True)
host = PREFIX + "/bin/ScrivaPkcs11"
named = {path: json.load(open(root + path)) for path in MANIFESTS}
check(all((m["path"], m["type"]) == (host, "stdio") for m in named.values()), "the manifests name the installed host", named)
elf = {option: output("readelf", option, "-W", root + host) for option in ("-S", "-h", "-l", "-d", "--dyn-syms")}
check(".symtab" not in elf["-S"], "the host is stripped")
# What hardening-check looks for: the imports of the stack protector and of fortified calls,
# a read-only relocation segment bound at start-up, a position-independent executable.
imports = {line.split()[7].split("@")[0] for line in elf["--dyn-syms"].splitlines()
           if " UND " in line and len(line.split()) > 7}
hardening = {"stack protector": "__stack_chk_fail" in imports,
             "fortify": any(name.startswith("__") and name.endswith("_chk") for name in imports),
             "relro": "GNU_RELRO" in elf["-l"] and "BIND_NOW" in elf["-d"],
             "pie": "DYN (" in elf["-h"] and "PIE" in elf["-d"]}
check(all(hardening.values()), "the host is hardened", hardening)
# A browser's first two messages, each framed by its length.
messages = [json.dumps({"method": f"ScrivaPkcs11.1.0.0.qt.QES.{method}", "id": method}).encode()
            for method in ("CreateInstance", "GetVersion")]
answer = subprocess.run([root + host, "chrome-extension://test/"], capture_output=True, timeout=60,
                        input=b"".join(struct.pack("<I", len(data)) + data for data in messages),
                        env=dict(os.environ, QT_QPA_PLATFORM="offscreen")).stdout
check(b'"result":"2.6.1 (qt)"' in answer, "the unpacked host answers", answer)

if shutil.which("lintian"):
    lint = subprocess.run(["lintian", "--fail-on", "error,warning", package], capture_output=True, text=True)
    check(lint.returncode == 0, "lintian accepts the package", lint.stdout + lint.stderr)
print(f"{len(failures)} failed" if failures else "all checks passed")
sys.exit(1 if failures else 0)
