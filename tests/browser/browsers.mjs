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
export const EXECUTABLES = { chromium: process.env.SCRIVA_CHROMIUM || "/usr/bin/chromium",
                             firefox: process.env.SCRIVA_FIREFOX || "/usr/bin/firefox-esr" };
// Where the browsers find hosts registered for every user: a manifest there (the package's) would
// be found instead of, or beside, the one a session registers.
export const SYSTEM_MANIFESTS = { chromium: `/etc/chromium/native-messaging-hosts/${HOST_NAME}.json`,
                                  firefox: `/usr/lib/mozilla/native-messaging-hosts/${HOST_NAME}.json` };

// No name is looked up beyond the loopback: Chromium maps every other name away, Firefox's resolver
// answers localhost for every name and its test switch refuses non-local connections. Puppeteer's
// own defaults keep the rest of the background services quiet.
const LAUNCH = {
  chromium: { browser: "chrome", enableExtensions: true, pipe: true, args: ["--no-sandbox", "--disable-gpu",
    "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE localhost, EXCLUDE 127.0.0.1"] },
  firefox: { browser: "firefox", env: { MOZ_DISABLE_NONLOCAL_CONNECTIONS: "1" }, extraPrefsFirefox: {
    "network.dns.native-is-localhost": true, "network.captive-portal-service.enabled": false,
    "network.connectivity-service.enabled": false, "services.settings.server": "data:,#remote-settings-dummy/v1",
    "privacy.reduceTimerPrecision": false } }, // the benchmark times calls of well under a millisecond
};

export class BrowserSession {
  // name: "chromium" or "firefox". work: a fresh folder for profile and HOME. manifests: the
  // build's native-messaging-hosts folder. env: extra variables for the browser, and so for the
  // host it starts. log: called with the pages' console lines.
  static async start(name, { work, extension, manifests, env = {}, log = () => {} }) {
    const session = Object.assign(new BrowserSession(), { name, log });
    const profile = path.join(work, "profile"), home = path.join(work, "home");
    // Chromium's singleton socket lives in TMPDIR, and a socket path has room for 107 bytes only.
    session.tmp = fs.mkdtempSync(path.join(os.tmpdir(), `scriva-${name}-`));
    const folder = name === "chromium" ? path.join(profile, "NativeMessagingHosts")
                                       : path.join(home, ".mozilla", "native-messaging-hosts");
    for (const made of [profile, home, folder])
      fs.mkdirSync(made, { recursive: true });
    session.manifest = path.join(folder, HOST_NAME + ".json");
    session.original = JSON.parse(fs.readFileSync(path.join(manifests, name, HOST_NAME + ".json"), "utf8"));
    session.registerHost(session.original.path);
    session.browser = await puppeteer.launch({ ...LAUNCH[name], executablePath: EXECUTABLES[name], headless: true,
      userDataDir: profile, env: { ...process.env, HOME: home, TMPDIR: session.tmp,
        XDG_CONFIG_HOME: path.join(home, ".config"), XDG_CACHE_HOME: path.join(home, ".cache"),
        XDG_DATA_HOME: path.join(home, ".local", "share"), ...LAUNCH[name].env, ...env } });
    await session.browser.installExtension(path.resolve(extension)).catch(async (error) => {
      await session.close();
      throw error;
    });
    return session;
  }

  // Registers `program` under the host's name.
  registerHost(program) {
    fs.writeFileSync(this.manifest, JSON.stringify({ ...this.original, path: program }));
  }

  async open(url) {
    const page = await this.browser.newPage();
    page.on("console", (message) => this.log(`page console: ${message.text()}`));
    page.on("pageerror", (error) => this.log(`page error: ${error.message}`));
    await page.goto(url, { waitUntil: "load" });
    await page.evaluate("scrivaDemo.ready"); // the demo page has found the extension, or given up
    return page;
  }

  async close() {
    await Promise.resolve(this.browser?.close()).finally(() => fs.rmSync(this.tmp, { recursive: true, force: true }));
  }
}

// Starts the demo server on a free port of 127.0.0.1; { server, url }. quiet: drop its request log.
// Debian's Python: the server library reads answers with its python3-lxml, which another python3
// first on the PATH may lack.
export async function serveDemo(source, build, modules, { quiet = false } = {}) {
  const server = spawn("/usr/bin/python3", [path.join(source, "browser", "demo", "server.py"), "--build", build,
                                   ...modules.flatMap((module) => ["--module", module])],
                       { stdio: ["ignore", "pipe", quiet ? "ignore" : "inherit"] });
  const line = await new Promise((resolve) => {
    readline.createInterface({ input: server.stdout }).once("line", resolve);
    server.once("exit", () => resolve(""));
  });
  if (!line.startsWith("Serving on ")) {
    server.kill();
    throw new Error("the demo server did not start: " + line);
  }
  return { server, url: line.slice("Serving on ".length) };
}
