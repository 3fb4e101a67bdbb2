#!/usr/bin/env python3
"""docs/errors.md has a row for every text the host, the extension and the page client can give a page, and
for no other, naming where it comes from; the client gives each the row's category and the English and Czech
texts the docs show for its word, else for its category."""
import json
import pathlib
import re
import subprocess
import sys

root = pathlib.Path(sys.argv[1]).resolve()
# Their exceptions never reach an answer: the I/O threads and a bad first message end the host, the
# signer's checks end as CommunicationMismatchUnstrustedServer, a signing certificate's are quoted.
LOG_ONLY = {"readthread.cpp", "writethread.cpp", "nativemessaginghost.cpp", "x509certificate2ultra.cpp",
            "responsesigningcertificate.cpp"}
LITERAL = r'QStringLiteral\("((?:[^"\\]|\\.)*)"'
produced, table, cases = {}, {}, []


def add(text, source):  # as the table shows it: values as "…", only the first of several lines
    text = re.sub(r'%\d', '…', text)
    produced.setdefault(text.split('\\n')[0] + '…' if '\\n' in text else text, set()).add(source)


pkcs11 = re.search(r'::detailText\(.*?' + LITERAL, (root / "src/ScrivaLib/pkcs11exception.cpp").read_text(), re.S)[1]
for path in sorted((root / "src").rglob("*.[ch]*")):
    code = re.sub(r'(?<!:)//[^\n]*', '', path.read_text())
    # The first text of the statement, else one held in a variable or returned by a helper; a rethrow has none.
    for raised in re.findall(r'\b(?:throw\s|return\s+(?=AppException\()|Result\((?=\s*QStringLiteral))(.*?);', code, re.S):
        if path.name in LOG_ONLY or re.fullmatch(r'\s*(\*?[\w.]+|AppException\(\w+\)|\w+::\w+\(\)|[A-Z_]+\(\))\s*', raised):
            continue
        name = re.match(r'\s*\w+\(\s*(\w+)', raised)
        held = re.search(r'"((?:[^"\\]|\\.)*)"', raised) or name and re.search(
            r'(?:QString|auto)\s+%s\s*(?:=\s*|\([^)]*\)\s*\{\s*return\s+)%s' % (name[1], LITERAL), code)
        text = pkcs11 if re.search(r'PKCS11_EXCEPTION|Pkcs11Exception\(', raised) else held and held[1]
        assert text, f"{path.name}: what does `throw {raised.strip()}` raise?"
        add(text, "host")
# The extension answers through fail() and answerPage(), the client rejects through error() and exchange().
for path in [*(root / "browser/extension").glob("*.js"), root / "browser/client/scriva-client.js"]:
    for word in re.findall(r'\b(?:fail|answerPage|error|exchange)\((?=[^;]*?"([A-Z][a-z]\w*)")', path.read_text()):
        add(word, path.parent.name)

docs = (root / "docs/errors.md").read_text()
for row in re.findall(r'^\|(.*)\|$', docs.split("## Every error")[1], re.M):
    cells = row.split(" | ")
    for text in re.findall(r'`([^`]+)`', cells[0]):
        table[text] = set(re.findall(r'host|extension|client', cells[1]))
        # The row's category, then those of particular values: "`pin`: `CKR_PIN_LOCKED`, ...".
        spans = re.findall(r'`([^`]+)`', cells[-1])
        cases.append((text.replace('…', 'x'), spans[0]))
        for span in spans[1:]:
            category = span if re.fullmatch(r'[a-z-]+', span) else category
            cases += [] if span == category else [(text.replace('…', span), category)]
failures = [f"{t!r} comes from {sorted(s)}, the table: {sorted(table.get(t, []))}" for t, s in produced.items() if table.get(t) != s]
failures += [f"{text!r} is in the table, but nothing produces it" for text in table if text not in produced]
script = (f"import {{ describeError }} from {json.dumps((root / 'browser/client/scriva-client.js').as_uri())};\n"
          f"console.log(JSON.stringify({json.dumps([text for text, _ in cases])}.map((text) => "
          "[describeError(text).category, ...['en', 'cs'].map((language) => describeError(text, language).userMessage)])));")
seen = json.loads(subprocess.check_output(["node", "--input-type=module", "-e", script], text=True))
shown = {key: [en, cs] for key, en, cs in re.findall(r'^\| `([^`]+)` \| (.*?) \| (.*?) \|$', docs.split(
    "### What the user reads")[1].split("## Every error")[0], re.M)}
keys = [text if text in shown else category for text, category in cases]
failures += [f"the client gives {text!r} {got}, {[en, cs]}; the docs {category}, {shown.get(key)}" for (text, category),
             (got, en, cs), key in zip(cases, seen, keys) if [got, en, cs] != [category, *shown.get(key, [None] * 2)]]
failures += [f"the docs show texts for {key!r}, which no error gets" for key in shown.keys() - set(keys)]
print("\n".join(failures) or f"{len(produced)} texts in the table, {len(cases)} categories and user messages agree with the client")
sys.exit(1 if failures else 0)
