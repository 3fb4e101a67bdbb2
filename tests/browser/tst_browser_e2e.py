#!/usr/bin/env python3
"""The whole way in a real browser: the demo page in headless Chromium calls the token program
through the extension, which the browser starts from the build's native-messaging manifest. A
SoftHSM token answers GetSlots and GetCertificates; GenerateCsr and CreateObject go through the
test module, which gives the token a PIN pad so that no PIN has to be typed."""
import argparse
import json
import os
import shutil
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import chromiumdriver  # noqa: E402

EXTENSION_ID = "miihkjngkbcjkmefbgeecganmceikcjc"
SOFTHSM = "/usr/lib/softhsm/libsofthsm2.so"
LABEL, USER_PIN = "Scriva token", "1234"
SAMPLE_NONCE = "0f8fad5b-d9cb-469f-a165-70867728950e"
failures = []


def check(condition, what, detail=""):
    print(("ok   " if condition else "FAIL ") + what + ("" if condition else f"  ({detail})"), flush=True)
    if not condition:
        failures.append(what)


def run(*arguments, env=None, data=None):
    return subprocess.run(arguments, env=env, input=data, capture_output=True, check=True).stdout


def pem_body(pem):
    return "".join(line for line in pem.strip().splitlines() if not line.startswith("-----"))


def make_token(work, build):
    """A SoftHSM store holding one token with one certificate; its environment and serial number."""
    tokens = os.path.join(work, "tokens")
    os.makedirs(tokens)
    config = os.path.join(work, "softhsm2.conf")
    with open(config, "w") as file:
        file.write(f"directories.tokendir = {tokens}\nobjectstore.backend = file\nlog.level = ERROR\n")
    env = dict(os.environ, SOFTHSM2_CONF=config)
    run("softhsm2-util", "--init-token", "--free", "--label", LABEL, "--so-pin", "5678", "--pin", USER_PIN, env=env)
    certificate = os.path.join(build, "devpki", "chain1-root.pem")
    der = os.path.join(work, "stored.der")
    run("openssl", "x509", "-in", certificate, "-outform", "DER", "-out", der)
    run("pkcs11-tool", "--module", SOFTHSM, "--token-label", LABEL, "--login", "--pin", USER_PIN,
        "--write-object", der, "--type", "cert", "--id", "01", "--label", "stored", env=env)
    with open(certificate) as file:
        stored = file.read()
    return env, stored


def page_call(browser, expression):
    """Runs an async expression in the page; its value, or { error, message } of a rejection."""
    return browser.evaluate(f"({expression}).catch((e) => ({{ error: e.code || 'Error', message: String(e.message) }}))")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--source", required=True)
    parser.add_argument("--build", required=True)
    parser.add_argument("--work", required=True)
    args = parser.parse_args()
    if not os.path.exists(chromiumdriver.CHROMIUM):
        print("SKIP: Chromium is not installed (" + chromiumdriver.CHROMIUM + ")")
        return 77

    shutil.rmtree(args.work, ignore_errors=True)
    os.makedirs(args.work)
    env, stored = make_token(args.work, args.build)
    test_module = os.path.join(args.build, "tests", "p11module", "scriva-test-p11.so")
    pin_pad = os.path.join(args.work, "pinpad.conf")
    with open(pin_pad, "w") as file:
        file.write(f"pin_pad_pin={USER_PIN}\n")
    # The browser hands its environment to the host it starts.
    browser_env = {"SOFTHSM2_CONF": env["SOFTHSM2_CONF"], "SCRIVA_TEST_P11_CONFIG": pin_pad,
                   "QT_QPA_PLATFORM": "offscreen"}
    home = os.path.join(args.work, "home")
    host_log = os.path.join(home, ".local", "share", "Corvant", "Scriva", "Logs", "ScrivaPkcs11Log.txt")
    os.makedirs(os.path.dirname(host_log))
    open(host_log, "w").close()  # the host logs only into a file that exists

    manifest = os.path.join(args.build, "share", "scriva", "native-messaging-hosts", "chromium",
                            chromiumdriver.HOST_NAME + ".json")
    with open(manifest) as file:
        check(json.load(file)["allowed_origins"] == [f"chrome-extension://{EXTENSION_ID}/"],
              "the host manifest admits the extension")
    server, url = chromiumdriver.serve_demo(args.source, args.build, [SOFTHSM, test_module])
    browser = chromiumdriver.Chromium(args.work, os.path.join(args.source, "browser", "extension"), manifest,
                                      env=browser_env, log=print)
    try:
        exercise(browser, url, stored)
    except chromiumdriver.BrowserError as error:
        check(False, "the browser session ran to its end", error)
    finally:
        browser.close()
        server.terminate()
        server.wait()
    if failures:
        with open(host_log, errors="replace") as file:
            print("--- last lines of the host log\n" + "".join(file.readlines()[-40:]))
        with open(browser.stderr_path, errors="replace") as file:
            print("--- Chromium's output (without D-Bus noise)\n" + "".join(
                line for line in file.readlines()[-200:] if "dbus" not in line))
    print(f"{len(failures)} failed" if failures else "all checks passed")
    return 1 if failures else 0


def exercise(browser, url, stored):
    browser.extension_worker(EXTENSION_ID)
    browser.open(url)
    browser.evaluate("scrivaDemo.ready")

    connected = page_call(browser, "scrivaDemo.connect()")
    check(connected.get("host") == "2.6.1 (qt)" and connected.get("extension") == "2.6.1",
          "the page reaches the extension and the host", connected)

    slots = page_call(browser, "scrivaDemo.listSlots(0)")
    tokens = [slot for slot in slots.get("slots", []) if slot["label"] == LABEL]
    check(len(tokens) == 1 and len(tokens[0]["serial"]) == 16, "GetSlots lists the SoftHSM token", slots)
    check('xmlns="http://www.corvant.com/Scriva/Pkcs11Operation/2026/02/04"' in slots.get("xml", ""),
          "GetSlots answers with the answer document", slots.get("xml", "")[:200])

    certificates = page_call(browser, "scrivaDemo.readCertificates(0)")
    bodies = [pem_body(pem) for pem in certificates.get("certificates", [])]
    check(bodies == [pem_body(stored)], "GetCertificates returns the stored certificate", certificates)

    csr = page_call(browser, "scrivaDemo.generateCsr('Scriva Browser Test', 1)")
    pem = csr.get("csr") or ""
    verified = subprocess.run(["openssl", "req", "-verify", "-noout", "-subject"], input=pem.encode(),
                              capture_output=True)
    check(verified.returncode == 0 and b"Scriva Browser Test" in verified.stdout,
          "GenerateCsr through the PIN pad returns a valid request for the subject", csr)

    stored_now = page_call(browser, "scrivaDemo.storeCertificate(1).then(() => scrivaDemo.readCertificates(0))")
    check(len(stored_now.get("certificates", [])) == 2, "CreateObject stores the issued certificate", stored_now)

    # The host answers a token operation under the id of its latest request: the extension must
    # hold quick calls back until the operation is answered.
    overlapping = page_call(browser, """(async () => {
        const client = scrivaDemo.client;
        const nonce = await client.getNonce();
        const signed = await (await fetch('/api/request', { method: 'POST', body: JSON.stringify(
            { operation: 'GetCertificates', nonce, token: scrivaDemo.state.token }) })).json();
        return Promise.all([client.getCertificates(signed.argument), client.getVersion(), client.getNonce()]);
    })()""")
    check(isinstance(overlapping, list) and "<Certificate>" in overlapping[0] and overlapping[1] == "2.6.1 (qt)"
          and len(overlapping[2]) >= 16, "overlapping calls each get their own answer", overlapping)

    replay = page_call(browser, f"""fetch('/api/request', {{ method: 'POST', body: JSON.stringify(
        {{ operation: 'GetSlots', nonce: '{SAMPLE_NONCE}' }}) }}).then((r) => r.json())
        .then((r) => scrivaDemo.client.getSlots(r.argument))""")
    check(replay.get("error") == "CommunicationMismatchNonce", "the host's error word reaches the page", replay)

    ended = page_call(browser, "scrivaDemo.client.terminate().then(() => scrivaDemo.client.getNonce())")
    check(ended.get("error") == "ScrivaInstanceDoesNotExist", "after Terminate the page must create an instance again",
          ended)
    again = page_call(browser, "scrivaDemo.client.createInstance().then(() => scrivaDemo.client.getVersion())")
    check(again == "2.6.1 (qt)", "a new instance starts a new host", again)

    # Without its manifest the browser cannot start the host.
    registered = os.path.join(browser.profile, "NativeMessagingHosts", chromiumdriver.HOST_NAME + ".json")
    page_call(browser, "scrivaDemo.client.terminate()")
    os.rename(registered, registered + ".off")
    missing = page_call(browser, "scrivaDemo.client.createInstance()")
    os.rename(registered + ".off", registered)
    check(missing.get("error") == "NativeHostNotAvailable", "a missing host is reported as such", missing)


if __name__ == "__main__":
    sys.exit(main())
