#!/usr/bin/env python3
"""The server of the walk-through in docs/integrating.md: it serves the page, builds and signs the
page's token requests with the server library, reads the answers, and issues certificates from a
throwaway CA. Run it with the Python the library is installed in (without it, the library is taken
from the clone): ~/myapp/env/bin/python server.py --repo ~/scriva-pkcs11 [--build DIR] [--module PATH]
[--port 8080]"""
import argparse
import datetime
import importlib.util
import json
import os
import sys
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

parser = argparse.ArgumentParser()
parser.add_argument("--repo", required=True, help="the clone of ScrivaPkcs11")
parser.add_argument("--build", help="its build tree, with the development PKI (default: build/ in the clone)")
parser.add_argument("--module", default="/usr/lib/softhsm/libsofthsm2.so", help="the token's PKCS#11 module")
parser.add_argument("--port", type=int, default=8080)
args = parser.parse_args()
if importlib.util.find_spec("scriva_server") is None:
    sys.path.insert(0, os.path.join(args.repo, "tools", "scriva-server"))

from cryptography import x509  # noqa: E402
from cryptography.hazmat.primitives import hashes  # noqa: E402
from cryptography.hazmat.primitives.asymmetric import ec  # noqa: E402
from scriva_server import (AnswerError, CreateObject, GenerateCsr, GetSlots, Library, Request, Signer,  # noqa: E402
                           Token, pkcs11, read_answer)

devpki = os.path.join(args.build or os.path.join(args.repo, "build"), "devpki", "server-chain2")
signer = Signer.from_files(devpki + ".pem", devpki + ".key")  # your organisation's signing key in production
library = Library.at(args.module)
ca_key, ca_name = ec.generate_private_key(ec.SECP256R1()), x509.Name.from_rfc4514_string("CN=Walk-through CA")
signed = {}  # the requests signed for the page, by nonce: each answer is checked against its request
issued = {}  # the certificates issued, by key id, until the page has them stored


def sign(body):
    """A request for the page's step, with the nonce its host just gave it."""
    token = Token(body.get("serial", ""), body.get("label", ""))
    if body["step"] == "slots":
        operation = GetSlots()
    elif body["step"] == "enrol":
        name = x509.Name([x509.NameAttribute(x509.NameOID.COMMON_NAME, body["name"])])
        operation = GenerateCsr.rsa(token, name, key_id=os.urandom(8), label=body["name"])
    else:
        certificate, label = issued.pop(body["keyId"])
        operation = CreateObject.certificate(token, certificate, key_id=bytes.fromhex(body["keyId"]), label=label)
    request = Request(body["nonce"], library, operation)
    signed[body["nonce"]] = request
    return {"argument": signer.argument(request.xml())}


def read(body):
    """The host's answer, which came through the page, checked against the request it answers."""
    request = signed.pop(body["nonce"])
    answer = read_answer(body["answer"], request)
    if request.method == "GetSlots":
        return {"tokens": [{"serial": slot.token.serial_number, "label": slot.token.label}
                           for slot in answer.slots if slot.token and slot.token.serial_number]}
    if request.method == "GenerateCsr":  # the CSR's signature and key were checked by read_answer
        now = datetime.datetime.now(datetime.timezone.utc)
        certificate = (x509.CertificateBuilder().subject_name(answer.csr.subject).issuer_name(ca_name)
                       .public_key(answer.csr.public_key()).serial_number(x509.random_serial_number())
                       .not_valid_before(now).not_valid_after(now + datetime.timedelta(days=365))
                       .sign(ca_key, hashes.SHA256()))
        key_id = request.operation.public_attribute(pkcs11.CKA_ID).hex()
        issued[key_id] = certificate, request.operation.public_attribute(pkcs11.CKA_LABEL)
        return {"keyId": key_id, "subject": certificate.subject.rfc4514_string()}
    return {"stored": True}


class Handler(BaseHTTPRequestHandler):
    def do_GET(self):
        name = {"/": "index.html", "/scriva-client.js": "scriva-client.js"}.get(self.path)
        folder = os.path.dirname(os.path.abspath(__file__)) if name == "index.html" else \
            os.path.join(args.repo, "browser", "client")
        if not name:
            return self.reply(404, b"not found", "text/plain")
        with open(os.path.join(folder, name), "rb") as file:
            self.reply(200, file.read(), "text/html" if name.endswith("html") else "text/javascript")

    def do_POST(self):
        try:
            body = json.loads(self.rfile.read(int(self.headers["Content-Length"])))
            value, status = {"/sign": sign, "/read": read}[self.path](body), 200
        except AnswerError as error:  # whatever the page brought as the answer, reading it raises only this
            value, status = {"error": str(error)}, 400
        except (KeyError, TypeError, ValueError) as error:  # a body this page never sends, a nonce the host never gave
            value, status = {"error": f"not a request of this page: {error}"}, 400
        self.reply(status, json.dumps(value).encode(), "application/json")

    def reply(self, status, data, kind):
        self.send_response(status)
        self.send_header("Content-Type", kind)
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data)


server = ThreadingHTTPServer(("127.0.0.1", args.port), Handler)
print(f"Serving on http://127.0.0.1:{server.server_address[1]}/", flush=True)
server.serve_forever()
