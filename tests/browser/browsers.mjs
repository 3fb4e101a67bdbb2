// Headless Chromium or Firefox ESR through puppeteer-core, with the extension installed and the host registered
// in a profile and HOME of their own, never the user's or the system's. Shared by the browser tests and benchmark.
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
// Hosts registered for every user (the package's), which would answer instead of a session's.
export const SYSTEM_MANIFESTS = { chromium: `/etc/chromium/native-messaging-hosts/${HOST_NAME}.json`,
                                  firefox: `/usr/lib/mozilla/native-messaging-hosts/${HOST_NAME}.json` };

// No name is looked up beyond the loopback; puppeteer's defaults keep the other background services quiet.
const LAUNCH = {
  chromium: { browser: "chrome", enableExtensions: true, pipe: true, args: ["--no-sandbox", "--disable-gpu",
    "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE localhost, EXCLUDE 127.0.0.1"] },
  firefox: { browser: "firefox", env: { MOZ_DISABLE_NONLOCAL_CONNECTIONS: "1" }, extraPrefsFirefox: {
    "network.dns.native-is-localhost": true, "network.captive-portal-service.enabled": false,
    "network.connectivity-service.enabled": false, "services.settings.server": "data:,#remote-settings-dummy/v1",
    "privacy.reduceTimerPrecision": false } }, // the benchmark times calls of well under a millisecond
};

export class BrowserSession {
  // work: a fresh folder for profile and HOME; manifests: the build's native-messaging-hosts folder;
  // env: for the browser and so for the host it starts; log: gets the pages' console lines.
  static async start(name, { work, extension, manifests, env = {}, log = () => {} }) {
    const session = Object.assign(new BrowserSession(), { name, log });
    const profile = path.join(work, "profile"), home = path.join(work, "home");
    // Chromium's singleton socket lives in TMPDIR, and a socket path has room for 107 bytes only.
    session.tmp = fs.mkdtempSync(path.join(os.tmpdir(), `scriva-${name}-`));
    const folder = name === "chromium" ? path.join(profile, "NativeMessagingHosts")
                                       : path.join(home, ".mozilla", "native-messaging-hosts");
    [profile, home, folder].forEach((made) => fs.mkdirSync(made, { recursive: true }));
    session.manifest = path.join(folder, HOST_NAME + ".json");
    session.original = JSON.parse(fs.readFileSync(path.join(manifests, name, HOST_NAME + ".json"), "utf8"));
    session.registerHost(session.original.path);
    session.browser = await puppeteer.launch({ ...LAUNCH[name], executablePath: EXECUTABLES[name], headless: true,
      userDataDir: profile, env: { ...process.env, HOME: home, TMPDIR: session.tmp,
        XDG_CONFIG_HOME: path.join(home, ".config"), XDG_CACHE_HOME: path.join(home, ".cache"),
        XDG_DATA_HOME: path.join(home, ".local", "share"), ...LAUNCH[name].env, ...env } });
    await session.browser.installExtension(path.resolve(extension))
      .catch((error) => session.close().then(() => { throw error; }));
    return session;
  }

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

// The demo server on a free port of 127.0.0.1: { server, url }. Debian's Python, whose python3-lxml the
// server library reads answers with. quiet: without its request log.
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
