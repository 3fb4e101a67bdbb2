"""Reading the host's answer documents, and checking them against the request they answer.

The page hands the server the "result" of a token operation: an XML document in the request's
namespace with the request's nonce, the module the host used and the operation's own part.
The host does not sign it, and it passed through the page: whoever controls the page wrote it as
far as the server can tell. So it is read as hostile input (document.py), every value in it is
read and checked here before the server gets any, and whatever is wrong with it ends as an
AnswerError, the one exception reading lets out."""
from __future__ import annotations

import re
from dataclasses import dataclass, field
from typing import Callable, List, Optional, TypeVar, Union

from cryptography import x509
from cryptography.hazmat.primitives.asymmetric import rsa

from . import pkcs11
from .document import DocumentError, read
from .request import GenerateCsr, Request

# The attribute a token maker's KovData becomes in the certificate request.
KOV_DATA_OID = x509.ObjectIdentifier("1.2.203.7064.1.1.12.20180406")
# A number the host writes: decimal digits of ASCII only (the schema would let signs, blanks and
# other digits through).
_NUMBER = re.compile(r"[0-9]{1,20}")
# One PEM block as the host writes it, and nothing around it.
_PEM = "-----BEGIN {0}-----\n(?:[A-Za-z0-9+/=]+\n)+-----END {0}-----\n?"
_CERTIFICATE, _CSR = (re.compile(_PEM.format(label)) for label in ("CERTIFICATE", "CERTIFICATE REQUEST"))
_T = TypeVar("_T")


class AnswerError(ValueError):
    """An answer that is malformed, or does not answer the request it is checked against."""


@dataclass(frozen=True)
class TokenInfo:
    manufacturer: str
    model: str
    serial_number: str
    label: str
    has_protected_auth_path: bool


@dataclass(frozen=True)
class Slot:
    """A slot with a token. When the module failed to describe the slot or its token, the
    return value is in slot_info_rv / token_info_rv and the description is missing."""
    slot_id: int
    slot_info_rv: int
    manufacturer: Optional[str]
    description: Optional[str]
    token_info_rv: int
    token: Optional[TokenInfo]
    token_platform: Optional[str]  # 2026-02-04 only


@dataclass(frozen=True)
class Answer:
    version: str
    nonce: str
    library_path: str
    method: str
    slots: List[Slot] = field(default_factory=list)  # GetSlots: all; the others: the token's slot
    certificates: List[x509.Certificate] = field(default_factory=list)  # GetCertificates
    csr: Optional[x509.CertificateSigningRequest] = None  # GenerateCsr

    @property
    def slot(self) -> Slot:
        """The slot of the token the operation worked on."""
        return self.slots[0]


def read_answer(document: Union[bytes, str], request: Optional[Request] = None) -> Answer:
    """The answer in typed form, every value in it read and checked: a document of UTF-8 bytes or
    a str, without DTD, under 1 MiB, valid in the schema of its version, of the shape the host
    writes; certificates and certificate request decoded in full, the certificate request's
    signature, key and digest checked. With `request`, also checks that it answers that request: same version,
    nonce and operation, the token asked for, and for GenerateCsr the certificate request
    (check_csr). Raises AnswerError and nothing else, whatever the document holds."""
    try:
        answer = _read(*read(document))
        if request is not None:
            _check(answer, request)
    except AnswerError:
        raise
    except DocumentError as error:
        raise AnswerError(str(error)) from None
    except Exception as error:  # noqa: BLE001 - a fault of this library must not let an answer through either
        raise AnswerError(f"the answer cannot be read: {type(error).__name__}: {error}") from error
    return answer


def check_csr(csr: x509.CertificateSigningRequest, operation: GenerateCsr) -> rsa.RSAPublicKey:
    """Checks the certificate request a GenerateCsr answered and returns its public key: its
    signature verifies with that key (so whoever made it holds the private half), and subject,
    key and signature digest are the ones the request asked for."""
    key = _csr_key(csr)
    if csr.subject.public_bytes() != operation.subject_der:
        raise AnswerError(f"the CSR is for {csr.subject.rfc4514_string()}, not the subject requested")
    bits, exponent = (operation.public_attribute(t) for t in (pkcs11.CKA_MODULUS_BITS, pkcs11.CKA_PUBLIC_EXPONENT))
    if bits is not None and key.key_size != bits:
        raise AnswerError(f"the CSR's key has {key.key_size} bits, the request asked for {bits}")
    if exponent is not None and key.public_numbers().e != int.from_bytes(exponent, "big"):
        raise AnswerError("the CSR's key has another public exponent than the request asked for")
    digest = pkcs11.DIGESTS.get(operation.digest_mechanism)
    if csr.signature_hash_algorithm.name != digest:
        raise AnswerError(f"the CSR is not signed with the digest the request asked for ({digest})")
    if operation.kov_data and not any(a.oid == KOV_DATA_OID for a in csr.attributes):
        raise AnswerError("the CSR lacks the KovData the request asked for")
    return key


def _decoded(what: str, decode: Callable[[], _T]) -> _T:
    """What the certificate library makes of a value; its many exceptions become AnswerError."""
    try:
        return decode()
    except AnswerError:
        raise
    except Exception as error:  # noqa: BLE001 - ValueError, UnsupportedAlgorithm, InternalError, ...
        raise AnswerError(f"{what} cannot be read: {type(error).__name__}: {error}") from None


def _certificate(text: str) -> x509.Certificate:
    """A certificate decoded in full: each accessor a server may use is tried here, not there."""
    if not _CERTIFICATE.fullmatch(text):
        raise AnswerError("a Certificate is not exactly one PEM certificate")

    def decode():
        certificate = x509.load_pem_x509_certificate(text.encode("ascii"))
        _ = (certificate.version, certificate.serial_number, certificate.not_valid_before,
             certificate.not_valid_after, certificate.signature_hash_algorithm, certificate.public_key(),
             [extension.value for extension in certificate.extensions])
        certificate.subject.rfc4514_string(), certificate.issuer.rfc4514_string()
        return certificate
    return _decoded("a certificate", decode)


def _csr_key(csr: x509.CertificateSigningRequest) -> rsa.RSAPublicKey:
    """The RSA key of a certificate request the host could have made, decoded in full and with a
    signature that verifies with it."""
    def decode():
        key = csr.public_key()
        if not isinstance(key, rsa.RSAPublicKey):
            raise AnswerError("the CSR's key is not an RSA key")
        if csr.signature_hash_algorithm is None or csr.signature_hash_algorithm.name not in pkcs11.DIGESTS.values():
            raise AnswerError("the CSR is not signed with a digest the host signs with")
        if not csr.is_signature_valid:
            raise AnswerError("the CSR's signature does not verify with the CSR's own public key")
        csr.subject.rfc4514_string()
        _ = [attribute.value for attribute in csr.attributes], [extension.value for extension in csr.extensions]
        return key
    return _decoded("the CSR", decode)


def _check(answer: Answer, request: Request) -> None:
    expected = (request.version, request.nonce, request.method)
    if (answer.version, answer.nonce, answer.method) != expected:
        raise AnswerError("the answer is for another request: version, nonce, operation "
                          f"{(answer.version, answer.nonce, answer.method)}, expected {expected}")
    token = getattr(request.operation, "token", None)
    if token is not None:
        info = answer.slot.token
        if info is None or info.serial_number != token.serial_number or (token.label and info.label != token.label):
            raise AnswerError("the answer comes from another token than the one asked for")
    if isinstance(request.operation, GenerateCsr):
        check_csr(answer.csr, request.operation)


def _read(root, version: str, namespace: str) -> Answer:
    """The values of a document valid in its version. The schema fixed the shape: each singular
    element is there once, in order, in the namespace; what it leaves open is checked here."""
    def child(parent, local):
        return parent.find("{%s}%s" % (namespace, local))

    def text(parent, local):
        return child(parent, local).text or ""

    def number(parent, local):
        value = text(parent, local)
        if not _NUMBER.fullmatch(value):
            raise AnswerError(f"{local} {value!r} is not a number in ASCII decimal digits")
        return int(value)

    def slot(element) -> Slot:
        slot_info, token_info = child(element, "SlotInfo"), child(element, "TokenInfo")
        token = None
        if len(token_info):
            token = TokenInfo(text(token_info, "Manufacturer"), text(token_info, "Model"),
                              text(token_info, "SerialNumber"), text(token_info, "Label"),
                              text(token_info, "HasProtectedAuthPath") in ("true", "1"))
        platform = child(element, "TokenPlatform")
        return Slot(number(element, "SlotId"), number(element, "SlotInfoRv"),
                    text(slot_info, "Manufacturer") if len(slot_info) else None,
                    text(slot_info, "Description") if len(slot_info) else None,
                    number(element, "TokenInfoRv"), token, None if platform is None else platform.text or "")

    response = child(root, "Pkcs11OperationResponse")
    if response is None:
        raise AnswerError("the document is a request, not an answer")
    operation = response[1]
    method = operation.tag.rpartition("}")[2]
    slots, certificates, csr = [], [], None
    if method == "GetSlots":
        slots = [slot(item) for item in child(operation, "Slots")]
    else:
        slots = [slot(child(operation, "Slot"))]
    if method == "GetCertificates":
        certificates = [_certificate(item.text) for item in child(operation, "Certificates")]
    if method == "GenerateCsr":
        pem = text(operation, "CSR")
        if not _CSR.fullmatch(pem):
            raise AnswerError("the CSR is not exactly one PEM certificate request")
        csr = _decoded("the CSR", lambda: x509.load_pem_x509_csr(pem.encode("ascii")))
        _csr_key(csr)
    return Answer(version, text(root, "Nonce"), text(response, "Pkcs11LibraryPath"), method, slots, certificates, csr)
