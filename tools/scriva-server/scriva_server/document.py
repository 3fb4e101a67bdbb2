"""Reading a document that comes back through the page, as the input of whoever controls the page.

An answer leaves the host as a JSON frame to the browser and reaches the server through a page
that anyone can rewrite, so nothing about it is taken on trust: it is read as UTF-8 only, with no
DTD and no entity of any kind, no larger than anything the host can send, by libxml2 (which reads
in time linear in the size), and it must be valid against the schema of its version before a
single value is taken from it."""
from __future__ import annotations

import functools
import pathlib
import threading
from typing import Union

from lxml import etree

from .request import VERSIONS

# The host refuses to write a frame of 1 MiB or more (1048575 bytes of JSON at most), and the
# answer is only the "result" text of that frame: the JSON text of a string takes at least as many
# bytes as its UTF-8, so no answer the host sends reaches 1 MiB of UTF-8.
MAX_BYTES = 1048575

# Comments and processing instructions are dropped while reading: the host writes none, and a
# text that one splits is read whole.
_SAFE = dict(resolve_entities=False, no_network=True, load_dtd=False, dtd_validation=False, huge_tree=False,
             remove_comments=True, remove_pis=True)
# encoding: the bytes are read as UTF-8 whatever their declaration or first bytes claim.
_PARSER = etree.XMLParser(encoding="utf-8", **_SAFE)
_VALIDATING = threading.Lock()


class DocumentError(ValueError):
    """A document that is not a valid document of a known version, or not one that can be trusted
    to be read."""


def _schema_file(version: str) -> pathlib.Path:
    name = f"ScrivaOperation-{version}.xsd"
    package = pathlib.Path(__file__).resolve().parent
    # Installed (wheel or Debian package): beside the modules. In the source tree: the host's own.
    for folder in (package / "schemas", package.parents[2] / "resources" / "Schemas"):
        if (folder / name).is_file():
            return folder / name
    raise DocumentError(f"the schema {name} is missing from the installation of {package}")


@functools.lru_cache(maxsize=None)
def schema(version: str) -> etree.XMLSchema:
    """The shipped schema of a version, the one the host validates its requests against."""
    return etree.XMLSchema(etree.parse(str(_schema_file(version)), etree.XMLParser(**_SAFE)))


def read(document: Union[bytes, str]) -> tuple:
    """The root of a valid document, its version and namespace. Raises DocumentError."""
    if isinstance(document, str):
        if len(document) > MAX_BYTES:
            raise DocumentError(f"the document is larger than any the host sends ({MAX_BYTES} bytes)")
        try:
            document = document.encode("utf-8")
        except UnicodeEncodeError as error:
            raise DocumentError(f"the document is no Unicode text: {error.reason}") from None
    elif not isinstance(document, bytes):
        raise DocumentError(f"a document is bytes or str, not {type(document).__name__}")
    if len(document) > MAX_BYTES:
        raise DocumentError(f"the document is larger than any the host sends ({MAX_BYTES} bytes)")
    try:
        root = etree.fromstring(document, _PARSER)
    except etree.XMLSyntaxError as error:
        raise DocumentError(f"not a well-formed UTF-8 document: {' '.join(str(error).split())}") from None
    info = root.getroottree().docinfo
    if info.doctype or info.internalDTD is not None or info.externalDTD is not None:
        raise DocumentError("the document carries a DTD")
    namespace = etree.QName(root).namespace
    if namespace not in VERSIONS or etree.QName(root).localname != "ScrivaOperation":
        raise DocumentError(f"the root element {root.tag} is not ScrivaOperation of a known version")
    version = VERSIONS[namespace]
    checker = schema(version)
    try:
        with _VALIDATING:  # one error log per schema: a server's threads take turns
            valid, error = checker.validate(root), checker.error_log.last_error
    except etree.Error as failure:
        raise DocumentError(f"the document cannot be validated in version {version}: {failure}") from None
    if not valid:
        raise DocumentError(f"the document is not valid in version {version}: line {error.line}: {error.message}")
    return root, version, namespace
