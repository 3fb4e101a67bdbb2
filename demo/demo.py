#!/usr/bin/env python3
"""Talks to the built ScrivaPkcs11 host the way a browser does: framed JSON on its stdin,
framed JSON answers on its stdout. Every message and answer is printed."""
import argparse
import json
import os
import struct
import subprocess
import sys
import tempfile

PREFIX = "ScrivaPkcs11.1.0.0.qt.QES."


class Host:
    def __init__(self, executable, env):
        self.process = subprocess.Popen([executable, "chrome-extension://demo/"], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, env=env)
        self.counter = 0

    def call(self, method, argument=None, show=None):
        self.counter += 1
        message = {"method": PREFIX + method, "id": str(self.counter)}
        if argument is not None:
            message["args"] = [argument]
        shown = dict(message)
        if show is not None:
            shown["args"] = [show]
        print("\n\u2192 " + json.dumps(shown, indent=2, ensure_ascii=False))
        payload = json.dumps(message).encode()
        self.process.stdin.write(struct.pack("<I", len(payload)) + payload)
        self.process.stdin.flush()
        return self.answer()

    def answer(self):
        header = self.process.stdout.read(4)
        if len(header) < 4:
            raise SystemExit("the host ended without an answer")
        (length,) = struct.unpack("<I", header)
        answer = json.loads(self.process.stdout.read(length))
        print("\u2190 " + json.dumps(answer, indent=2, ensure_ascii=False))
        return answer

    def finish(self):
        self.process.stdin.close()
        return self.process.wait(timeout=10)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True, help="the build tree holding bin/ScrivaPkcs11")
    args = parser.parse_args()

    home = tempfile.mkdtemp(prefix="scriva-demo-")
    env = dict(os.environ, HOME=home, XDG_DATA_HOME=os.path.join(home, "share"), XDG_RUNTIME_DIR=home)
    env.setdefault("QT_QPA_PLATFORM", "offscreen" if not env.get("DISPLAY") else "xcb")
    log_dir = os.path.join(home, "share", "Corvant", "Scriva", "Logs")
    os.makedirs(log_dir)
    log = os.path.join(log_dir, "ScrivaPkcs11Log.txt")
    open(log, "w").close()  # the host logs only into a file that already exists

    print("Starting the host as a browser would: " + os.path.join(args.build, "bin", "ScrivaPkcs11"))
    host = Host(os.path.join(args.build, "bin", "ScrivaPkcs11"), env)
    host.call("CreateInstance")
    host.call("GetVersion")
    nonce = host.call("GetNonce")["result"]
    print(f"   (the next signed request would have to carry the nonce {nonce})")
    host.call("SetProperty", json.dumps({"MinimalWindowDisplayTime": 1500, "Language": "cs"}))
    host.call("SetProperty", json.dumps({"MinimalWindowDisplayTime": 999999}))
    host.call("Terminate")
    code = host.finish()
    print(f"\nThe host ended with exit code {code}. Its log ({log}) has {sum(1 for _ in open(log))} lines.")
    return 0 if code == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
