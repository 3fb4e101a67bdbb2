#!/usr/bin/env python3
"""The whole way in a real browser: the demo page in headless Chromium calls the token program
through the extension, which the browser starts from the build's native-messaging manifest. A
SoftHSM token answers GetSlots and GetCertificates; GenerateCsr and CreateObject go through the
test module, which gives the token a PIN pad so that no PIN has to be typed."""
import argparse
import json
import os
import select
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


def page_call(browser, expression, page=True):
    """Runs an async expression in the page; its value, or { error, message } of a rejection."""
    return browser.evaluate(f"({expression}).catch((e) => ({{ error: e.code || 'Error', message: String(e.message) }}))",
                            session=page)


class Hosts:
    """The host processes of this build that the browser started for this test's token."""

    def __init__(self, build, softhsm_conf):
        self.program = os.path.realpath(os.path.join(build, "bin", "ScrivaPkcs11"))
        self.marker = b"\0SOFTHSM2_CONF=" + softhsm_conf.encode() + b"\0"

    def running(self):
        found = set()
        for pid in filter(str.isdigit, os.listdir("/proc")):
            try:
                with open(f"/proc/{pid}/environ", "rb") as file:
                    if os.readlink(f"/proc/{pid}/exe") == self.program and self.marker in b"\0" + file.read():
                        found.add(int(pid))
            except OSError:
                pass  # gone meanwhile
        return found

    @staticmethod
    def ends(pid, timeout=20):
        """Whether the process ends within the timeout."""
        try:
            handle = os.pidfd_open(pid)
        except ProcessLookupError:
            return True
        try:
            return bool(select.select([handle], [], [], timeout)[0])
        finally:
            os.close(handle)


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
        exercise_pages(browser, url, Hosts(args.build, env["SOFTHSM2_CONF"]))
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


SIGN_SLOTS = """scrivaDemo.client.getNonce().then((nonce) => fetch('/api/request', { method: 'POST',
    body: JSON.stringify({ operation: 'GetSlots', nonce }) })).then((r) => r.json())
    .then((r) => { window.signedSlots = r.argument; return true; })"""


def exercise_pages(browser, url, hosts):
    """Pages of two origins, each with a host of its own: what page A does to its host leaves page
    B's nonce and instance alone, and a page that goes away takes its host with it."""
    page_b = browser.session
    page_a = browser.open(url.replace("//127.0.0.1:", "//localhost:"))
    browser.evaluate("scrivaDemo.ready", session=page_a)

    def create_instance(page):
        """The host processes that the page's CreateInstance started."""
        before = hosts.running()
        created = page_call(browser, "scrivaDemo.client.createInstance()", page)
        check(created is None, "CreateInstance on " + ("page A" if page == page_a else "page B"), created)
        return hosts.running() - before

    create_instance(page_b)
    started = create_instance(page_a)
    check(len(started) == 1, "page A gets a host of its own", started)
    for name, call in (("GetNonce", "scrivaDemo.client.getNonce()"), ("Terminate", "scrivaDemo.client.terminate()")):
        page_call(browser, SIGN_SLOTS, page_b)
        done = page_call(browser, call, page_a)
        check(not isinstance(done, dict), f"page A's {name}", done)
        slots = page_call(browser, "scrivaDemo.client.getSlots(window.signedSlots)", page_b)
        check(isinstance(slots, str) and LABEL in slots, f"page B's signed GetSlots survives page A's {name}", slots)
    check(all(hosts.ends(pid) for pid in started), "page A's host ends with its Terminate", started)

    for how in ("reloaded", "closed"):
        started = create_instance(page_a)
        if how == "reloaded":
            browser.reload(page_a)
        else:
            browser.send("Page.close", session=page_a)
        check(len(started) == 1 and hosts.ends(next(iter(started))), f"page A's host ends when the page is {how}",
              started)
    check(page_call(browser, "scrivaDemo.client.getVersion()", page_b) == "2.6.1 (qt)",
          "page B keeps its host through all of page A's doings")

    # The size of a request is that of its method and arguments as JSON, in UTF-8 bytes.
    for what, argument, refused in (
            ("a request of exactly 16 MiB reaches the host", "'A'.repeat(limit - empty)", False),
            ("a request of 16 MiB and one byte is refused", "'A'.repeat(limit - empty + 1)", True),
            ("16 MiB of UTF-8 in fewer characters is refused", "'\u00e9'.repeat(limit / 2)", True)):
        answer = page_call(browser, f"""(() => {{
            const limit = 16 * 1024 * 1024;
            const empty = JSON.stringify({{ method: 'ScrivaPkcs11.1.0.0.qt.QES.GetSlots', args: [''] }}).length;
            return scrivaDemo.client.getSlots({argument});
        }})()""", page_b)
        error = answer.get("error") if isinstance(answer, dict) else None
        check((error == "RequestTooLarge") == refused and
              error not in (None, "Error", "Timeout", "NativeHostDisconnected"), what, answer)
    # A page whose renderer skips the content script's check still meets the background's.
    world = [event["params"]["context"]["id"] for event in browser.events
             if event["method"] == "Runtime.executionContextCreated" and event.get("sessionId") == page_b
             and event["params"]["context"]["auxData"].get("type") == "isolated"][-1]
    bypass = browser.evaluate("""new Promise((resolve) => {
        const port = chrome.runtime.connect({ name: 'scriva-pkcs11' });
        port.onMessage.addListener((reply) => { port.disconnect(); resolve(reply.answer.error); });
        port.postMessage({ id: 1, message: { method: 'ScrivaPkcs11.1.0.0.qt.QES.GetSlots',
                                             args: ['A'.repeat(16 * 1024 * 1024)] } });
    })""", session=page_b, context=world)
    check(bypass == "RequestTooLarge", "the background refuses a large request by itself", bypass)
    check(page_call(browser, "scrivaDemo.client.getVersion()", page_b) == "2.6.1 (qt)",
          "the host still serves the page after the large requests")


if __name__ == "__main__":
    sys.exit(main())
