"""Reading the host's answer documents, and checking them against the request they answer.

The page hands the server the "result" of a token operation: an XML document in the request's
namespace with the request's nonce, the module the host used and the operation's own part.
The host does not sign it, and it passed through the page; a server reads it as input from the
page and checks it against the request it signed before it acts on it."""
from __future__ import annotations

from dataclasses import dataclass, field
from typing import List, Optional, Union

from cryptography import x509
from cryptography.hazmat.primitives.asymmetric import rsa

from . import pkcs11
from .request import GenerateCsr, Request, RequestError, V2026, parse

# The attribute a token maker's KovData becomes in the certificate request.
KOV_DATA_OID = x509.ObjectIdentifier("1.2.203.7064.1.1.12.20180406")


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
    """The answer in typed form. With `request`, also checks that it answers that request: same
    version, nonce and operation, the token asked for, and for GenerateCsr the certificate
    request (check_csr). Raises AnswerError."""
    try:
        answer = _read(*parse(document))
    except RequestError as error:
        raise AnswerError(str(error)) from None
    if request is not None:
        _check(answer, request)
    return answer


def check_csr(csr: x509.CertificateSigningRequest, operation: GenerateCsr) -> rsa.RSAPublicKey:
    """Checks the certificate request a GenerateCsr answered and returns its public key: its
    signature verifies with that key (so whoever made it holds the private half), and subject,
    key and signature digest are the ones the request asked for."""
    if not csr.is_signature_valid:
        raise AnswerError("the CSR's signature does not verify with the CSR's own public key")
    if csr.subject.public_bytes() != operation.subject_der:
        raise AnswerError(f"the CSR is for {csr.subject.rfc4514_string()}, not the subject requested")
    key = csr.public_key()
    if not isinstance(key, rsa.RSAPublicKey):
        raise AnswerError("the CSR's key is not an RSA key")
    bits, exponent = (operation.public_attribute(t) for t in (pkcs11.CKA_MODULUS_BITS, pkcs11.CKA_PUBLIC_EXPONENT))
    if bits is not None and key.key_size != bits:
        raise AnswerError(f"the CSR's key has {key.key_size} bits, the request asked for {bits}")
    if exponent is not None and key.public_numbers().e != int.from_bytes(exponent, "big"):
        raise AnswerError("the CSR's key has another public exponent than the request asked for")
    digest = pkcs11.DIGESTS.get(operation.digest_mechanism)
    if csr.signature_hash_algorithm is None or csr.signature_hash_algorithm.name != digest:
        raise AnswerError(f"the CSR is not signed with the digest the request asked for ({digest})")
    if operation.kov_data:
        try:
            csr.attributes.get_attribute_for_oid(KOV_DATA_OID)
        except x509.AttributeNotFound:
            raise AnswerError("the CSR lacks the KovData the request asked for") from None
    return key


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
    def find(parent, path, required=True):
        element = parent.find("/".join("{%s}%s" % (namespace, part) for part in path.split("/")))
        if element is None and required:
            raise AnswerError(f"the answer has no {path}")
        return element

    def text(parent, path):
        return find(parent, path).text or ""

    def slot(element) -> Slot:
        slot_info, token_info = find(element, "SlotInfo"), find(element, "TokenInfo")
        token = None
        if len(token_info):
            token = TokenInfo(text(token_info, "Manufacturer"), text(token_info, "Model"),
                              text(token_info, "SerialNumber"), text(token_info, "Label"),
                              text(token_info, "HasProtectedAuthPath") in ("true", "1"))
        platform = find(element, "TokenPlatform", required=version == V2026)
        return Slot(int(text(element, "SlotId")), int(text(element, "SlotInfoRv")),
                    text(slot_info, "Manufacturer") if len(slot_info) else None,
                    text(slot_info, "Description") if len(slot_info) else None,
                    int(text(element, "TokenInfoRv")), token, None if platform is None else platform.text or "")

    response = find(root, "Pkcs11OperationResponse")
    if len(response) != 2:
        raise AnswerError("the answer's Pkcs11OperationResponse holds no operation")
    operation = response[1]
    method = operation.tag.rpartition("}")[2]
    slots, certificates, csr = [], [], None
    try:
        if method == "GetSlots":
            slots = [slot(item) for item in find(operation, "Slots")]
        elif method in ("GetCertificates", "GenerateCsr", "CreateObject"):
            slots = [slot(find(operation, "Slot"))]
        else:
            raise AnswerError(f"{method} is no operation")
        if method == "GetCertificates":
            certificates = [x509.load_pem_x509_certificate((item.text or "").encode())
                            for item in find(operation, "Certificates")]
        if method == "GenerateCsr":
            csr = x509.load_pem_x509_csr(text(operation, "CSR").encode())
    except AnswerError:
        raise
    except ValueError as error:
        raise AnswerError(f"the answer holds a malformed value: {error}") from None
    return Answer(version, text(root, "Nonce"), text(response, "Pkcs11LibraryPath"), method, slots, certificates, csr)
