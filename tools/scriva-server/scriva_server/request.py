"""Request documents: built from typed arguments, and read back.

A request is the XML document a server signs and a page hands to the host for one token
operation. Its namespace is its schema version; both versions are written and read here. Every
text goes into the document through ElementTree, which escapes it; what the host would refuse
(an empty token serial number, a label in the older version, ...) is refused here already, with
a RequestError, before anything is signed."""
from __future__ import annotations

import datetime
import re
import xml.etree.ElementTree as ET
from dataclasses import dataclass
from typing import Optional, Sequence, Union

from cryptography import x509
from cryptography.hazmat.primitives.serialization import Encoding

from . import pkcs11

V2022 = "2022-12-29"
V2026 = "2026-02-04"
NAMESPACES = {V2022: "http://www.corvant.com/Scriva/Pkcs11Operation/2022/12/29",
              V2026: "http://www.corvant.com/Scriva/Pkcs11Operation/2026/02/04"}
VERSIONS = {uri: version for version, uri in NAMESPACES.items()}
ARCHITECTURES = ("x64", "x86", "both")
DEFAULT_CSP_PROVIDER = "Microsoft Enhanced RSA and AES Cryptographic Provider"
# The host's nonces are UUIDs in text; it takes no request without the one it gave out last.
NONCE_LENGTH = 36

# Characters an XML 1.0 document can carry at all.
_NOT_XML = re.compile("[^\t\n\r\x20-\ud7ff\ue000-\ufffd\U00010000-\U0010ffff]")


class RequestError(ValueError):
    """A request the host would refuse, or a document that is not a request."""


@dataclass(frozen=True)
class Location:
    """A place where the token maker's PKCS#11 module may lie; the host takes the first that exists."""
    path: str
    architecture: str = "x64"


@dataclass(frozen=True)
class Library:
    """How the host reaches the token: its module and how it asks for the PIN."""
    locations: Sequence[Location]
    pin1_name: str = "User PIN"
    pin2_name: str = "Signature PIN"
    show_pin_form: bool = True
    allow_manual_selection: bool = False
    vendor_extensions: str = ""  # 2026-02-04 only

    @classmethod
    def at(cls, *paths: str, **options) -> "Library":
        return cls([Location(path) for path in paths], **options)


@dataclass(frozen=True)
class Token:
    """The token an operation works on, as GetSlots names it; the label only in 2026-02-04."""
    serial_number: str
    label: str = ""


AttributeValue = Union[bool, int, str, bytes, datetime.datetime]
# The element of each Python type; bool comes before int, as True is an int as well.
_KINDS = ((bool, "Bool"), (int, "UnsignedLong"), (str, "String"), (bytes, "ByteArray"),
          (datetime.datetime, "DateTime"))


@dataclass(frozen=True)
class Attribute:
    """One CK_ATTRIBUTE of a template. The value's Python type chooses its element: bool, int
    (CK_ULONG), str, bytes, datetime (a naive one is taken as UTC)."""
    type: int
    value: AttributeValue

    @property
    def kind(self) -> str:
        for python_type, kind in _KINDS:
            if isinstance(self.value, python_type):
                return kind
        raise RequestError(f"attribute {self.type:#x}: no element carries a {type(self.value).__name__}")

    def text(self) -> str:
        kind, value = self.kind, self.value
        if kind == "Bool":
            return "true" if value else "false"
        if kind == "UnsignedLong" and not 0 <= value < 2 ** 64:
            raise RequestError(f"attribute {self.type:#x}: {value} is not a CK_ULONG")
        if kind == "ByteArray":
            return value.hex().upper()
        if kind == "DateTime":
            utc = value if value.tzinfo is None else value.astimezone(datetime.timezone.utc)
            return utc.strftime("%Y-%m-%dT%H:%M:%SZ")
        return str(value)


@dataclass(frozen=True)
class GetSlots:
    """Lists the slots with a token of the module."""


@dataclass(frozen=True)
class GetCertificates:
    """Reads the X.509 certificates stored on the token."""
    token: Token


@dataclass(frozen=True)
class GenerateCsr:
    """Generates a key pair on the token from the two templates and answers a PKCS#10 request
    for its public key, with `subject` (a Name or its DER), signed on the token."""
    token: Token
    subject: Union[x509.Name, bytes]
    public_key_attributes: Sequence[Attribute]
    private_key_attributes: Sequence[Attribute]
    key_pair_mechanism: int = pkcs11.CKM_RSA_PKCS_KEY_PAIR_GEN
    digest_mechanism: int = pkcs11.CKM_SHA256
    signing_mechanism: int = pkcs11.CKM_RSA_PKCS
    enrollment_csp_provider: str = DEFAULT_CSP_PROVIDER
    kov_data: bool = False

    @classmethod
    def rsa(cls, token: Token, subject: x509.Name, *, key_id: bytes, label: str, bits: int = 2048,
            **options) -> "GenerateCsr":
        """The usual enrolment key: an RSA key pair kept on the token, the private half private,
        sensitive and for signing only, both halves under the same id and label."""
        common = [Attribute(pkcs11.CKA_TOKEN, True), Attribute(pkcs11.CKA_ID, key_id),
                  Attribute(pkcs11.CKA_LABEL, label)]
        public = common + [Attribute(pkcs11.CKA_VERIFY, True), Attribute(pkcs11.CKA_MODULUS_BITS, bits),
                           Attribute(pkcs11.CKA_PUBLIC_EXPONENT, b"\x01\x00\x01")]
        private = common + [Attribute(pkcs11.CKA_PRIVATE, True), Attribute(pkcs11.CKA_SENSITIVE, True),
                            Attribute(pkcs11.CKA_SIGN, True)]
        return cls(token, subject, public, private, **options)

    @property
    def subject_der(self) -> bytes:
        return self.subject if isinstance(self.subject, bytes) else self.subject.public_bytes()

    def public_attribute(self, attribute_type: int) -> Optional[AttributeValue]:
        return next((a.value for a in self.public_key_attributes if a.type == attribute_type), None)


@dataclass(frozen=True)
class CreateObject:
    """Creates one object on the token from the template, usually an issued certificate."""
    token: Token
    attributes: Sequence[Attribute]

    @classmethod
    def certificate(cls, token: Token, certificate: x509.Certificate, *, key_id: bytes,
                    label: str) -> "CreateObject":
        """An X.509 certificate object beside its key (same id), as applications look for it."""
        return cls(token, [
            Attribute(pkcs11.CKA_CLASS, pkcs11.CKO_CERTIFICATE),
            Attribute(pkcs11.CKA_CERTIFICATE_TYPE, pkcs11.CKC_X_509),
            Attribute(pkcs11.CKA_TOKEN, True),
            Attribute(pkcs11.CKA_LABEL, label),
            Attribute(pkcs11.CKA_ID, key_id),
            Attribute(pkcs11.CKA_SUBJECT, certificate.subject.public_bytes()),
            Attribute(pkcs11.CKA_ISSUER, certificate.issuer.public_bytes()),
            Attribute(pkcs11.CKA_VALUE, certificate.public_bytes(Encoding.DER))])


Operation = Union[GetSlots, GetCertificates, GenerateCsr, CreateObject]
METHODS = {operation.__name__: operation for operation in (GetSlots, GetCertificates, GenerateCsr, CreateObject)}


@dataclass(frozen=True)
class Request:
    """One request document: the nonce the host gave the page, the module, the operation."""
    nonce: str
    library: Library
    operation: Operation
    version: str = V2026

    @property
    def method(self) -> str:
        """The host method that takes this request as its argument."""
        return type(self.operation).__name__

    def xml(self) -> bytes:
        """The document, UTF-8, ready to be signed byte for byte."""
        root = _Writer(self).root
        ET.indent(root)
        return ET.tostring(root, encoding="UTF-8", xml_declaration=True,
                           default_namespace=NAMESPACES[self.version]) + b"\n"


class _Writer:
    def __init__(self, request: Request):
        if request.method not in METHODS:
            raise RequestError(f"{request.method} is no operation of the host")
        if request.version not in NAMESPACES:
            raise RequestError(f"unknown schema version {request.version!r}; known: {', '.join(NAMESPACES)}")
        self.namespace = NAMESPACES[request.version]
        self.newer = request.version == V2026
        self.root = ET.Element(self.name("ScrivaOperation"))
        if len(request.nonce) != NONCE_LENGTH:
            raise RequestError(f"the nonce is the one GetNonce gave the page ({NONCE_LENGTH} characters)")
        self.add(self.root, "Nonce", request.nonce)
        operation = self.add(self.root, "Pkcs11Operation")
        self.library(operation, request.library)
        getattr(self, request.method)(self.add(operation, request.method), request.operation)

    def name(self, local: str) -> str:
        return "{%s}%s" % (self.namespace, local)

    def add(self, parent: ET.Element, local: str, text: Optional[str] = None, required: bool = False):
        element = ET.SubElement(parent, self.name(local))
        if text is not None:
            if required and not text:
                raise RequestError(f"{local} must not be empty")
            if _NOT_XML.search(text):
                raise RequestError(f"{local} holds a character an XML document cannot carry")
            # The host tells the versions apart by looking for the older namespace anywhere in the text.
            if self.newer and NAMESPACES[V2022] in text:
                raise RequestError(f"{local} names the {V2022} namespace, which turns the document into that version")
            element.text = text
        return element

    def library(self, parent: ET.Element, library: Library):
        element = self.add(parent, "Pkcs11Library")
        locations = self.add(element, "Locations")
        if not library.locations:
            raise RequestError("the library needs at least one location")
        for location in library.locations:
            if location.architecture not in ARCHITECTURES:
                raise RequestError(f"architecture {location.architecture!r} is none of {', '.join(ARCHITECTURES)}")
            item = self.add(locations, "Location")
            self.add(item, "Path", location.path, required=True)
            self.add(item, "Architecture", location.architecture)
        self.add(element, "Pin1Name", library.pin1_name, required=True)
        self.add(element, "Pin2Name", library.pin2_name, required=True)
        self.add(element, "ShowPinForm", "true" if library.show_pin_form else "false")
        self.add(element, "AllowManualSelection", "true" if library.allow_manual_selection else "false")
        if self.newer:
            self.add(element, "VendorExtensions", library.vendor_extensions)
        elif library.vendor_extensions:
            raise RequestError(f"vendor extensions need version {V2026}")

    def token(self, parent: ET.Element, token: Token):
        if not 1 <= len(token.serial_number) <= 16:
            raise RequestError("the token's serial number has 1 to 16 characters")
        if len(token.label) > 32:
            raise RequestError("the token's label has at most 32 characters")
        if not self.newer:
            if token.label:
                raise RequestError(f"a token label needs version {V2026}")
            self.add(parent, "TokenSerialNumber", token.serial_number)
            return
        identification = self.add(parent, "TokenIdentification")
        self.add(identification, "SerialNumber", token.serial_number)
        self.add(identification, "Label", token.label)

    def attributes(self, parent: ET.Element, local: str, attributes: Sequence[Attribute]):
        element = self.add(parent, local)
        if not attributes:
            raise RequestError(f"{local} needs at least one attribute")
        for attribute in attributes:
            item = self.add(element, attribute.kind + "Attribute")
            self.add(item, "Attribute", str(attribute.type))
            self.add(item, "Value", attribute.text(), required=True)

    def GetSlots(self, element: ET.Element, operation: GetSlots):
        pass

    def GetCertificates(self, element: ET.Element, operation: GetCertificates):
        self.token(element, operation.token)

    def GenerateCsr(self, element: ET.Element, operation: GenerateCsr):
        self.token(element, operation.token)
        self.add(element, "GenerateKeyPairMechanism", str(operation.key_pair_mechanism))
        self.attributes(element, "PublicKeyAttributes", operation.public_key_attributes)
        self.attributes(element, "PrivateKeyAttributes", operation.private_key_attributes)
        self.add(element, "CsrType", "PKCS10")
        self.add(element, "CsrSubject", operation.subject_der.hex().upper())
        csr_attributes = self.add(element, "CsrAttributes")
        if operation.kov_data:
            self.add(csr_attributes, "KovData")
        self.add(csr_attributes, "EnrollmentCspProvider", operation.enrollment_csp_provider, required=True)
        self.add(element, "CsrDigestMechanism", str(operation.digest_mechanism))
        self.add(element, "CsrSigningMechanism", str(operation.signing_mechanism))

    def CreateObject(self, element: ET.Element, operation: CreateObject):
        self.token(element, operation.token)
        self.attributes(element, "ObjectAttributes", operation.attributes)


def parse(document: Union[bytes, str]) -> tuple:
    """The root of a request or answer document valid in its version, and the version. A document
    with a DTD is refused, as the host refuses it."""
    from .document import DocumentError, read  # the reader needs this module's namespaces
    try:
        return read(document)
    except DocumentError as error:
        raise RequestError(str(error)) from None


def read_request(document: Union[bytes, str]) -> Request:
    """The typed form of a request document (its version included), for checking an answer
    against the request it answers."""
    try:
        return _read_request(*parse(document))
    except RequestError:
        raise
    except (ValueError, IndexError) as error:
        raise RequestError(f"not a request the host reads: {error}") from None


def _read_request(root, version: str, namespace: str) -> Request:
    def find(parent, path):
        element = parent.find("/".join("{%s}%s" % (namespace, part) for part in path.split("/")))
        if element is None:
            raise RequestError(f"the request has no {path}")
        return element

    def text(parent, path):
        return find(parent, path).text or ""

    def flag(parent, path):  # as the host reads it: only the text true is true
        return text(parent, path) == "true"

    def attributes(parent, path):
        return [Attribute(int(text(item, "Attribute")), _value(item.tag.rpartition("}")[2], text(item, "Value")))
                for item in find(parent, path)]

    def token(parent):
        if version == V2022:
            return Token(text(parent, "TokenSerialNumber"))
        return Token(text(parent, "TokenIdentification/SerialNumber"), text(parent, "TokenIdentification/Label"))

    library_element = find(root, "Pkcs11Operation/Pkcs11Library")
    library = Library([Location(text(item, "Path"), text(item, "Architecture"))
                       for item in find(library_element, "Locations")],
                      text(library_element, "Pin1Name"), text(library_element, "Pin2Name"),
                      flag(library_element, "ShowPinForm"), flag(library_element, "AllowManualSelection"),
                      text(library_element, "VendorExtensions") if version == V2026 else "")
    element = find(root, "Pkcs11Operation")[1]
    method = element.tag.rpartition("}")[2]
    if method == "GetSlots":
        operation = GetSlots()
    elif method == "GetCertificates":
        operation = GetCertificates(token(element))
    elif method == "CreateObject":
        operation = CreateObject(token(element), attributes(element, "ObjectAttributes"))
    elif method == "GenerateCsr":
        csr_attributes = element.find("{%s}CsrAttributes" % namespace)
        operation = GenerateCsr(
            token(element), bytes.fromhex(text(element, "CsrSubject")),
            attributes(element, "PublicKeyAttributes"), attributes(element, "PrivateKeyAttributes"),
            int(text(element, "GenerateKeyPairMechanism")), int(text(element, "CsrDigestMechanism")),
            int(text(element, "CsrSigningMechanism")),
            text(csr_attributes, "EnrollmentCspProvider") if csr_attributes is not None else "",
            csr_attributes is not None and csr_attributes.find("{%s}KovData" % namespace) is not None)
    else:
        raise RequestError(f"{method} is no operation")
    return Request(text(root, "Nonce"), library, operation, version)


def _value(kind: str, text: str) -> AttributeValue:
    if kind == "BoolAttribute":
        if text.lower() not in ("true", "false"):
            raise RequestError(f"the host reads a BoolAttribute only as true or false, not {text!r}")
        return text.lower() == "true"
    if kind == "UnsignedLongAttribute":
        return int(text)
    if kind == "ByteArrayAttribute":
        return bytes.fromhex(text)
    if kind == "DateTimeAttribute":
        return datetime.datetime.strptime(text, "%Y-%m-%dT%H:%M:%SZ")
    return text

