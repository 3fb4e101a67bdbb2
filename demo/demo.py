#!/usr/bin/env python3
"""Talks to the built ScrivaPkcs11 host the way a browser does: framed JSON on its stdin, framed
JSON answers on its stdout. On a SoftHSM token made for the demo it lists the slots, reads the
certificates, generates a key pair with a certificate request, has a demo CA issue a certificate
for it, stores that on the token and reads it back (--tpm: the same on a tpm2-pkcs11 token on a
software TPM; --module: only what another module shows, or with --pin all of it on that module's
first token). Every request is signed by the build's
development PKI, as the web application's server would sign it; every step is printed."""
import argparse
import json
import os
import select
import shutil
import struct
import subprocess
import sys
import tempfile
import time
import xml.dom.minidom
from xml.sax.saxutils import escape

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "scripts"))
sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "tools", "scriva-server"))
import headless_sway  # noqa: E402
from cryptography import x509  # noqa: E402
from cryptography.hazmat.primitives.serialization import Encoding  # noqa: E402
from scriva_server import (CreateObject, GenerateCsr, GetCertificates, GetSlots, Library, Request, Signer,  # noqa: E402
                           Token, read_answer)

PREFIX = "ScrivaPkcs11.1.0.0.qt.QES."
SOFTHSM_MODULE = "/usr/lib/softhsm/libsofthsm2.so"
TPM_MODULE = "/usr/lib/x86_64-linux-gnu/pkcs11/libtpm2_pkcs11.so"
TPM_TOKEN_SCRIPT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "scripts", "tpm-token.sh")
# tpm2-pkcs11 gives every token this serial number; only the label tells its tokens apart.
TPM_SERIAL = "0000000000000000"
TOKEN_LABEL = "Scriva demo token"
USER_PIN = "1234"
PIN_FORM_TITLE = "^Corvant Scriva$"  # the host window's title adds the server's name


def step(title):
    print("\n" + "=" * 78 + "\n" + title + "\n" + "=" * 78)


def pretty_xml(text):
    """The document indented one element a line; multi-line texts (PEM) as an indented block."""
    def render(node, depth):
        pad = "  " * depth
        attributes = "".join(f' {name}="{value}"' for name, value in node.attributes.items())
        children = [child for child in node.childNodes if child.nodeType == child.ELEMENT_NODE]
        content = escape("".join(child.data for child in node.childNodes if child.nodeType == child.TEXT_NODE).strip())
        if children:
            inner = [render(child, depth + 1) for child in children]
            return "\n".join([f"{pad}<{node.tagName}{attributes}>", *inner, f"{pad}</{node.tagName}>"])
        if not content:
            return f"{pad}<{node.tagName}{attributes}/>"
        if "\n" in content:
            return f"{pad}<{node.tagName}{attributes}>\n{indent(content, pad + '  ')}\n{pad}</{node.tagName}>"
        return f"{pad}<{node.tagName}{attributes}>{content}</{node.tagName}>"
    return render(xml.dom.minidom.parseString(text.encode()).documentElement, 0)


def indent(text, prefix="    "):
    return "\n".join(prefix + line for line in text.splitlines())


def run(*command, **kwargs):
    return subprocess.run(command, check=True, capture_output=True, text=True, **kwargs).stdout


class Host:
    """The host process with framed JSON on its real stdin and stdout."""

    def __init__(self, executable, env):
        self.process = subprocess.Popen([executable, "chrome-extension://demo/"], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, env=env)
        self.counter = 0

    def send(self, method, argument=None, shown=None):
        self.counter += 1
        message = {"method": PREFIX + method, "id": str(self.counter)}
        if argument is not None:
            message["args"] = [argument]
        printed = dict(message, args=[shown]) if shown is not None else message
        print("\n\u2192 " + json.dumps(printed, indent=2, ensure_ascii=False))
        payload = json.dumps(message).encode()
        self.process.stdin.write(struct.pack("<I", len(payload)) + payload)
        self.process.stdin.flush()

    def read_exact(self, count, deadline):
        data = b""
        while len(data) < count:
            if not select.select([self.process.stdout], [], [], max(0.0, deadline - time.monotonic()))[0]:
                raise SystemExit("no answer from the host in time")
            chunk = os.read(self.process.stdout.fileno(), count - len(data))
            if not chunk:
                raise SystemExit("the host ended without an answer")
            data += chunk
        return data

    def answer(self, timeout=300):
        deadline = time.monotonic() + timeout
        (length,) = struct.unpack("<I", self.read_exact(4, deadline))
        answer = json.loads(self.read_exact(length, deadline))
        result = answer.get("result")
        document = result if isinstance(result, str) and result.startswith("<?xml") else None
        printed = dict(answer, result="<the XML answer below>") if document else answer
        print("\u2190 " + json.dumps(printed, indent=2, ensure_ascii=False))
        if document:
            print(indent(pretty_xml(document)))
        return answer

    def call(self, method, argument=None, shown=None):
        self.send(method, argument, shown)
        return self.answer()

    def finish(self):
        self.process.stdin.close()
        return self.process.wait(timeout=30)


class Display:
    """The user's desktop (Wayland or X11), or a private Xvfb on which xdotool types the PIN for the user."""

    def __init__(self, force_xvfb):
        self.server = None
        self.wayland = None if force_xvfb else os.environ.get("WAYLAND_DISPLAY")
        self.name = None if force_xvfb else self.wayland or os.environ.get("DISPLAY")
        if self.name:
            return
        read_end, write_end = os.pipe()
        self.server = subprocess.Popen(["Xvfb", "-displayfd", str(write_end), "-nolisten", "tcp",
                                        "-screen", "0", "1280x1024x24"], pass_fds=(write_end,),
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
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

    @property
    def automated(self):
        return self.server is not None

    def xdotool(self, *arguments):
        return subprocess.run(["xdotool", *arguments], env=dict(os.environ, DISPLAY=self.name),
                              capture_output=True, text=True)

    def enter_pin(self, pin):
        """Answers the host's PIN form: typed by xdotool on Xvfb, by the user otherwise."""
        if not self.automated:
            print(f"\n   >>> Type the PIN {pin} into the host's PIN dialog and press OK. <<<")
            return
        deadline = time.monotonic() + 60
        while time.monotonic() < deadline:
            windows = self.xdotool("search", "--onlyvisible", "--name", PIN_FORM_TITLE).stdout.split()
            if windows:
                print(f"\n   (the PIN form is open on {self.name}; xdotool types the PIN {pin} and presses Return)")
                self.xdotool("windowfocus", windows[0], "type", "--delay", "30", pin)
                self.xdotool("windowfocus", windows[0], "key", "Return")
                return
            time.sleep(0.1)
        raise SystemExit("the host showed no PIN form")

    def environment(self):
        # On a Wayland desktop Qt opens native Wayland windows by itself.
        if self.wayland:
            return {"XDG_RUNTIME_DIR": os.environ.get("XDG_RUNTIME_DIR", "")}
        return {"DISPLAY": self.name, "QT_QPA_PLATFORM": "xcb"}

    def close(self):
        if self.server:
            self.server.terminate()
            self.server.wait(timeout=10)


class WaylandDesktop:
    """A private headless sway (scripts/headless_sway.py): the host's windows are native Wayland
    windows there, and wtype types the PIN into the form once it has the keyboard focus."""

    automated = True

    def __init__(self):
        self.directory = tempfile.mkdtemp(prefix="scriva-demo-wayland-")
        self.server = subprocess.Popen([sys.executable, headless_sway.__file__, "run", self.directory],
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.name = headless_sway.ready(self.directory)

    def environment(self):
        return {"XDG_RUNTIME_DIR": self.directory, "WAYLAND_DISPLAY": self.name, "QT_QPA_PLATFORM": "wayland"}

    def enter_pin(self, pin):
        form = headless_sway.window(self.directory, PIN_FORM_TITLE)
        print(f"\n   (the PIN form is a {form['shell']} window on {self.name} with the keyboard focus;"
              f" wtype types the PIN {pin} and presses Return)")
        headless_sway.type_keys(self.directory, pin, "Return")

    def close(self):
        self.server.kill()
        self.server.wait(timeout=10)
        shutil.rmtree(self.directory, ignore_errors=True)


def signer(build):
    """The server's signer: the development PKI's signing key and certificate."""
    devpki = os.path.join(build, "devpki", "server-chain2")
    return Signer.from_files(devpki + ".pem", devpki + ".key")


def make_tpm_token(work):
    """A tpm2-pkcs11 token on a software TPM in work/tpm; the variables the module needs to find it."""
    folder = os.path.join(work, "tpm")
    os.makedirs(folder)
    subprocess.run(["bash", TPM_TOKEN_SCRIPT, "start", folder, TOKEN_LABEL, USER_PIN, "12345678"], check=True)
    with open(os.path.join(folder, "env")) as file:
        return dict(line.strip().split("=", 1) for line in file if "=" in line), TPM_SERIAL


def stop_tpm_token(work):
    if os.path.exists(os.path.join(work, "tpm")):
        subprocess.run(["bash", TPM_TOKEN_SCRIPT, "stop", os.path.join(work, "tpm")], check=False)


def make_softhsm_token(work):
    """A SoftHSM token in work/tokens; the variable SoftHSM needs to find it."""
    os.makedirs(os.path.join(work, "tokens"))
    config = os.path.join(work, "softhsm2.conf")
    with open(config, "w") as file:
        file.write(f"directories.tokendir = {work}/tokens\nobjectstore.backend = file\nlog.level = ERROR\n")
    env = dict(os.environ, SOFTHSM2_CONF=config)
    run("softhsm2-util", "--init-token", "--free", "--label", TOKEN_LABEL, "--so-pin", "12345678",
        "--pin", USER_PIN, env=env)
    serial, label = None, None
    for line in run("softhsm2-util", "--show-slots", env=env).splitlines():
        key, _, value = line.strip().partition(":")
        if key == "Serial number":
            serial = value.strip()
        elif key == "Label" and value.strip() == TOKEN_LABEL:
            label = value.strip()
            break
    if not label:
        raise SystemExit("the demo token was not made")
    return {"SOFTHSM2_CONF": config}, serial


def survey(host, operation):
    """GetSlots with the module, then GetCertificates of each token it shows (of the demo token when
    it shows none, to see how the module answers for a token that is not there)."""
    step("3. GetSlots: the slots the module shows")
    slots = operation(GetSlots(), check=False)
    tokens = [Token(slot.token.serial_number, slot.token.label) for slot in slots.slots if slot.token] if slots else []
    for number, token in enumerate(tokens or [Token("0123456789ABCDEF", TOKEN_LABEL)], 4):
        step(f"{number}. GetCertificates of the token '{token.label}' ({token.serial_number})")
        operation(GetCertificates(token), check=False)
    host.call("Terminate")
    return 0 if host.finish() == 0 else 1


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True, help="the build tree holding bin/ScrivaPkcs11")
    parser.add_argument("--xvfb", action="store_true", help="use a private Xvfb even when DISPLAY is set")
    parser.add_argument("--wayland", action="store_true", help="show the host's windows on a private headless sway")
    parser.add_argument("--tpm", action="store_true",
                        help="a tpm2-pkcs11 token on a software TPM (swtpm, tpm2-abrmd) instead of SoftHSM")
    parser.add_argument("--module", help="no demo token: only list the slots and certificates that this PKCS#11"
                                         " module shows through the host")
    parser.add_argument("--pin", help="with --module: every step on the module's first token, whose user PIN this is")
    args = parser.parse_args()
    build = os.path.abspath(args.build)
    if not os.path.exists(os.path.join(build, "devpki", "server-chain2.key")):
        raise SystemExit("this build trusts real anchors; the demo needs the development PKI to sign requests")

    work = tempfile.mkdtemp(prefix="scriva-demo-")
    display = WaylandDesktop() if args.wayland else Display(args.xvfb)
    host = None
    try:
        if args.module:
            step(f"1. No demo token: {'the first token of' if args.pin else 'what'} {args.module}"
                 f"{'' if args.pin else ' shows'}, in {work}")
            token_env, serial, module = {}, "", args.module
        else:
            step(f"1. A {'tpm2-pkcs11' if args.tpm else 'SoftHSM'} token for the demo, in {work}")
            token_env, serial = make_tpm_token(work) if args.tpm else make_softhsm_token(work)
            module = TPM_MODULE if args.tpm else SOFTHSM_MODULE
            print(f"Token '{TOKEN_LABEL}' with serial number {serial}, user PIN {USER_PIN}.")
        if args.wayland:
            print(f"The host shows its windows on a private Wayland desktop (a headless sway, {display.directory}),"
                  " and the demo types the PIN into the host's dialog itself with wtype.")
        elif display.automated:
            print(f"No display was given: the host shows its windows on a private Xvfb ({display.name}),"
                  " and the demo types the PIN into the host's dialog itself with xdotool.")
        else:
            print(f"The host's windows appear on your display {display.name}; you will type the PIN yourself.")

        env = dict(os.environ, HOME=work, XDG_DATA_HOME=os.path.join(work, "share"), XDG_RUNTIME_DIR=work,
                   **token_env)
        env.update(display.environment())
        log = os.path.join(work, "share", "Corvant", "Scriva", "Logs", "ScrivaPkcs11Log.txt")
        os.makedirs(os.path.dirname(log))
        open(log, "w").close()  # the host logs only into a file that already exists

        step("2. Starting the host as a browser would, and opening an instance")
        host = Host(os.path.join(build, "bin", "ScrivaPkcs11"), env)
        host.call("CreateInstance")
        host.call("GetVersion")
        host.call("SetProperty", json.dumps({"MinimalWindowDisplayTime": 1500, "Language": "en"}))
        host.call("SetProperty", json.dumps({"MinimalWindowDisplayTime": 999999}))
        server, token = signer(build), Token(serial, TOKEN_LABEL)

        def operation(content, pin=False, check=True):
            """The server builds the request with the host's nonce and signs it; the answer is checked
            against it (nonce, operation, token, for GenerateCsr the certificate request)."""
            request = Request(host.call("GetNonce")["result"], Library.at(module), content)
            document = request.xml()
            print("\n   The request document, built and signed by the server library with the development PKI:")
            print(indent(pretty_xml(document.decode())))
            argument = server.argument(document)
            host.send(request.method, argument,
                      shown=f"<base64 CMS SignedData of the document above, {len(argument)} characters>")
            if pin:
                display.enter_pin(args.pin or USER_PIN)
            answer = host.answer()
            if answer.get("error") and check:
                raise SystemExit(f"{request.method} failed: {answer['error']}")
            print(f"\n   {request.method} answered: {answer.get('error') or 'no error'}")
            return read_answer(answer["result"], request) if not answer.get("error") else None

        if args.module and not args.pin:
            return survey(host, operation)

        step("3. GetSlots: the slots with a token")
        slots = operation(GetSlots())
        if args.module:
            first = next(slot.token for slot in slots.slots if slot.token)
            token = Token(first.serial_number, first.label)

        step("4. GetCertificates: the token holds no certificate yet")
        operation(GetCertificates(token))

        step("5. GenerateCsr: an RSA key pair on the token and a certificate request signed there")
        subject = x509.Name.from_rfc4514_string("CN=Scriva Demo User,O=Scriva Demo")
        key_id = b"\xd1"
        csr_answer = operation(GenerateCsr.rsa(token, subject, key_id=key_id, label="Scriva demo key",
                                               enrollment_csp_provider="Scriva demo"), pin=True)
        print("\n   The server library checked the request: its signature, subject and key are the ones asked for.")
        csr = os.path.join(work, "request.csr")
        with open(csr, "wb") as file:
            file.write(csr_answer.csr.public_bytes(Encoding.PEM))

        step("6. openssl checks the certificate request")
        check = subprocess.run(["openssl", "req", "-in", csr, "-noout", "-verify", "-subject"],
                               capture_output=True, text=True)
        print(indent((check.stdout + check.stderr).strip()))
        if check.returncode != 0:
            raise SystemExit("openssl refused the certificate request")

        step("7. A demo CA (openssl, in the demo folder) issues a certificate for the request")
        ca_key, ca_cert = os.path.join(work, "ca.key"), os.path.join(work, "ca.pem")
        issued, issued_der = os.path.join(work, "issued.pem"), os.path.join(work, "issued.der")
        run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", ca_key, "-out", ca_cert,
            "-subj", "/O=Scriva Demo/CN=Scriva Demo CA", "-days", "30")
        run("openssl", "x509", "-req", "-in", csr, "-CA", ca_cert, "-CAkey", ca_key, "-set_serial", "0x5c71ba",
            "-days", "30", "-out", issued)
        run("openssl", "x509", "-in", issued, "-outform", "DER", "-out", issued_der)
        print(indent(run("openssl", "x509", "-in", issued, "-noout", "-subject", "-issuer", "-serial", "-dates").strip()))

        step("8. CreateObject: the issued certificate stored on the token beside its key")
        with open(issued_der, "rb") as file:
            certificate = x509.load_der_x509_certificate(file.read())
        operation(CreateObject.certificate(token, certificate, key_id=key_id, label="Scriva demo certificate"),
                  pin=True)

        step("9. GetCertificates: the token now holds the issued certificate")
        stored = operation(GetCertificates(token)).certificates
        for item in stored:
            print(indent(f"subject={item.subject.rfc4514_string()} issuer={item.issuer.rfc4514_string()} "
                         f"serial={item.serial_number:#x}"))
        if certificate not in stored:
            raise SystemExit("the stored certificate was not read back")

        step("10. Terminate")
        host.call("Terminate")
        code = host.finish()
        host = None
        with open(log) as file:
            lines = sum(1 for _ in file)
        print(f"\nThe host ended with exit code {code}; its log has {lines} lines"
              " (SCRIVA_DEMO_KEEP=1 keeps the demo folder with the token, the log and the files).")
        print("Summary: slots listed, key pair and certificate request made on the token and accepted by openssl,"
              " certificate issued by the demo CA, stored with CreateObject and read back with GetCertificates.")
        return 0 if code == 0 else 1
    finally:
        if host:
            host.process.kill()
        display.close()
        stop_tpm_token(work)
        if not os.environ.get("SCRIVA_DEMO_KEEP"):
            shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
