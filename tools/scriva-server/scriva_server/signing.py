"""Signing a request document into the argument the host takes.

The host takes a token operation's argument only as the base64 text of a CMS SignedData that
carries the request document itself (attached content, byte for byte), signed by exactly one
signer whose certificate is included. It checks the signature, then that the signer's
certificate chains to one of the trust anchors built into it, lists the organisation's
certificate policy and is valid now. The same argument comes from

    openssl cms -sign -binary -nodetach -outform DER -in request.xml -signer cert.pem -inkey key.pem \\
        -md sha256 | base64 -w0
"""
from __future__ import annotations

import base64
import datetime
from typing import Optional

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec, rsa
from cryptography.hazmat.primitives.serialization import pkcs7

# The policy a development build's trust anchors come with; a release build names its own.
DEVELOPMENT_POLICY = "2.25.167889907315684892123040452429353719572"


class SignerError(ValueError):
    """A key and certificate the host would not accept as a request's signer."""


def _utc(certificate: x509.Certificate, name: str) -> datetime.datetime:
    aware = getattr(certificate, name + "_utc", None)  # newer versions of the library
    return aware if aware is not None else getattr(certificate, name).replace(tzinfo=datetime.timezone.utc)


class Signer:
    """The server's signing key and certificate, and the digest of its signatures."""

    def __init__(self, certificate: x509.Certificate, key, digest: hashes.HashAlgorithm = hashes.SHA256()):
        if not isinstance(key, (rsa.RSAPrivateKey, ec.EllipticCurvePrivateKey)):
            raise SignerError("the signing key must be an RSA or EC key")
        public = serialization.Encoding.DER, serialization.PublicFormat.SubjectPublicKeyInfo
        if key.public_key().public_bytes(*public) != certificate.public_key().public_bytes(*public):
            raise SignerError("the private key does not belong to the certificate")
        self.certificate, self.key, self.digest = certificate, key, digest

    @classmethod
    def from_files(cls, certificate_path: str, key_path: str, password: Optional[bytes] = None,
                   digest: hashes.HashAlgorithm = hashes.SHA256()) -> "Signer":
        """A signer from PEM files (the key optionally encrypted with `password`)."""
        with open(certificate_path, "rb") as file:
            certificate = x509.load_pem_x509_certificate(file.read())
        with open(key_path, "rb") as file:
            key = serialization.load_pem_private_key(file.read(), password)
        return cls(certificate, key, digest)

    def check(self, policy: str = DEVELOPMENT_POLICY, at: Optional[datetime.datetime] = None) -> None:
        """Raises SignerError when the host will refuse this signer for its certificate alone:
        outside its validity period, or without the policy. (The chain to the host's anchors
        can only be checked by the host.)"""
        now = at or datetime.datetime.now(datetime.timezone.utc)
        if not _utc(self.certificate, "not_valid_before") < now < _utc(self.certificate, "not_valid_after"):
            raise SignerError("the signing certificate is not valid now")
        try:
            policies = self.certificate.extensions.get_extension_for_class(x509.CertificatePolicies).value
        except x509.ExtensionNotFound:
            raise SignerError("the signing certificate has no certificate policies") from None
        except ValueError:
            # Older versions of the certificate library cannot read policy numbers with very long
            # arcs (the development policy is one); the host checks the policy all the same.
            return
        if policy not in (info.policy_identifier.dotted_string for info in policies):
            raise SignerError(f"the signing certificate does not list the policy {policy}")

    def sign(self, document: bytes) -> bytes:
        """The DER of the CMS SignedData around `document`."""
        builder = pkcs7.PKCS7SignatureBuilder().set_data(document).add_signer(self.certificate, self.key, self.digest)
        # Binary: the document is signed as it is, never turned into canonical MIME text.
        return builder.sign(serialization.Encoding.DER, [pkcs7.PKCS7Options.Binary])

    def argument(self, document: bytes) -> str:
        """The operation's argument: the base64 text of the CMS, on one line."""
        return base64.b64encode(self.sign(document)).decode("ascii")
