// Starts Debian's Chromium (DevTools protocol) or Firefox ESR (WebDriver BiDi) headless through
// puppeteer-core, with the Scriva extension installed and the host registered in a profile and a
// HOME of the browser's own: nothing is read from or written to the real user's or the system's
// browser folders. Shared by the browser tests and the browser benchmark.
import { spawn } from "node:child_process";
import fs from "node:fs";
import os from "node:os";
import path from "node:path";
import readline from "node:readline";
import puppeteer from "puppeteer-core";

export const HOST_NAME = "com.corvant.scriva.pkcs11";
export const BROWSERS = ["chromium", "firefox"];
export const EXTENSION_IDS = { chromium: "miihkjngkbcjkmefbgeecganmceikcjc", firefox: "scriva-pkcs11@corvant.com" };
export const EXECUTABLES = {
  chromium: process.env.SCRIVA_CHROMIUM || "/usr/bin/chromium",
  firefox: process.env.SCRIVA_FIREFOX || "/usr/bin/firefox-esr",
};

// Where the browsers find hosts registered for every user: a manifest there (the package's) would
// be found instead of, or beside, the one a session registers.
export const SYSTEM_MANIFESTS = {
  chromium: `/etc/chromium/native-messaging-hosts/${HOST_NAME}.json`,
  firefox: `/usr/lib/mozilla/native-messaging-hosts/${HOST_NAME}.json`,
};

// No background traffic: the machines that run the tests reach no network but the loopback.
const CHROMIUM_ARGS = [
  "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--no-default-browser-check",
  "--disable-background-networking", "--disable-component-update", "--disable-sync", "--disable-domain-reliability",
  "--disable-features=AutofillServerCommunication,OptimizationHintsFetching,MediaRouter",
  // What the flags above leave (sign-in, update checks) finds no name but the loopback's.
  "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE localhost, EXCLUDE 127.0.0.1",
];
const FIREFOX_PREFS = {
  "app.update.auto": false,
  "app.update.enabled": false,
  "browser.discovery.enabled": false,
  "browser.newtabpage.activity-stream.feeds.telemetry": false,
  "browser.ping-centre.telemetry": false,
  "browser.safebrowsing.provider.google4.updateURL": "",
  "browser.safebrowsing.provider.mozilla.updateURL": "",
  "datareporting.healthreport.uploadEnabled": false,
  "datareporting.policy.dataSubmissionEnabled": false,
  "extensions.blocklist.enabled": false,
  "extensions.getAddons.cache.enabled": false,
  "extensions.systemAddon.update.enabled": false,
  "network.captive-portal-service.enabled": false,
  "network.connectivity-service.enabled": false,
  "network.dns.disablePrefetch": true,
  "network.prefetch-next": false,
  // The benchmark times single calls of well under a millisecond.
  "privacy.reduceTimerPrecision": false,
  "toolkit.telemetry.enabled": false,
  "toolkit.telemetry.server": "",
  "toolkit.telemetry.unified": false,
  // Remote settings stay off only with this server and the variable below.
  "services.settings.server": "data:,#remote-settings-dummy/v1",
};
// Firefox's own switch for test runs: it refuses every connection beyond the loopback.
const FIREFOX_ENV = { MOZ_DISABLE_NONLOCAL_CONNECTIONS: "1" };

// Where each browser looks for a user's host manifests, below its profile or HOME.
function manifestFolder(name, profile, home) {
  return name === "chromium" ? path.join(profile, "NativeMessagingHosts")
                             : path.join(home, ".mozilla", "native-messaging-hosts");
}

export class BrowserSession {
  // name: "chromium" or "firefox". work: a fresh folder for profile and HOME. manifests: the
  // build's native-messaging-hosts folder. env: extra variables for the browser, and so for the
  // host it starts. log: called with the pages' console lines.
  static async start(name, { work, extension, manifests, env = {}, log = () => {} }) {
    const session = new BrowserSession();
    session.name = name;
    const profile = path.join(work, "profile");
    const home = path.join(work, "home");
    // Chromium's singleton socket lives in TMPDIR, and a socket path has room for 107 bytes only.
    session.tmp = fs.mkdtempSync(path.join(os.tmpdir(), "scriva-" + name + "-"));
    const folder = manifestFolder(name, profile, home);
    for (const made of [profile, home, folder])
      fs.mkdirSync(made, { recursive: true });
    session.manifest = path.join(folder, HOST_NAME + ".json");
    session.original = JSON.parse(fs.readFileSync(path.join(manifests, name, HOST_NAME + ".json"), "utf8"));
    session.registerHost(session.original.path);

    const options = {
      executablePath: EXECUTABLES[name], headless: true, userDataDir: profile, pipe: name === "chromium",
      env: {
        ...process.env, HOME: home, TMPDIR: session.tmp, XDG_CONFIG_HOME: path.join(home, ".config"),
        XDG_CACHE_HOME: path.join(home, ".cache"), XDG_DATA_HOME: path.join(home, ".local", "share"),
        ...(name === "firefox" ? FIREFOX_ENV : {}), ...env,
      },
      protocolTimeout: 180000,
    };
    if (name === "chromium")
      Object.assign(options, { browser: "chrome", enableExtensions: true, args: CHROMIUM_ARGS });
    else
      Object.assign(options, { browser: "firefox", extraPrefsFirefox: FIREFOX_PREFS });
    session.browser = await puppeteer.launch(options);
    session.log = log;
    try {
      session.extensionId = await session.browser.installExtension(path.resolve(extension));
    } catch (error) {
      await session.close();
      throw error;
    }
    return session;
  }

  // Registers `program` under the host's name, as the build's manifest does for the real host.
  registerHost(program) {
    fs.writeFileSync(this.manifest, JSON.stringify({ ...this.original, path: program }, null, 2));
  }

  unregisterHost() {
    fs.rmSync(this.manifest, { force: true });
  }

  // Opens `url` in a new tab once the page has loaded; the puppeteer page.
  async open(url) {
    const page = await this.browser.newPage();
    page.on("console", (message) => this.log(`page console: ${message.text()}`));
    page.on("pageerror", (error) => this.log(`page error: ${error.message}`));
    await page.goto(url, { waitUntil: "load" });
    return page;
  }

  async close() {
    try {
      await this.browser?.close();
    } finally {
      fs.rmSync(this.tmp, { recursive: true, force: true });
    }
  }
}

// Starts the demo server on a free port of 127.0.0.1; { server, url }. quiet: drop its request log.
export async function serveDemo(source, build, modules, { quiet = false } = {}) {
  const args = [path.join(source, "browser", "demo", "server.py"), "--build", build];
  for (const module of modules)
    args.push("--module", module);
  const server = spawn("python3", args, { stdio: ["ignore", "pipe", quiet ? "ignore" : "inherit"] });
  const lines = readline.createInterface({ input: server.stdout });
  const [line] = await Promise.race([
    new Promise((resolve) => lines.once("line", (text) => resolve([text]))),
    new Promise((resolve) => server.once("exit", () => resolve([""]))),
  ]);
  if (!line.startsWith("Serving on ")) {
    server.kill();
    throw new Error("the demo server did not start: " + line);
  }
  return { server, url: line.slice("Serving on ".length) };
}
