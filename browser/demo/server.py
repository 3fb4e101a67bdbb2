#!/usr/bin/env python3
"""The server side of a web application that uses ScrivaPkcs11, in miniature.

It serves the demo page on 127.0.0.1 and writes and signs the requests the page hands to the
token with the server library (tools/scriva-server): the request is built here (nonce from the
page, token and module chosen by the server's configuration) and signed with the development PKI
of a build tree. It also plays a tiny certification authority: it checks the certificate request
a token generated against the request it signed, issues a certificate for it, and has the page
store that on the token.

    python3 browser/demo/server.py --build build [--port 8443] [--module /path/to/module.so ...]
                                   [--chromium]

It prints "Serving on http://127.0.0.1:PORT/" once it listens. --chromium starts Chromium with a
profile of its own, the extension loaded and the host registered (for a desktop session).
"""
import argparse
import datetime
import json
import os
import secrets
import shutil
import subprocess
import sys
import tempfile
import threading
from http import HTTPStatus
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

HERE = os.path.dirname(os.path.abspath(__file__))
BROWSER = os.path.dirname(HERE)
sys.path.insert(0, os.path.join(os.path.dirname(BROWSER), "tools", "scriva-server"))
from cryptography import x509  # noqa: E402
from cryptography.hazmat.primitives import hashes  # noqa: E402
from cryptography.hazmat.primitives.asymmetric import ec  # noqa: E402
from cryptography.hazmat.primitives.serialization import Encoding  # noqa: E402
from scriva_server import (CreateObject, GenerateCsr, GetCertificates, GetSlots, Library, Request, Signer,  # noqa: E402
                           Token, read_answer)

DEFAULT_MODULES = ["/usr/lib/x86_64-linux-gnu/softhsm/libsofthsm2.so", "/usr/lib/x86_64-linux-gnu/opensc-pkcs11.so"]


def common_name(text):
    return x509.Name([x509.NameAttribute(x509.NameOID.COMMON_NAME, text)])


class CertificationAuthority:
    """A throwaway CA that issues a certificate for whatever request the server has checked."""

    def __init__(self):
        self.key = ec.generate_private_key(ec.SECP256R1())
        self.name = common_name("Scriva Demo CA")

    def issue(self, csr):
        now = datetime.datetime.now(datetime.timezone.utc)
        return (x509.CertificateBuilder().subject_name(csr.subject).issuer_name(self.name)
                .public_key(csr.public_key()).serial_number(x509.random_serial_number())
                .not_valid_before(now - datetime.timedelta(minutes=5))
                .not_valid_after(now + datetime.timedelta(days=365))
                .sign(self.key, hashes.SHA256()))


class Application:
    def __init__(self, signer, modules):
        self.signer, self.modules, self.ca = signer, modules, CertificationAuthority()
        # The GenerateCsr requests signed so far, by key id: their answers are checked against them.
        self.enrolments, self.lock = {}, threading.Lock()

    def handle(self, body):
        """One request of the page: { operation, nonce, module (index), token: { serial, label }, ... };
        CreateObject also { keyId, answer } with the GenerateCsr answer of that key."""
        operation = body["operation"]
        token = Token((body.get("token") or {}).get("serial", ""), (body.get("token") or {}).get("label", ""))
        answer = {}
        if operation == "GetSlots":
            content = GetSlots()
        elif operation == "GetCertificates":
            content = GetCertificates(token)
        elif operation == "GenerateCsr":
            answer["keyId"] = secrets.token_hex(8)
            subject = common_name(body.get("subject") or "Scriva Demo User")
            content = GenerateCsr.rsa(token, subject, key_id=bytes.fromhex(answer["keyId"]),
                                      label=body.get("keyLabel") or "Scriva demo key")
        elif operation == "CreateObject":
            with self.lock:
                enrolment = self.enrolments.pop(body["keyId"], None)
            if not enrolment:
                raise ValueError("this server signed no GenerateCsr for key " + body["keyId"])
            # The token's answer came back through the page: it must answer the request this server
            # signed (nonce, token), and its certificate request must be for the key asked for.
            certificate = self.ca.issue(read_answer(body["answer"], enrolment).csr)
            content = CreateObject.certificate(token, certificate, key_id=bytes.fromhex(body["keyId"]),
                                               label=body.get("certificateLabel") or "Scriva demo certificate")
            answer["certificate"] = certificate.public_bytes(Encoding.PEM).decode()
        else:
            raise ValueError("unknown operation " + operation)
        request = Request(body["nonce"], Library.at(self.modules[int(body.get("module", 0))]), content)
        answer["argument"] = self.signer.argument(request.xml())
        if operation == "GenerateCsr":
            with self.lock:
                self.enrolments[answer["keyId"]] = request
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
        except (KeyError, ValueError, IndexError) as error:  # RequestError and AnswerError are ValueErrors
            self.reply(HTTPStatus.BAD_REQUEST, {"error": str(error)})

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
    parser.add_argument("--build", required=True, help="build tree with devpki/, the development PKI")
    parser.add_argument("--port", type=int, default=0, help="port on 127.0.0.1 (default: any free one)")
    parser.add_argument("--module", action="append", help="PKCS#11 module the requests name (repeatable)")
    parser.add_argument("--signer", default="server-chain2", help="signer in devpki/ (default server-chain2)")
    parser.add_argument("--chromium", action="store_true", help="start Chromium on the page")
    args = parser.parse_args()

    devpki = os.path.join(args.build, "devpki")
    signer = Signer.from_files(os.path.join(devpki, args.signer + ".pem"), os.path.join(devpki, args.signer + ".key"))
    Handler.application = Application(signer, args.module or DEFAULT_MODULES)
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


if __name__ == "__main__":
    main()
