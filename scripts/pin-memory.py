#!/usr/bin/env python3
"""Looks for the user's PIN in the memory of the built host after the PIN form is gone.

A SoftHSM token whose user PIN is a distinctive string, the host on a private Xvfb, a signed
GenerateCsr with ShowPinForm true so that the host's own PIN form appears, and xdotool as the
user's keyboard. The host's process is dumped with gcore at four points and each dump is searched
for the PIN in UTF-8 and in UTF-16LE:

  ok         the PIN typed and OK pressed; dumped once the answer has arrived
  wrong      a wrong PIN, the message dismissed, then the right PIN; dumped after the answer
  cancel     the PIN typed, then the Cancel button; dumped after the answer
  terminate  the PIN typed, then Terminate while the form is open; dumped while the finished
             operation is held in its last token call (C_Finalize), after the form has closed
             and before the host ends

The module is the forwarding test module of the build (it holds C_Finalize on request); the
token behind it is SoftHSM. Prints one table row per case; --keep leaves the dumps in place."""
import argparse
import json
import mmap
import os
import select
import shutil
import signal
import struct
import subprocess
import tempfile
import time

PIN = "Pq7xW2zK"
WRONG_PIN = "Hm3rT9vB"
PREFIX = "ScrivaPkcs11.1.0.0.qt.QES."
TOKEN_LABEL = "Scriva token"
FORM_TITLE = "^Corvant Scriva$"  # the PIN form and the wrong-PIN message; the host window adds more
SAMPLE_MODULE = "/usr/lib/x86_64-linux-gnu/softhsm/libsofthsm2.so"
SAMPLE_SERIAL = "0123456789ABCDEF"
SAMPLE_NONCE = "0f8fad5b-d9cb-469f-a165-70867728950e"


def run(*command, **kwargs):
    return subprocess.run(command, check=True, capture_output=True, text=True, **kwargs).stdout


def wait_until(condition, timeout, what):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        value = condition()
        if value:
            return value
        time.sleep(0.05)
    raise RuntimeError("timed out waiting for " + what)


class Display:
    """A private Xvfb that picks its own display number; xdotool types into it."""

    def __init__(self):
        read_end, write_end = os.pipe()
        self.server = subprocess.Popen(["Xvfb", "-displayfd", str(write_end), "-nolisten", "tcp", "-screen", "0",
                                        "1280x1024x24"], pass_fds=(write_end,), stdout=subprocess.DEVNULL,
                                       stderr=subprocess.DEVNULL)
        os.close(write_end)
        number = b""
        while not number.endswith(b"\n"):
            if not select.select([read_end], [], [], 30)[0]:
                raise SystemExit("Xvfb did not start")
            chunk = os.read(read_end, 16)
            if not chunk:
                raise SystemExit("Xvfb did not start")
            number += chunk
        os.close(read_end)
        self.name = ":" + number.decode().strip()

    def xdotool(self, *arguments):
        return subprocess.run(["xdotool", *arguments], env=dict(os.environ, DISPLAY=self.name),
                              capture_output=True, text=True).stdout.split()

    def windows(self):
        return self.xdotool("search", "--onlyvisible", "--name", FORM_TITLE)

    def new_window(self, known=(), timeout=30):
        return wait_until(lambda: next((w for w in self.windows() if w not in known), None), timeout,
                          "a window of the host")

    def type(self, window, text):
        self.xdotool("windowfocus", window, "type", "--delay", "20", text)

    def key(self, window, *keys):
        self.xdotool("windowfocus", window, "key", "--delay", "50", *keys)

    def close(self):
        self.server.terminate()
        self.server.wait(timeout=10)


class Host:
    """The built host with framed JSON on its stdin and stdout, as a browser runs it."""

    def __init__(self, executable, env):
        self.process = subprocess.Popen([executable], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.DEVNULL, env=env)

    def send(self, method, argument=None):
        message = {"method": PREFIX + method}
        if argument is not None:
            message["args"] = [argument]
        payload = json.dumps(message).encode()
        self.process.stdin.write(struct.pack("<I", len(payload)) + payload)
        self.process.stdin.flush()

    def read_exact(self, count, deadline):
        data = b""
        while len(data) < count:
            if not select.select([self.process.stdout], [], [], max(0.0, deadline - time.monotonic()))[0]:
                raise RuntimeError("no answer from the host in time")
            chunk = os.read(self.process.stdout.fileno(), count - len(data))
            if not chunk:
                raise RuntimeError("the host ended without an answer")
            data += chunk
        return data

    def answer(self, timeout=60):
        deadline = time.monotonic() + timeout
        (length,) = struct.unpack("<I", self.read_exact(4, deadline))
        return json.loads(self.read_exact(length, deadline))

    def call(self, method, argument=None):
        self.send(method, argument)
        return self.answer()

    def end(self, timeout=20):
        """Terminate if still running; the exit as text ("0", "SIGSEGV", "hung")."""
        if self.process.poll() is None:
            try:
                self.send("Terminate")
            except BrokenPipeError:
                pass
        try:
            code = self.process.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            return "hung"
        if code < 0:
            return signal.Signals(-code).name
        return str(code)


def make_token(work):
    os.makedirs(os.path.join(work, "tokens"))
    config = os.path.join(work, "softhsm2.conf")
    with open(config, "w") as file:
        file.write(f"directories.tokendir = {work}/tokens\nobjectstore.backend = file\nlog.level = ERROR\n")
    env = dict(os.environ, SOFTHSM2_CONF=config)
    run("softhsm2-util", "--init-token", "--free", "--label", TOKEN_LABEL, "--so-pin", "12345678", "--pin", PIN,
        env=env)
    serial = None
    for line in run("softhsm2-util", "--show-slots", env=env).splitlines():
        key, _, value = line.strip().partition(":")
        if key == "Serial number":
            serial = value.strip()
        elif key == "Label" and value.strip() == TOKEN_LABEL:
            return config, serial
    raise SystemExit("the token was not made")


def count(path, needle):
    found = 0
    with open(path, "rb") as file, mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ) as data:
        position = data.find(needle)
        while position >= 0:
            found += 1
            position = data.find(needle, position + 1)
    return found


class Run:
    def __init__(self, args, work):
        self.build = os.path.abspath(args.build)
        self.root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
        self.work = work
        self.keep = args.keep
        self.module = os.path.join(self.build, "tests", "p11module", "scriva-test-p11.so")
        self.softhsm_config, self.serial = make_token(work)
        self.display = Display()

    def signed_request(self, nonce):
        with open(os.path.join(self.root, "tests", "data", "requests", "generatecsr-2026.xml")) as file:
            text = file.read()
        for old, new in ((SAMPLE_NONCE, nonce), (SAMPLE_SERIAL, self.serial), (SAMPLE_MODULE, self.module),
                         ('{"reader":"any"}', "")):
            text = text.replace(old, new)
        path = os.path.join(self.work, "request.xml")
        with open(path, "w") as file:
            file.write(text)
        pki = os.path.join(self.build, "devpki")
        return run(os.path.join(self.build, "bin", "scriva-sign-request"), path,
                   os.path.join(pki, "server-chain2.key"), os.path.join(pki, "server-chain2.pem")).strip()

    def start(self, case, module_config):
        home = os.path.join(self.work, case)
        gates = os.path.join(home, "gates")
        os.makedirs(gates)
        config = os.path.join(home, "scriva-test-p11.conf")
        with open(config, "w") as file:
            file.write(f"kov_data_hex=3003020101\nhold_dir={gates}\n{module_config}")
        self.log = os.path.join(home, "share", "Corvant", "Scriva", "Logs", "ScrivaPkcs11Log.txt")
        os.makedirs(os.path.dirname(self.log))
        open(self.log, "w").close()  # the host logs only into a file that already exists
        env = dict(os.environ, HOME=home, XDG_DATA_HOME=os.path.join(home, "share"), XDG_RUNTIME_DIR=home,
                   SOFTHSM2_CONF=self.softhsm_config, SCRIVA_TEST_P11_CONFIG=config, DISPLAY=self.display.name,
                   QT_QPA_PLATFORM="xcb")
        host = Host(os.path.join(self.build, "bin", "ScrivaPkcs11"), env)
        if host.call("CreateInstance").get("error") is not None:
            raise RuntimeError("CreateInstance failed")
        host.send("GenerateCsr", self.signed_request(host.call("GetNonce")["result"]))
        return host, gates

    def logged(self, text):
        with open(self.log, encoding="utf-8", errors="replace") as file:
            return text in file.read()

    def dump(self, case, host):
        prefix = os.path.join(self.work, "core-" + case)
        subprocess.run(["gcore", "-o", prefix, str(host.process.pid)], check=True, capture_output=True)
        return f"{prefix}.{host.process.pid}"

    # The four cases: each returns the operation's error word and a note.
    def case_ok(self, host, gates):
        form = self.display.new_window()
        self.display.type(form, PIN)
        self.display.key(form, "Return")
        return host.answer().get("error"), ""

    def case_wrong(self, host, gates):
        form = self.display.new_window()
        self.display.type(form, WRONG_PIN)
        self.display.key(form, "Return")
        message = self.display.new_window(known=[form])
        self.display.key(message, "Return")
        again = self.display.new_window(known=[form, message])
        self.display.type(again, PIN)
        self.display.key(again, "Return")
        return host.answer().get("error"), ""

    def case_cancel(self, host, gates):
        form = self.display.new_window()
        self.display.type(form, PIN)
        # From the PIN field, Tab reaches OK and then Cancel; space presses the focused button.
        self.display.key(form, "Tab", "Tab", "space")
        error = host.answer().get("error")
        return error, "" if self.logged("Button cancel clicked") else "Cancel button not pressed"

    def case_terminate(self, host, gates):
        form = self.display.new_window()
        self.display.type(form, PIN)
        if host.call("Terminate").get("error") is not None:
            raise RuntimeError("Terminate was refused")
        held = os.path.join(gates, "C_Finalize.entered")
        try:
            wait_until(lambda: os.path.exists(held) and not self.display.windows(), 20, "the form to close")
            note = ""
        except RuntimeError:
            # The host left the form to the user: the user gives up.
            note = "form stayed open after Terminate; Escape pressed"
            self.display.key(form, "Escape")
            wait_until(lambda: os.path.exists(held), 20, "the operation to end")
        return None, note

    def measure(self, case):
        host, gates = self.start(case, "hold_calls=C_Finalize\n" if case == "terminate" else "")
        try:
            error, note = getattr(self, "case_" + case)(host, gates)
            core = self.dump(case, host)
        finally:
            open(os.path.join(gates, "C_Finalize.release"), "w").close()
        exit_text = host.end()
        utf8, utf16 = count(core, PIN.encode("utf-8")), count(core, PIN.encode("utf-16-le"))
        if not self.keep:
            os.remove(core)
        if self.logged(PIN):
            note = (note + "; " if note else "") + "PIN in the log"
        return utf8, utf16, error or "-", exit_text, note


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    parser.add_argument("--build", default=os.path.join(root, "build"), help="the build tree (default: build)")
    parser.add_argument("--keep", action="store_true", help="keep the work folder with the core dumps")
    parser.add_argument("cases", nargs="*", default=["ok", "wrong", "cancel", "terminate"])
    args = parser.parse_args()
    for tool in ("Xvfb", "xdotool", "gcore", "softhsm2-util"):
        if not shutil.which(tool):
            raise SystemExit(f"{tool} is missing (scripts/install-deps.sh installs it)")
    if not os.path.exists(os.path.join(args.build, "devpki", "complete")):
        raise SystemExit("the build has no development PKI to sign requests with")

    work = tempfile.mkdtemp(prefix="scriva-pin-memory-")
    measurement = Run(args, work)
    rows = []
    try:
        for case in args.cases:
            try:
                rows.append((case, *measurement.measure(case)))
            except (RuntimeError, subprocess.CalledProcessError) as failure:
                rows.append((case, "-", "-", "-", "-", f"not measured: {failure}"))
    finally:
        measurement.display.close()
        if not args.keep:
            shutil.rmtree(work, ignore_errors=True)

    print(f"PIN {PIN!r} in core dumps of {os.path.join(args.build, 'bin', 'ScrivaPkcs11')}")
    header = ("case", "UTF-8 copies", "UTF-16 copies", "answer error", "host exit", "note")
    widths = [max(len(str(row[i])) for row in [header, *rows]) for i in range(len(header))]
    for row in [header, tuple("-" * w for w in widths), *rows]:
        print("  ".join(str(cell).ljust(width) for cell, width in zip(row, widths)).rstrip())
    if args.keep:
        print("dumps and logs kept in " + work)


if __name__ == "__main__":
    main()
