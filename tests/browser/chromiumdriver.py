"""Runs Debian's Chromium headless with the Scriva extension and the host registered in a profile
of its own, and drives it over the DevTools protocol through a pipe (--remote-debugging-pipe:
commands on descriptor 3, events and results on descriptor 4, each message ended by a NUL)."""
import fcntl
import json
import os
import select
import shutil
import subprocess
import sys
import tempfile
import time

CHROMIUM = os.environ.get("SCRIVA_CHROMIUM", "/usr/lib/chromium/chromium")
HOST_NAME = "com.corvant.scriva.pkcs11"


class BrowserError(Exception):
    pass


class Chromium:
    def __init__(self, workdir, extension_dir, host_manifest, env=None, log=None):
        """workdir: a fresh folder for the profile, HOME and TMPDIR. host_manifest: the Chromium
        native-messaging manifest to register. env: extra variables for the browser and so for
        the host it starts."""
        self.log = log or (lambda text: None)
        self.profile = os.path.join(workdir, "profile")
        home = os.path.join(workdir, "home")
        tmp = os.path.join(workdir, "tmp")
        self.own_tmp = None
        # Chromium puts its singleton socket under TMPDIR; a socket path has room for 107 bytes.
        if len(tmp) + len("/.org.chromium.Chromium.XXXXXX/SingletonSocket") > 107:
            tmp = self.own_tmp = tempfile.mkdtemp(prefix="scriva-chromium-")
        hosts = os.path.join(self.profile, "NativeMessagingHosts")
        for folder in (hosts, home, tmp):
            os.makedirs(folder, exist_ok=True)
        shutil.copy(host_manifest, os.path.join(hosts, HOST_NAME + ".json"))

        full_env = dict(os.environ, HOME=home, TMPDIR=tmp, XDG_CONFIG_HOME=os.path.join(home, ".config"),
                        XDG_CACHE_HOME=os.path.join(home, ".cache"), XDG_DATA_HOME=os.path.join(home, ".local/share"))
        full_env.update(env or {})
        extension_dir = os.path.abspath(extension_dir)
        arguments = [
            CHROMIUM, "--headless=new", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
            "--no-default-browser-check", "--disable-background-networking", "--disable-component-update",
            "--disable-sync", "--password-store=basic", "--use-mock-keychain",
            "--user-data-dir=" + self.profile,
            # Only our extension: this Chromium loads it with --load-extension alone, but the
            # exception keeps every other extension out (and older headless builds needed it).
            "--disable-extensions-except=" + extension_dir, "--load-extension=" + extension_dir,
            "--remote-debugging-pipe", "about:blank",
        ]
        to_browser_r, self.to_browser = os.pipe()
        self.from_browser, from_browser_w = os.pipe()
        # High descriptors, so that moving them to 3 and 4 in the child cannot overwrite each other.
        child_in = fcntl.fcntl(to_browser_r, fcntl.F_DUPFD_CLOEXEC, 10)
        child_out = fcntl.fcntl(from_browser_w, fcntl.F_DUPFD_CLOEXEC, 10)
        os.close(to_browser_r)
        os.close(from_browser_w)

        def descriptors():
            os.dup2(child_in, 3)
            os.dup2(child_out, 4)

        self.stderr_path = os.path.join(workdir, "chromium-stderr.txt")
        with open(self.stderr_path, "wb") as stderr:
            self.process = subprocess.Popen(arguments, stdin=subprocess.DEVNULL, stdout=stderr, stderr=stderr,
                                            env=full_env, close_fds=False, preexec_fn=descriptors)
        os.close(child_in)
        os.close(child_out)
        self.buffer = b""
        self.last_id = 0
        self.events = []
        self.session = None

    # -- protocol ------------------------------------------------------------------------------

    def send(self, method, params=None, session=True, timeout=30):
        """session: True for the page opened last, False for the browser, or a page's session id."""
        self.last_id += 1
        message = {"id": self.last_id, "method": method, "params": params or {}}
        if session is True:
            session = self.session
        if session:
            message["sessionId"] = session
        os.write(self.to_browser, json.dumps(message).encode() + b"\0")
        deadline = time.monotonic() + timeout
        while True:
            reply = self._read(deadline)
            if reply.get("id") == self.last_id:
                if "error" in reply:
                    raise BrowserError(f"{method}: {reply['error']}")
                return reply.get("result", {})
            self._event(reply)

    def wait_event(self, method, timeout=30, session=None):
        def wanted(message):
            return message.get("method") == method and session in (None, message.get("sessionId"))
        for index, event in enumerate(self.events):
            if wanted(event):
                return self.events.pop(index)
        deadline = time.monotonic() + timeout
        while True:
            message = self._read(deadline)
            if wanted(message):
                return message
            self._event(message)

    def _event(self, message):
        if message.get("method") == "Runtime.consoleAPICalled":
            texts = [str(arg.get("value", arg.get("description", ""))) for arg in message["params"]["args"]]
            self.log("page console: " + " ".join(texts))
        elif message.get("method") == "Runtime.exceptionThrown":
            self.log("page exception: " + json.dumps(message["params"]["exceptionDetails"])[:500])
        elif "method" in message:
            self.events.append(message)

    def _read(self, deadline):
        while b"\0" not in self.buffer:
            remaining = deadline - time.monotonic()
            if remaining <= 0:
                raise BrowserError("Chromium did not answer in time")
            ready, _, _ = select.select([self.from_browser], [], [], remaining)
            if ready:
                chunk = os.read(self.from_browser, 1 << 20)
                if not chunk:
                    raise BrowserError("Chromium closed the DevTools pipe (see %s)" % self.stderr_path)
                self.buffer += chunk
        message, self.buffer = self.buffer.split(b"\0", 1)
        return json.loads(message)

    # -- pages ---------------------------------------------------------------------------------

    def extension_worker(self, extension_id, timeout=20):
        """Waits until the extension's background service worker runs; its URL, or an error."""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            for target in self.send("Target.getTargets", session=False)["targetInfos"]:
                if target["type"] == "service_worker" and target["url"].startswith(f"chrome-extension://{extension_id}/"):
                    return target["url"]
            time.sleep(0.2)
        raise BrowserError(f"the extension {extension_id} did not start (see {self.stderr_path})")

    def open(self, url, timeout=30):
        """Opens a page in a new tab; its session id, which later calls use unless told otherwise."""
        target = self.send("Target.createTarget", {"url": "about:blank"}, session=False)["targetId"]
        self.session = self.send("Target.attachToTarget", {"targetId": target, "flatten": True},
                                 session=False)["sessionId"]
        self.send("Page.enable")
        self.send("Runtime.enable")
        self.send("Page.navigate", {"url": url})
        self.wait_event("Page.loadEventFired", timeout, self.session)
        return self.session

    def reload(self, session, timeout=30):
        self.send("Page.reload", session=session)
        self.wait_event("Page.loadEventFired", timeout, session)

    def evaluate(self, expression, timeout=120, session=True, context=None):
        """Evaluates in the page (or in one of its script contexts), awaiting a promise; the value,
        or BrowserError with the exception."""
        params = {"expression": expression, "awaitPromise": True, "returnByValue": True,
                  "timeout": timeout * 1000}
        if context is not None:
            params["contextId"] = context
        result = self.send("Runtime.evaluate", params, session=session, timeout=timeout + 5)
        if "exceptionDetails" in result:
            details = result["exceptionDetails"]
            text = details.get("exception", {}).get("description") or details.get("text")
            raise BrowserError("page script failed: " + str(text))
        return result["result"].get("value")

    def close(self):
        if self.process.poll() is None:
            try:
                self.send("Browser.close", session=False, timeout=5)
            except (BrowserError, OSError):
                pass
            try:
                self.process.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        for fd in (self.to_browser, self.from_browser):
            try:
                os.close(fd)
            except OSError:
                pass
        if self.own_tmp:
            shutil.rmtree(self.own_tmp, ignore_errors=True)


def serve_demo(source, build, modules, log=None):
    """Starts the demo server on a free port of 127.0.0.1; (process, page URL)."""
    arguments = [sys.executable, os.path.join(source, "browser", "demo", "server.py"), "--build", build]
    for module in modules:
        arguments += ["--module", module]
    server = subprocess.Popen(arguments, stdout=subprocess.PIPE, text=True)
    line = server.stdout.readline().strip()
    if not line.startswith("Serving on "):
        server.kill()
        raise BrowserError("the demo server did not start: " + line)
    return server, line[len("Serving on "):]
