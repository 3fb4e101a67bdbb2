"""The server side of a web application that uses the ScrivaPkcs11 host.

Builds the request document of a token operation from typed arguments (both schema versions),
signs it into the argument the host takes, and reads the host's answers, checking them against
the request they answer:

    from scriva_server import GetSlots, Library, Request, Signer, read_answer
    signer = Signer.from_files("server.pem", "server.key")
    request = Request(nonce_from_the_page, Library.at("/usr/lib/x86_64-linux-gnu/opensc-pkcs11.so"), GetSlots())
    argument = signer.argument(request.xml())        # the page passes this to the host
    answer = read_answer(result_from_the_page, request)
    for slot in answer.slots: ...

`python3 -m scriva_server --help` offers the same to servers written in other languages."""
from .answer import Answer, AnswerError, Slot, TokenInfo, check_csr, read_answer
from .request import (V2022, V2026, Attribute, CreateObject, GenerateCsr, GetCertificates, GetSlots, Library,
                      Location, Request, RequestError, Token, read_request)
from .signing import DEVELOPMENT_POLICY, Signer, SignerError

__all__ = ["Answer", "AnswerError", "Attribute", "CreateObject", "DEVELOPMENT_POLICY", "GenerateCsr",
           "GetCertificates", "GetSlots", "Library", "Location", "Request", "RequestError", "Signer", "SignerError",
           "Slot", "Token", "TokenInfo", "V2022", "V2026", "check_csr", "read_answer", "read_request"]
