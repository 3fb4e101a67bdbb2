#!/usr/bin/env node
// A portal's end-to-end test, as it runs in CI: the portal's page and server (here those of the
// walk-through), the Scriva extension, the host, a SoftHSM token made for the run, and the test
// token module, which answers the host's login with the run's PIN so that no one has to type it.
// Headless Chromium or Firefox, driven with puppeteer-core; nothing leaves the loopback, and
// everything the run starts is stopped again.
//   npm ci && node portal-e2e.mjs --repo ~/scriva-pkcs11 [--build ~/scriva-pkcs11/build] [--firefox]
import { execFileSync, spawn } from "node:child_process";
import { X509Certificate } from "node:crypto";
import fs from "node:fs";
import os from "node:os";
import path from "node:path";
import readline from "node:readline";
import { parseArgs } from "node:util";
import puppeteer from "puppeteer-core";

const { values: args } = parseArgs({ options: { repo: { type: "string" }, build: { type: "string" },
                                                firefox: { type: "boolean" } } });
const repo = path.resolve(args.repo), build = path.resolve(args.build ?? path.join(repo, "build"));
const HOST = "com.corvant.scriva.pkcs11", LABEL = "Portal CI token", PIN = "1234";
const SOFTHSM = "/usr/lib/softhsm/libsofthsm2.so";
const TEST_TOKEN = path.join(build, "tools", "scriva-test-token", "scriva-test-token.so");

// Waits until the page's log shows `line`; a failure the page logs ends the wait at once.
async function pageLogs(page, line) {
  const log = await page.waitForFunction((line) => {
    const text = document.getElementById("log").textContent;
    return (text.includes(line) || /^(failed|no host)/m.test(text)) && text;
  }, { timeout: 60000 }, line).then((handle) => handle.jsonValue());
  if (!log.includes(line))
    throw new Error(`expected "${line}", the page logged:\n${log}`);
  return log;
}

// 1. The run's own folder: the token, the browser's profile and HOME.
const work = fs.mkdtempSync(path.join(os.tmpdir(), "portal-e2e-"));
const profile = path.join(work, "profile"), home = path.join(work, "home");
// The browser hands its environment to the host, and the host to the test token. No display:
// the host's windows go offscreen.
const env = { ...process.env, HOME: home, SOFTHSM2_CONF: path.join(work, "softhsm2.conf"),
              SCRIVA_TEST_TOKEN_PIN: PIN, SCRIVA_TEST_TOKEN_MODULE: SOFTHSM, QT_QPA_PLATFORM: "offscreen" };

let server, browser;
try {
  // 2. A SoftHSM token for the run.
  fs.mkdirSync(path.join(work, "tokens"));
  fs.writeFileSync(env.SOFTHSM2_CONF, `directories.tokendir = ${path.join(work, "tokens")}\n`);
  const tool = (program, list) => execFileSync(program, list, { env, encoding: "latin1" });
  tool("softhsm2-util", ["--init-token", "--free", "--label", LABEL, "--so-pin", "5678", "--pin", PIN]);

  // 3. The host, registered for this run only: Chromium reads <profile>/NativeMessagingHosts,
  // Firefox $HOME/.mozilla/native-messaging-hosts.
  const manifests = args.firefox ? path.join(home, ".mozilla", "native-messaging-hosts")
                                 : path.join(profile, "NativeMessagingHosts");
  fs.mkdirSync(manifests, { recursive: true });
  fs.copyFileSync(path.join(build, "share", "scriva", "native-messaging-hosts", args.firefox ? "firefox" : "chromium",
                            HOST + ".json"), path.join(manifests, HOST + ".json"));

  // 4. The portal's server on a free port of 127.0.0.1; its requests name the test token's module.
  // PYTHON names an interpreter that has the server library's packages, when python3 is another one.
  server = spawn(process.env.PYTHON || "python3", [path.join(repo, "docs", "examples", "walkthrough", "server.py"), "--repo", repo,
                             "--build", build, "--module", TEST_TOKEN, "--port", "0"],
                 { stdio: ["ignore", "pipe", "inherit"] });
  const url = await new Promise((resolve) => {
    readline.createInterface({ input: server.stdout }).once("line", (line) => resolve(line.split(" ").at(-1)));
    server.once("exit", () => resolve(null));
  });
  if (!url)
    throw new Error("the portal's server did not start");

  // 5. The browser with the extension, reaching nothing beyond the loopback.
  browser = await puppeteer.launch({ headless: true, userDataDir: profile, ...(args.firefox ? {
    browser: "firefox", executablePath: process.env.FIREFOX ?? "/usr/bin/firefox-esr",
    env: { ...env, MOZ_DISABLE_NONLOCAL_CONNECTIONS: "1" }, extraPrefsFirefox: {
      "network.dns.native-is-localhost": true, "network.captive-portal-service.enabled": false,
      "network.connectivity-service.enabled": false, "services.settings.server": "data:,#remote-settings-dummy/v1" },
  } : {
    executablePath: process.env.CHROMIUM ?? "/usr/bin/chromium", pipe: true, enableExtensions: true, env,
    args: ["--no-sandbox", "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE localhost, EXCLUDE 127.0.0.1"],
  }) });
  await browser.installExtension(path.join(repo, "browser", "extension"));

  // 6. What a user does on the portal: list the slots, enrol a key, store its certificate. The
  // server checks each answer against its request and issues the certificate.
  const page = await browser.newPage();
  await page.goto(url);
  await pageLogs(page, "connected to the host");
  await page.click("#list");
  await pageLogs(page, `token chosen: ${LABEL}`);
  await page.click("#enrol");
  const log = await pageLogs(page, "certificate stored on the token");

  // 7. The token holds the new key and, under the key's id, the certificate issued for the name
  // in the page's form.
  const keyId = log.match(/key ([0-9a-f]+) made on the token/)[1];
  const onToken = (...list) => tool("pkcs11-tool", ["--module", SOFTHSM, "--token-label", LABEL, "--login",
                                                    "--pin", PIN, "--id", keyId, ...list]);
  const certificate = new X509Certificate(Buffer.from(onToken("--read-object", "--type", "cert"), "latin1"));
  if (certificate.subject !== "CN=Jan Novák" || !onToken("--list-objects", "--type", "privkey").includes(keyId))
    throw new Error(`not on the token as enrolled: key ${keyId}, certificate for ${certificate.subject}`);
  console.log(`${log}passed: key ${keyId} and its certificate are on the token`);
} catch (error) {
  console.error(error);
  process.exitCode = 1;
} finally {
  // The host processes end with the browser, which closes their pipes.
  await browser?.close();
  server?.kill();
  fs.rmSync(work, { recursive: true, force: true });
}
