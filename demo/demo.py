#!/usr/bin/env python3
"""Talks to the built ScrivaPkcs11 host the way a browser does: framed JSON on its stdin, framed
JSON answers on its stdout. On a SoftHSM token made for the demo it lists the slots, reads the
certificates, generates a key pair with a certificate request, has a demo CA issue a certificate
for it, stores that on the token and reads it back; --tpm does all that on a tpm2-pkcs11 token on a
software TPM (scripts/tpm-token.sh) instead, and --module only asks another module (OpenSC's, a
vendor's) through the host which slots and certificates it shows. Every request is signed by the build's
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
import headless_sway  # noqa: E402

PREFIX = "ScrivaPkcs11.1.0.0.qt.QES."
NAMESPACE = "http://www.corvant.com/Scriva/Pkcs11Operation/2026/02/04"
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


def xml_texts(document, element):
    return [node.firstChild.data if node.firstChild else ""
            for node in xml.dom.minidom.parseString(document.encode()).getElementsByTagName(element)]


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


class Requests:
    """Request documents for the demo token, signed by the development PKI with the current nonce."""

    def __init__(self, build, work, serial, module):
        self.tool = os.path.join(build, "bin", "scriva-sign-request")
        self.key = os.path.join(build, "devpki", "server-chain2.key")
        self.certificate = os.path.join(build, "devpki", "server-chain2.pem")
        self.work = work
        self.serial = serial
        self.label = TOKEN_LABEL
        self.module = module

    def document(self, nonce, operation):
        return f"""<?xml version="1.0" encoding="UTF-8"?>
<ScrivaOperation xmlns="{NAMESPACE}">
  <Nonce>{nonce}</Nonce>
  <Pkcs11Operation>
    <Pkcs11Library>
      <Locations>
        <Location><Path>{self.module}</Path><Architecture>x64</Architecture></Location>
      </Locations>
      <Pin1Name>User PIN</Pin1Name>
      <Pin2Name>Signature PIN</Pin2Name>
      <ShowPinForm>true</ShowPinForm>
      <AllowManualSelection>false</AllowManualSelection>
      <VendorExtensions></VendorExtensions>
    </Pkcs11Library>
{operation.replace("TOKEN", self.token())}
  </Pkcs11Operation>
</ScrivaOperation>
"""

    def token(self):
        return (f"<TokenIdentification><SerialNumber>{self.serial}</SerialNumber>"
                f"<Label>{escape(self.label)}</Label></TokenIdentification>")

    def sign(self, document):
        path = os.path.join(self.work, "request.xml")
        with open(path, "w") as file:
            file.write(document)
        return run(self.tool, path, self.key, self.certificate).strip()


def attributes(*items):
    """Object template elements from (kind, attribute number, value) triples."""
    return "".join(f"<{kind}Attribute><Attribute>{number}</Attribute><Value>{value}</Value></{kind}Attribute>"
                   for kind, number, value in items)


def der(tag, content):
    length = len(content)
    if length < 128:
        return bytes([tag, length]) + content
    encoded = length.to_bytes((length.bit_length() + 7) // 8, "big")
    return bytes([tag, 0x80 | len(encoded)]) + encoded + content


def x509_name(*parts):
    """The DER of an X.509 name from (attribute OID bytes, UTF-8 value) pairs."""
    return der(0x30, b"".join(der(0x31, der(0x30, der(0x06, oid) + der(0x0C, value.encode())))
                              for oid, value in parts))


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


def survey(host, requests, operation):
    """GetSlots with the module, then GetCertificates of each token it shows (of the demo token when
    it shows none, to see how the module answers for a token that is not there)."""
    step("3. GetSlots: the slots the module shows")
    slots = operation("GetSlots", "    <GetSlots/>", check=False)
    tokens = list(zip(xml_texts(slots, "SerialNumber"), xml_texts(slots, "Label"))) if slots else []
    for number, (requests.serial, requests.label) in enumerate(tokens or [("0123456789ABCDEF", TOKEN_LABEL)], 4):
        step(f"{number}. GetCertificates of the token '{requests.label}' ({requests.serial})")
        operation("GetCertificates", "    <GetCertificates>TOKEN</GetCertificates>", check=False)
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
    args = parser.parse_args()
    build = os.path.abspath(args.build)
    if not os.path.exists(os.path.join(build, "devpki", "server-chain2.key")):
        raise SystemExit("this build trusts real anchors; the demo needs the development PKI to sign requests")

    work = tempfile.mkdtemp(prefix="scriva-demo-")
    display = WaylandDesktop() if args.wayland else Display(args.xvfb)
    host = None
    try:
        if args.module:
            step(f"1. No demo token: what {args.module} shows, in {work}")
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
        requests = Requests(build, work, serial, module)

        def operation(method, body, pin=False, check=True):
            nonce = host.call("GetNonce")["result"]
            document = requests.document(nonce, body)
            print("\n   The request document, signed by the server with the development PKI:")
            print(indent(pretty_xml(document)))
            argument = requests.sign(document)
            host.send(method, argument, shown=f"<base64 CMS SignedData of the document above, {len(argument)} characters>")
            if pin:
                display.enter_pin(USER_PIN)
            answer = host.answer()
            if answer.get("error") and check:
                raise SystemExit(f"{method} failed: {answer['error']}")
            return answer["result"] if not answer.get("error") else ""

        if args.module:
            return survey(host, requests, operation)

        step("3. GetSlots: the slots with a token")
        operation("GetSlots", "    <GetSlots/>")

        step("4. GetCertificates: the token holds no certificate yet")
        operation("GetCertificates", "    <GetCertificates>TOKEN</GetCertificates>")

        step("5. GenerateCsr: an RSA key pair on the token and a certificate request signed there")
        subject = x509_name((b"\x55\x04\x0a", "Scriva Demo"), (b"\x55\x04\x03", "Scriva Demo User"))
        key_id = "d1"
        csr_answer = operation("GenerateCsr", f"""    <GenerateCsr>TOKEN
      <GenerateKeyPairMechanism>0</GenerateKeyPairMechanism>
      <PublicKeyAttributes>{attributes(("Bool", 1, "true"), ("UnsignedLong", 289, 2048), ("ByteArray", 290, "010001"),
                                       ("Bool", 266, "true"), ("String", 3, "Scriva demo key"), ("ByteArray", 258, key_id))}</PublicKeyAttributes>
      <PrivateKeyAttributes>{attributes(("Bool", 1, "true"), ("Bool", 2, "true"), ("Bool", 259, "true"), ("Bool", 264, "true"),
                                        ("String", 3, "Scriva demo key"), ("ByteArray", 258, key_id))}</PrivateKeyAttributes>
      <CsrType>PKCS10</CsrType>
      <CsrSubject>{subject.hex().upper()}</CsrSubject>
      <CsrAttributes><EnrollmentCspProvider>Scriva demo</EnrollmentCspProvider></CsrAttributes>
      <CsrDigestMechanism>592</CsrDigestMechanism>
      <CsrSigningMechanism>1</CsrSigningMechanism>
    </GenerateCsr>""", pin=True)
        csr = os.path.join(work, "request.csr")
        with open(csr, "w") as file:
            file.write(xml_texts(csr_answer, "CSR")[0])

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
            certificate = file.read()
        operation("CreateObject", f"""    <CreateObject>TOKEN
      <ObjectAttributes>{attributes(("UnsignedLong", 0, 1), ("Bool", 1, "true"), ("UnsignedLong", 128, 0),
                                    ("String", 3, "Scriva demo certificate"), ("ByteArray", 258, key_id),
                                    ("ByteArray", 257, subject.hex().upper()),
                                    ("ByteArray", 17, certificate.hex().upper()))}</ObjectAttributes>
    </CreateObject>""", pin=True)

        step("9. GetCertificates: the token now holds the issued certificate")
        listing = operation("GetCertificates", "    <GetCertificates>TOKEN</GetCertificates>")
        stored = xml_texts(listing, "Certificate")
        for pem in stored:
            print(indent(run("openssl", "x509", "-noout", "-subject", "-issuer", "-serial", input=pem).strip()))
        with open(issued) as file:
            issued_pem = file.read()
        if issued_pem.strip() not in [pem.strip() for pem in stored]:
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
