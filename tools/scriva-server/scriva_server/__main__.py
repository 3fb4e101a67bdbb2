"""The command line of the server library, for servers in other languages:

    python3 -m scriva_server request GetSlots --nonce NONCE --module /path/to/module.so > request.xml
    python3 -m scriva_server sign --certificate server.pem --key server.key request.xml > argument.txt
    python3 -m scriva_server read --request request.xml answer.xml > answer.json

`request` writes a request document, `sign` the operation argument for it (base64 of the CMS),
`read` the answer as JSON, checked against the request when it is given. Errors go to standard
error, one line, with exit code 1."""
import argparse
import json
import sys

from cryptography import x509
from cryptography.hazmat.primitives import hashes
from cryptography.hazmat.primitives.serialization import Encoding

from . import pkcs11
from .answer import AnswerError, read_answer
from .request import (V2022, V2026, CreateObject, GenerateCsr, GetCertificates, GetSlots, Library, Location, Request,
                      RequestError, Token, read_request)
from .signing import Signer, SignerError

DIGESTS = {name: mechanism for mechanism, name in pkcs11.DIGESTS.items()}


def read_input(name):
    if name == "-":
        return sys.stdin.buffer.read()
    with open(name, "rb") as file:
        return file.read()


def write_output(name, data):
    if name in (None, "-"):
        sys.stdout.buffer.write(data)
    else:
        with open(name, "wb") as file:
            file.write(data)


def build(args):
    token = Token(args.serial or "", args.label or "")
    if args.method == "GetSlots":
        operation = GetSlots()
    elif args.method == "GetCertificates":
        operation = GetCertificates(token)
    elif args.method == "GenerateCsr":
        if not args.subject or not args.key_id:
            raise RequestError("GenerateCsr needs --subject and --key-id")
        subject = x509.Name.from_rfc4514_string(args.subject)
        operation = GenerateCsr.rsa(token, subject, key_id=bytes.fromhex(args.key_id), label=args.key_label,
                                    bits=args.bits, digest_mechanism=DIGESTS[args.digest], kov_data=args.kov_data)
    else:
        if not args.certificate or not args.key_id:
            raise RequestError("CreateObject needs --certificate and --key-id")
        data = read_input(args.certificate)
        certificate = (x509.load_pem_x509_certificate(data) if b"-----BEGIN" in data
                       else x509.load_der_x509_certificate(data))
        operation = CreateObject.certificate(token, certificate, key_id=bytes.fromhex(args.key_id),
                                             label=args.object_label)
    library = Library([Location(path, args.architecture) for path in args.module], args.pin1_name, args.pin2_name,
                      not args.no_pin_form, args.allow_manual_selection, args.vendor_extensions)
    write_output(args.output, Request(args.nonce, library, operation, args.version).xml())


def sign(args):
    signer = Signer.from_files(args.certificate, args.key, digest=getattr(hashes, args.digest.upper())())
    if args.policy:
        signer.check(args.policy)
    document = read_input(args.request)
    write_output(args.output, signer.sign(document) if args.der else signer.argument(document).encode() + b"\n")


def read(args):
    request = read_request(read_input(args.request)) if args.request else None
    answer = read_answer(read_input(args.answer), request)
    pem = lambda item: item.public_bytes(Encoding.PEM).decode()  # noqa: E731
    value = {"version": answer.version, "nonce": answer.nonce, "method": answer.method,
             "libraryPath": answer.library_path, "checkedAgainstRequest": request is not None,
             "slots": [{"slotId": slot.slot_id, "slotInfoRv": slot.slot_info_rv, "manufacturer": slot.manufacturer,
                        "description": slot.description, "tokenInfoRv": slot.token_info_rv,
                        "token": slot.token and {"manufacturer": slot.token.manufacturer, "model": slot.token.model,
                                                 "serialNumber": slot.token.serial_number, "label": slot.token.label,
                                                 "hasProtectedAuthPath": slot.token.has_protected_auth_path},
                        "tokenPlatform": slot.token_platform}
                       for slot in answer.slots],
             "certificates": [pem(certificate) for certificate in answer.certificates],
             "csr": answer.csr and pem(answer.csr)}
    write_output(args.output, json.dumps(value, indent=2, ensure_ascii=False).encode() + b"\n")


def main(argv=None):
    parser = argparse.ArgumentParser(prog="python3 -m scriva_server", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    commands = parser.add_subparsers(dest="command", required=True)

    command = commands.add_parser("request", help="write a request document")
    command.add_argument("method", choices=["GetSlots", "GetCertificates", "GenerateCsr", "CreateObject"])
    command.add_argument("--nonce", required=True, help="the nonce GetNonce gave the page")
    command.add_argument("--module", action="append", required=True, help="PKCS#11 module path (repeatable)")
    command.add_argument("--architecture", choices=["x64", "x86", "both"], default="x64")
    command.add_argument("--version", choices=[V2026, V2022], default=V2026, help="schema version")
    command.add_argument("--serial", help="the token's serial number (all but GetSlots)")
    command.add_argument("--label", help=f"the token's label ({V2026})")
    command.add_argument("--pin1-name", default="User PIN")
    command.add_argument("--pin2-name", default="Signature PIN")
    command.add_argument("--no-pin-form", action="store_true", help="the host shows no PIN form of its own")
    command.add_argument("--allow-manual-selection", action="store_true", help="the user may pick the module file")
    command.add_argument("--vendor-extensions", default="", help=f"({V2026})")
    command.add_argument("--subject", help="GenerateCsr: the subject, e.g. 'CN=Jan Novak,O=Example'")
    command.add_argument("--key-id", help="GenerateCsr, CreateObject: CKA_ID of key and certificate, hex")
    command.add_argument("--key-label", default="Scriva key", help="GenerateCsr: CKA_LABEL of the keys")
    command.add_argument("--bits", type=int, default=2048, help="GenerateCsr: RSA modulus bits")
    command.add_argument("--digest", choices=list(DIGESTS), default="sha256", help="GenerateCsr: the CSR's digest")
    command.add_argument("--kov-data", action="store_true", help="GenerateCsr: ask for the token maker's KovData")
    command.add_argument("--certificate", help="CreateObject: the certificate to store (PEM or DER file)")
    command.add_argument("--object-label", default="Scriva certificate", help="CreateObject: its CKA_LABEL")
    command.add_argument("-o", "--output")
    command.set_defaults(run=build)

    command = commands.add_parser("sign", help="sign a request document into the operation argument")
    command.add_argument("request", nargs="?", default="-", help="the request document (default: standard input)")
    command.add_argument("--certificate", required=True, help="the signer's certificate (PEM)")
    command.add_argument("--key", required=True, help="the signer's private key (PEM, unencrypted)")
    command.add_argument("--digest", choices=["sha256", "sha384", "sha512"], default="sha256")
    command.add_argument("--policy", help="first check that the certificate lists this policy and is valid now")
    command.add_argument("--der", action="store_true", help="write the DER CMS instead of its base64 text")
    command.add_argument("-o", "--output")
    command.set_defaults(run=sign)

    command = commands.add_parser("read", help="read an answer document as JSON")
    command.add_argument("answer", nargs="?", default="-", help="the answer document (default: standard input)")
    command.add_argument("--request", help="the request document it answers: check it against that")
    command.add_argument("-o", "--output")
    command.set_defaults(run=read)

    args = parser.parse_args(argv)
    try:
        args.run(args)
    except (RequestError, AnswerError, SignerError, ValueError, OSError) as error:
        print(f"scriva_server: {' '.join(str(error).split())}", file=sys.stderr)  # one line, whatever the cause
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
