#!/usr/bin/env python3
"""The server side of a web application that uses ScrivaPkcs11, in miniature.

It serves the demo page on 127.0.0.1 and writes and signs the requests the page hands to the
token: the request XML is filled in here (nonce from the page, token and module chosen by the
server's configuration), then signed with scriva-sign-request and the development PKI of a build
tree. It also plays a tiny certification authority: it issues a certificate for the request a
token generated, so the page can store it on the token.

    python3 browser/demo/server.py --build build [--port 8443] [--module /path/to/module.so ...]
                                   [--chromium]

It prints "Serving on http://127.0.0.1:PORT/" once it listens. --chromium starts Chromium with a
profile of its own, the extension loaded and the host registered (for a desktop session).
"""
import argparse
import json
import os
import secrets
import shutil
import subprocess
import sys
import tempfile
from http import HTTPStatus
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from xml.sax.saxutils import escape

HERE = os.path.dirname(os.path.abspath(__file__))
BROWSER = os.path.dirname(HERE)
NAMESPACE = "http://www.corvant.com/Scriva/Pkcs11Operation/2026/02/04"
DEFAULT_MODULES = ["/usr/lib/x86_64-linux-gnu/softhsm/libsofthsm2.so", "/usr/lib/x86_64-linux-gnu/opensc-pkcs11.so"]

# PKCS#11 numbers used in the templates below.
CKA_CLASS, CKA_TOKEN, CKA_PRIVATE, CKA_LABEL, CKA_VALUE = 0x0, 0x1, 0x2, 0x3, 0x11
CKA_CERTIFICATE_TYPE, CKA_SUBJECT, CKA_ID, CKA_SENSITIVE, CKA_SIGN = 0x80, 0x101, 0x102, 0x103, 0x108
CKA_VERIFY, CKA_MODULUS_BITS, CKA_PUBLIC_EXPONENT = 0x10A, 0x121, 0x122
CKO_CERTIFICATE, CKC_X_509, CKM_RSA_PKCS_KEY_PAIR_GEN, CKM_RSA_PKCS, CKM_SHA256 = 1, 0, 0x0, 0x1, 0x250


def der(tag, content):
    length = len(content)
    if length < 0x80:
        return bytes([tag, length]) + content
    size = length.to_bytes((length.bit_length() + 7) // 8, "big")
    return bytes([tag, 0x80 | len(size)]) + size + content


def common_name(text):
    """DER of the X.509 name CN=text."""
    cn_oid = bytes([0x06, 0x03, 0x55, 0x04, 0x03])
    return der(0x30, der(0x31, der(0x30, cn_oid + der(0x0C, text.encode()))))


def der_elements(data):
    """The DER elements lying one after the other in `data`, as (tag, element, content) triples."""
    elements, offset = [], 0
    while offset < len(data):
        tag, length, start = data[offset], data[offset + 1], offset + 2
        if length & 0x80:
            count = length & 0x7F
            length, start = int.from_bytes(data[start:start + count], "big"), start + count
        elements.append((tag, data[offset:start + length], data[start:start + length]))
        offset = start + length
    return elements


def certificate_subject(certificate_der):
    """The subject Name of a DER certificate: the fifth field of tbsCertificate after the optional version."""
    certificate = der_elements(certificate_der)[0][2]
    tbs = der_elements(certificate)[0][2]
    fields = der_elements(tbs)
    if fields[0][0] == 0xA0:
        fields = fields[1:]
    return fields[4][1]  # serial, signature algorithm, issuer, validity, subject


def attribute(kind, number, value):
    return (f"<{kind}Attribute><Attribute>{number}</Attribute>"
            f"<Value>{escape(str(value))}</Value></{kind}Attribute>")


class Application:
    def __init__(self, sign_tool, key, certificate, modules):
        self.sign_tool, self.key, self.certificate, self.modules = sign_tool, key, certificate, modules
        self.work = tempfile.mkdtemp(prefix="scriva-demo-server-")
        self.ca_key = os.path.join(self.work, "ca.key")
        self.ca_cert = os.path.join(self.work, "ca.pem")
        self.openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", self.ca_key, "-out",
                     self.ca_cert, "-subj", "/CN=Scriva Demo CA", "-days", "30")

    def openssl(self, *arguments, data=None):
        return subprocess.run(["openssl", *arguments], input=data, capture_output=True, check=True).stdout

    def request_xml(self, nonce, module, operation):
        library = (f"<Pkcs11Library><Locations><Location><Path>{escape(module)}</Path>"
                   "<Architecture>x64</Architecture></Location></Locations>"
                   "<Pin1Name>User PIN</Pin1Name><Pin2Name>Signature PIN</Pin2Name><ShowPinForm>true</ShowPinForm>"
                   "<AllowManualSelection>false</AllowManualSelection><VendorExtensions></VendorExtensions>"
                   "</Pkcs11Library>")
        return (f'<?xml version="1.0" encoding="UTF-8"?>\n<ScrivaOperation xmlns="{NAMESPACE}">'
                f"<Nonce>{escape(nonce)}</Nonce><Pkcs11Operation>{library}{operation}</Pkcs11Operation>"
                "</ScrivaOperation>\n")

    def sign(self, xml):
        path = os.path.join(self.work, "request-%s.xml" % secrets.token_hex(8))
        with open(path, "w", encoding="utf-8") as file:
            file.write(xml)
        try:
            output = subprocess.run([self.sign_tool, path, self.key, self.certificate], capture_output=True,
                                    text=True, check=True)
        finally:
            os.remove(path)
        return output.stdout.strip()

    def issue(self, csr_pem):
        """A certificate for the token's request, as PEM and DER; openssl checks the request's signature."""
        prefix = os.path.join(self.work, secrets.token_hex(8))
        with open(prefix + ".csr", "w") as file:
            file.write(csr_pem)
        try:
            pem = self.openssl("x509", "-req", "-in", prefix + ".csr", "-CA", self.ca_cert, "-CAkey", self.ca_key,
                               "-set_serial", str(secrets.randbits(63)), "-days", "365")
        finally:
            os.remove(prefix + ".csr")
        return pem.decode(), self.openssl("x509", "-outform", "DER", data=pem)

    def handle(self, body):
        """One request of the page: { operation, nonce, module (index), token: { serial, label }, ... }."""
        operation = body["operation"]
        module = self.modules[int(body.get("module", 0))]
        token = body.get("token") or {}
        identification = (f"<TokenIdentification><SerialNumber>{escape(token.get('serial', ''))}</SerialNumber>"
                          f"<Label>{escape(token.get('label', ''))}</Label></TokenIdentification>")
        answer = {}
        if operation == "GetSlots":
            content = "<GetSlots/>"
        elif operation == "GetCertificates":
            content = f"<GetCertificates>{identification}</GetCertificates>"
        elif operation == "GenerateCsr":
            key_id = secrets.token_hex(8)
            label = body.get("keyLabel") or "Scriva demo key"
            public = (attribute("Bool", CKA_TOKEN, "true") + attribute("Bool", CKA_VERIFY, "true")
                      + attribute("UnsignedLong", CKA_MODULUS_BITS, 2048)
                      + attribute("ByteArray", CKA_PUBLIC_EXPONENT, "010001")
                      + attribute("ByteArray", CKA_ID, key_id) + attribute("String", CKA_LABEL, label))
            private = (attribute("Bool", CKA_TOKEN, "true") + attribute("Bool", CKA_PRIVATE, "true")
                       + attribute("Bool", CKA_SENSITIVE, "true") + attribute("Bool", CKA_SIGN, "true")
                       + attribute("ByteArray", CKA_ID, key_id) + attribute("String", CKA_LABEL, label))
            subject = common_name(body.get("subject") or "Scriva Demo User").hex().upper()
            content = (f"<GenerateCsr>{identification}"
                       f"<GenerateKeyPairMechanism>{CKM_RSA_PKCS_KEY_PAIR_GEN}</GenerateKeyPairMechanism>"
                       f"<PublicKeyAttributes>{public}</PublicKeyAttributes>"
                       f"<PrivateKeyAttributes>{private}</PrivateKeyAttributes>"
                       f"<CsrType>PKCS10</CsrType><CsrSubject>{subject}</CsrSubject>"
                       "<CsrAttributes><EnrollmentCspProvider>Microsoft Enhanced RSA and AES Cryptographic Provider"
                       "</EnrollmentCspProvider></CsrAttributes>"
                       f"<CsrDigestMechanism>{CKM_SHA256}</CsrDigestMechanism>"
                       f"<CsrSigningMechanism>{CKM_RSA_PKCS}</CsrSigningMechanism></GenerateCsr>")
            answer["keyId"] = key_id
        elif operation == "CreateObject":
            pem, certificate = self.issue(body["csr"])
            attributes = (attribute("UnsignedLong", CKA_CLASS, CKO_CERTIFICATE)
                          + attribute("UnsignedLong", CKA_CERTIFICATE_TYPE, CKC_X_509)
                          + attribute("Bool", CKA_TOKEN, "true")
                          + attribute("String", CKA_LABEL, body.get("certificateLabel") or "Scriva demo certificate")
                          + attribute("ByteArray", CKA_ID, body["keyId"])
                          + attribute("ByteArray", CKA_SUBJECT, certificate_subject(certificate).hex())
                          + attribute("ByteArray", CKA_VALUE, certificate.hex()))
            content = f"<CreateObject>{identification}<ObjectAttributes>{attributes}</ObjectAttributes></CreateObject>"
            answer["certificate"] = pem
        else:
            raise ValueError("unknown operation " + operation)
        answer["argument"] = self.sign(self.request_xml(body["nonce"], module, content))
        return answer


class Handler(BaseHTTPRequestHandler):
    application = None
    files = {"/": (HERE, "index.html"), "/index.html": (HERE, "index.html"), "/demo.js": (HERE, "demo.js"),
             "/client/scriva-client.js": (os.path.join(BROWSER, "client"), "scriva-client.js")}

    def log_message(self, format, *arguments):
        sys.stderr.write("demo server: " + format % arguments + "\n")

    def do_GET(self):
        if self.path == "/api/config":
            return self.reply(HTTPStatus.OK, {"modules": self.application.modules})
        if self.path not in self.files:
            return self.reply(HTTPStatus.NOT_FOUND, {"error": "not found"})
        folder, name = self.files[self.path]
        with open(os.path.join(folder, name), "rb") as file:
            data = file.read()
        kind = {"html": "text/html", "js": "text/javascript", "css": "text/css"}[name.rsplit(".", 1)[1]]
        self.send(HTTPStatus.OK, data, kind + "; charset=utf-8")

    def do_POST(self):
        if self.path != "/api/request":
            return self.reply(HTTPStatus.NOT_FOUND, {"error": "not found"})
        try:
            body = json.loads(self.rfile.read(int(self.headers.get("Content-Length", 0))))
            self.reply(HTTPStatus.OK, self.application.handle(body))
        except (KeyError, ValueError, IndexError, subprocess.CalledProcessError) as error:
            detail = getattr(error, "stderr", None) or str(error)
            self.reply(HTTPStatus.BAD_REQUEST, {"error": detail if isinstance(detail, str) else detail.decode()})

    def reply(self, status, value):
        self.send(status, json.dumps(value).encode(), "application/json")

    def send(self, status, data, kind):
        self.send_response(status)
        self.send_header("Content-Type", kind)
        self.send_header("Content-Length", str(len(data)))
        self.send_header("Cache-Control", "no-store")
        self.end_headers()
        self.wfile.write(data)


def start_chromium(build, url):
    """A visible Chromium with a profile of its own, the extension loaded and the built host registered."""
    profile = tempfile.mkdtemp(prefix="scriva-demo-chromium-")
    hosts = os.path.join(profile, "NativeMessagingHosts")
    os.makedirs(hosts)
    manifest = os.path.join(build, "share", "scriva", "native-messaging-hosts", "chromium",
                            "com.corvant.scriva.pkcs11.json")
    shutil.copy(manifest, hosts)
    extension = os.path.join(BROWSER, "extension")
    chromium = shutil.which("chromium") or "/usr/lib/chromium/chromium"
    return subprocess.Popen([chromium, "--user-data-dir=" + profile, "--no-first-run",
                             "--disable-extensions-except=" + extension, "--load-extension=" + extension, url])


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", required=True, help="build tree with bin/scriva-sign-request and devpki/")
    parser.add_argument("--port", type=int, default=0, help="port on 127.0.0.1 (default: any free one)")
    parser.add_argument("--module", action="append", help="PKCS#11 module the requests name (repeatable)")
    parser.add_argument("--signer", default="server-chain2", help="signer in devpki/ (default server-chain2)")
    parser.add_argument("--chromium", action="store_true", help="start Chromium on the page")
    args = parser.parse_args()

    devpki = os.path.join(args.build, "devpki")
    Handler.application = Application(os.path.join(args.build, "bin", "scriva-sign-request"),
                                      os.path.join(devpki, args.signer + ".key"),
                                      os.path.join(devpki, args.signer + ".pem"), args.module or DEFAULT_MODULES)
    server = ThreadingHTTPServer(("127.0.0.1", args.port), Handler)
    url = "http://127.0.0.1:%d/" % server.server_address[1]
    print("Serving on " + url, flush=True)
    browser = start_chromium(args.build, url) if args.chromium else None
    try:
        server.serve_forever()
    except KeyboardInterrupt:
        pass
    finally:
        if browser:
            browser.terminate()
        shutil.rmtree(Handler.application.work, ignore_errors=True)


if __name__ == "__main__":
    main()
