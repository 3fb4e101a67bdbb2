#!/usr/bin/env python3
"""The integrator's kit against the built host on a SoftHSM token: every request example of
docs/integrating.md is shown as filed, valid, what the server library builds, and answered by the host
in the documented shape; the library refuses what the host refuses and what a page could tamper with."""
import base64
import dataclasses
import json
import os
import pathlib
import re
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time
import unittest
import xml.etree.ElementTree as ET

SOURCE, BUILD = map(os.path.abspath, sys.argv[1:3])
if "SCRIVA_KIT_VENV" not in os.environ:  # first the library is installed as a server installs it
    with tempfile.TemporaryDirectory(prefix="scriva-kit-venv-") as venv:
        for part in ("tools/scriva-server", "resources/Schemas"):  # copied: building writes beside the sources
            shutil.copytree(pathlib.Path(SOURCE, part), pathlib.Path(venv, part))
        shutil.copy(pathlib.Path(SOURCE, "CMakeLists.txt"), venv)
        subprocess.check_call([sys.executable, "-m", "venv", "--system-site-packages", venv + "/env"])
        subprocess.check_call([venv + "/env/bin/pip", "install", "-q", "--no-build-isolation", "--no-index",
                               "--no-cache-dir", venv + "/tools/scriva-server"])
        sys.exit(subprocess.call([venv + "/env/bin/python", *sys.argv], env=dict(os.environ, SCRIVA_KIT_VENV=venv)))

from cryptography import x509  # noqa: E402
from cryptography.hazmat.primitives.serialization import Encoding  # noqa: E402
from scriva_server import (V2022, V2026, AnswerError, Attribute, CreateObject, GenerateCsr,  # noqa: E402
                           GetCertificates, Library, Location, Request, RequestError, Signer, SignerError,
                           Token, check_csr, read_answer, read_request)
from scriva_server.request import NAMESPACES  # noqa: E402
assert __import__("scriva_server").__file__.startswith(os.environ["SCRIVA_KIT_VENV"]), "not the installed library"


def run(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, **options).stdout


def paths(element, prefix=""):
    """The element paths of a document, without namespaces: its shape."""
    here = prefix + "/" + element.tag.rpartition("}")[2]
    return {here}.union(*(paths(child, here) for child in element))


def hostile_answers():
    """(what, answer, why it is refused): answers a page could bring, none of which the host writes."""
    examples, answers = pathlib.Path(SOURCE, "docs", "examples"), pathlib.Path(SOURCE, "tests/data/answers")
    assert all(read_answer((answers / f"{kind}-control.xml").read_bytes()) for kind in ("csr", "certificate"))
    rows = []
    for block in (answers / "refused.txt").read_text().split("\n== ")[1:]:  # edited examples
        what, *lines = block.strip().split("\n")
        pairs = [line.split(" ", 1) for line in lines]
        value = dict(pairs)
        answer = (examples / value["from"]).read_text()
        for pattern, into in zip(*([text for key, text in pairs if key == name] for name in ("edit", "into"))):
            answer, count = re.subn(pattern, into, answer, flags=re.S)
            assert count, f"{what}: no {pattern!r}"
        rows.append((what, answer.encode(value["encoding"]) if "encoding" in value else answer, value["refused"]))
    slots = (examples / "getslots-answer.xml").read_text()
    return rows + [(path.stem, path.read_bytes(), "(?i)" + path.stem.split("-")[0]) for path in sorted(answers.glob("*.xml"))
                   if not path.stem.endswith("control")] + [
        ("not bytes or str", bytearray(slots.encode()), "bytes or str"),
        ("a lone surrogate", slots.replace("Scriva token", "\ud800"), "Unicode"),
        ("1 MiB split by comments", slots.replace("</Slots>", "</Slots><X>" + "ab<!---->" * 116000 + "</X>"), "valid"),
        ("1 MiB", slots.replace("Scriva token", "x" * (1 << 20)), "larger")]


class ServerKit(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.work = tempfile.TemporaryDirectory(prefix="scriva-kit-")
        work = pathlib.Path(cls.work.name)
        (work / "tokens").mkdir()
        (work / "softhsm2.conf").write_text(f"directories.tokendir = {work}/tokens\nobjectstore.backend = file\n"
                                            "log.level = ERROR\n")
        # A PIN pad, so the host logs in without its PIN form; KovData for the full GenerateCsr.
        (work / "p11.conf").write_text("pin_pad_pin=1234\nkov_data_hex=3003020101\n")
        env = dict(os.environ, SOFTHSM2_CONF=str(work / "softhsm2.conf"), HOME=str(work), XDG_RUNTIME_DIR=str(work),
                   XDG_DATA_HOME=str(work), SCRIVA_TEST_P11_CONFIG=str(work / "p11.conf"), QT_QPA_PLATFORM="offscreen")
        run("softhsm2-util", "--init-token", "--free", "--label", "Scriva token", "--so-pin", "5678", "--pin", "1234",
            env=env)
        slots = run("softhsm2-util", "--show-slots", env=env)
        cls.serial = re.search(rb"Serial number:\s*(\w+)", slots).group(1).decode()
        cls.module = os.path.join(BUILD, "tests", "p11module", "scriva-test-p11.so")
        cls.host = subprocess.Popen([os.path.join(BUILD, "bin", "ScrivaPkcs11"), "chrome-extension://kit/"],
                                    stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=env)
        # A host that has not answered within a minute is killed: the calls fail at once, not at CTest's timeout.
        signal.signal(signal.SIGALRM, lambda *_: cls.host.kill())
        assert cls.call("CreateInstance") == (None, None)

    @classmethod
    def tearDownClass(cls):
        cls.host.communicate(timeout=30)  # the browser closes the pipe
        assert cls.host.returncode == 0, f"the host ended with {cls.host.returncode}"  # or leaked
        cls.work.cleanup()

    @classmethod
    def call(cls, method, argument=None):
        """(error, result) of the host's answer to the method, framed as a browser frames it."""
        message = json.dumps({"method": "ScrivaPkcs11.1.0.0.qt.QES." + method, "args": [argument or ""]}).encode()
        cls.host.stdin.write(struct.pack("<I", len(message)) + message)
        cls.host.stdin.flush()
        signal.alarm(60)
        size = cls.host.stdout.read(4)
        assert len(size) == 4, f"{method}: no answer, the host ended with {cls.host.wait()} (-9: silent for a minute)"
        answer = json.loads(cls.host.stdout.read(struct.unpack("<I", size)[0]))
        signal.alarm(0)
        return answer["error"], answer["result"]

    def signer(self, name):
        return Signer.from_files(*(os.path.join(BUILD, "devpki", name + suffix) for suffix in (".pem", ".key")))

    def on_token(self, request):
        """The request with the host's nonce, for this test's token and module, signed as its version wants and sent."""
        operation = request.operation
        if hasattr(operation, "token"):
            operation = dataclasses.replace(operation, token=Token(self.serial, operation.token.label))
        request = dataclasses.replace(request, nonce=self.call("GetNonce")[1], operation=operation,
                                      library=dataclasses.replace(request.library, locations=[Location(self.module)]))
        chain = "server-chain1" if request.version == V2022 else "server-chain2"
        return request, self.call(request.method, self.signer(chain).argument(request.xml()))

    def test_docs_show_the_example_files(self):
        docs = pathlib.Path(SOURCE, "docs")
        shown = re.findall(r"<!-- (examples/\S+) -->\n```\w*\n(.*?)```", (docs / "integrating.md").read_text(), re.S)
        self.assertGreaterEqual(len(shown), 8)
        for name, text in shown:
            self.assertEqual((docs / name).read_text(), text, name)

    def test_examples_run_on_the_host_and_are_answered_as_documented(self):
        order = ("getslots", "generatecsr", "createobject", "getcertificates")  # certificates stored, then read
        examples = sorted(pathlib.Path(SOURCE, "docs", "examples").glob("*-20*.xml"),
                          key=lambda path: order.index(path.name.split("-")[0]))
        self.assertEqual(len(examples), 16)
        stored = set()
        for name in examples:
            with self.subTest(name.name):
                document = name.read_bytes()
                example = read_request(document)  # valid in the schema of its version
                self.assertEqual(ET.canonicalize(example.xml().decode(), strip_text=True),
                                 ET.canonicalize(document.decode(), strip_text=True))
                request, (error, result) = self.on_token(example)
                self.assertIsNone(error)
                answer = read_answer(result, request)  # valid; nonce, operation, token and CSR checked
                documented = {path for path in paths(ET.parse(str(name).rsplit("-", 2)[0] + "-answer.xml").getroot())
                              if example.version != V2022 or not path.endswith("/TokenPlatform")}
                self.assertEqual(paths(ET.fromstring(result)), documented)
                if request.method == "CreateObject":
                    stored.update(a.value for a in request.operation.attributes if a.type == 0x11)  # CKA_VALUE
                if request.method == "GetCertificates":
                    self.assertEqual({c.public_bytes(Encoding.DER) for c in answer.certificates}, stored)

    def test_library_refuses_what_the_host_refuses(self):
        library = Library.at(self.module)
        for name in ("signer-expired", "signer-no-policy"):  # the host's refusal is its own tests' business
            self.assertRaises(SignerError, self.signer(name).check)
        for version, operation in ((V2022, GetCertificates(Token("1234", "label"))),
                                   (V2026, GetCertificates(Token("12345678901234567"))),
                                   *((V2026, CreateObject(Token("1234"), [Attribute(3, text)]))
                                     for text in ("", "\x01", NAMESPACES[V2022]))):
            self.assertRaises(RequestError, Request("0" * 36, library, operation, version).xml)

    def test_csr_checks_catch_a_changed_answer(self):
        subject = x509.Name([x509.NameAttribute(x509.NameOID.COMMON_NAME, "A&B <C> \"D\" 'É'")])
        request, (error, result) = self.on_token(Request(
            "0" * 36, Library.at(self.module), GenerateCsr.rsa(Token("x", "Scriva token"), subject, key_id=b"\1",
                                                               label=subject.rfc4514_string())))
        self.assertEqual(read_answer(result, request).csr.subject, subject)
        bits = GenerateCsr.rsa(request.operation.token, subject, key_id=b"\1", label="x", bits=3072)
        other = dataclasses.replace(request.operation, subject=x509.Name.from_rfc4514_string("CN=Other"))
        for wrong in ({"nonce": "f" * 36}, {"operation": bits}, {"operation": other}):
            self.assertRaises(AnswerError, read_answer, result, dataclasses.replace(request, **wrong))
        der = read_answer(result).csr.public_bytes(Encoding.DER)
        forged = x509.load_der_x509_csr(der[:-1] + bytes([der[-1] ^ 1]))
        self.assertRaises(AnswerError, check_csr, forged, request.operation)

    def test_answers_of_other_shapes_are_refused_as_they_are_read(self):
        for what, answer, why in hostile_answers():
            with self.subTest(what):
                start = time.process_time()
                self.assertRaisesRegex(AnswerError, why, read_answer, answer)
                self.assertLess(time.process_time() - start, 0.2)
        split = pathlib.Path(SOURCE, "docs/examples/getslots-answer.xml").read_text().replace("0f8", "0<!---->f8")
        self.assertEqual(read_answer(split).nonce, "0f8fad5b-d9cb-469f-a165-70867728950e")

    def test_command_line_and_openssl_line_make_what_the_host_takes(self):
        tool, request = [sys.executable, "-m", "scriva_server"], os.path.join(self.work.name, "request.xml")
        run(*tool, "request", "GetSlots", "--nonce", self.call("GetNonce")[1], "--module", self.module, "-o", request)
        devpki = os.path.join(BUILD, "devpki", "server-chain2")
        cms = run("openssl", "cms", "-sign", "-binary", "-nodetach", "-outform", "DER", "-in", request, "-signer",
                  devpki + ".pem", "-inkey", devpki + ".key")
        error, result = self.call("GetSlots", base64.b64encode(cms).decode())
        self.assertIsNone(error)
        read = json.loads(run(*tool, "read", "--request", request, input=result.encode()))
        self.assertIn(self.serial, [slot["token"]["serialNumber"] for slot in read["slots"] if slot["token"]])
        for what, answer, _ in hostile_answers()[::7]:  # an encoding, a shape, a number, a CSR
            refused = subprocess.run([*tool, "read"], input=answer.encode() if isinstance(answer, str) else answer,
                                     capture_output=True)
            self.assertEqual((refused.returncode, refused.stdout, refused.stderr.count(b"\n")), (1, b"", 1), what)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
