#!/usr/bin/env node
// The whole way in a real browser, Chromium or Firefox (--browser): the demo page calls the token
// program through the extension, which the browser starts from the build's native-messaging
// manifest registered in the browser's private profile or HOME. A SoftHSM token answers GetSlots
// and GetCertificates; GenerateCsr and CreateObject go through the test module, which gives the
// token a PIN pad so that no PIN has to be typed. Pages of two origins keep their hosts apart,
// and requests over 16 MiB never leave the extension.
import { execFileSync, spawnSync } from "node:child_process";
import fs from "node:fs";
import path from "node:path";
import { parseArgs } from "node:util";

const { values: args } = parseArgs({ options: { browser: { type: "string" }, source: { type: "string" },
                                                build: { type: "string" }, work: { type: "string" } } });
for (const key of ["source", "build", "work"])
  args[key] = path.resolve(args[key]);
let drivers;
try {
  drivers = await import("./browsers.mjs");
} catch (error) {
  console.log(`SKIP: puppeteer-core is not installed (npm ci in tests/browser): ${error.message}`);
  process.exit(77);
}
const { BrowserSession, EXECUTABLES, EXTENSION_IDS, SYSTEM_MANIFESTS, serveDemo } = drivers;

const SOFTHSM = "/usr/lib/softhsm/libsofthsm2.so";
const LABEL = "Scriva token", USER_PIN = "1234";
const SAMPLE_NONCE = "0f8fad5b-d9cb-469f-a165-70867728950e";
const VERSION = "2.6.1 (qt)";
const failures = [];

function check(condition, what, detail = "") {
  console.log((condition ? "ok   " : "FAIL ") + what + (condition ? "" : `  (${JSON.stringify(detail)?.slice(0, 600)})`));
  if (!condition)
    failures.push(what);
}

const run = (program, list, env = process.env) => execFileSync(program, list, { env, stdio: ["ignore", "pipe", "pipe"] });
const pemBody = (pem) => pem.trim().split("\n").filter((line) => !line.startsWith("-----")).join("");

// A SoftHSM store holding one token with one certificate; its environment and the certificate.
function makeToken(work, build) {
  const tokens = path.join(work, "tokens");
  fs.mkdirSync(tokens);
  const config = path.join(work, "softhsm2.conf");
  fs.writeFileSync(config, `directories.tokendir = ${tokens}\nobjectstore.backend = file\nlog.level = ERROR\n`);
  const env = { ...process.env, SOFTHSM2_CONF: config };
  run("softhsm2-util", ["--init-token", "--free", "--label", LABEL, "--so-pin", "5678", "--pin", USER_PIN], env);
  const certificate = path.join(build, "devpki", "chain1-root.pem");
  const der = path.join(work, "stored.der");
  run("openssl", ["x509", "-in", certificate, "-outform", "DER", "-out", der]);
  run("pkcs11-tool", ["--module", SOFTHSM, "--token-label", LABEL, "--login", "--pin", USER_PIN, "--write-object", der,
                      "--type", "cert", "--id", "01", "--label", "stored"], env);
  return { softhsmConf: config, stored: fs.readFileSync(certificate, "utf8") };
}

// Runs an async expression in the page; its value, or { error, message } of a rejection.
function pageCall(page, expression) {
  return page.evaluate(`(${expression}).catch((e) => ({ error: e.code || 'Error', message: String(e.message) }))`);
}

// The host processes of this build that the browser started for this test's token.
class Hosts {
  constructor(build, softhsmConf) {
    this.program = fs.realpathSync(path.join(build, "bin", "ScrivaPkcs11"));
    this.marker = `\0SOFTHSM2_CONF=${softhsmConf}\0`;
  }

  running() {
    const found = new Set();
    for (const pid of fs.readdirSync("/proc").filter((name) => /^\d+$/.test(name))) {
      try {
        if (fs.readlinkSync(`/proc/${pid}/exe`) === this.program &&
            ("\0" + fs.readFileSync(`/proc/${pid}/environ`, "latin1")).includes(this.marker))
          found.add(Number(pid));
      } catch {
        // gone meanwhile
      }
    }
    return found;
  }

  // Whether the process ends (or is left a zombie for its parent) within the timeout.
  static async ends(pid, timeout = 20000) {
    const deadline = Date.now() + timeout;
    for (;;) {
      let state;
      try {
        state = fs.readFileSync(`/proc/${pid}/stat`, "latin1").replace(/^.*\) /s, "")[0];
      } catch {
        return true;
      }
      if (state === "Z")
        return true;
      if (Date.now() > deadline)
        return false;
      await new Promise((resolve) => setTimeout(resolve, 50));
    }
  }
}

async function exercise(session, url, stored) {
  check(session.extensionId === EXTENSION_IDS[session.name], "the extension runs under its id", session.extensionId);
  const page = await session.open(url);
  await page.evaluate("scrivaDemo.ready");

  const connected = await pageCall(page, "scrivaDemo.connect()");
  check(connected.host === VERSION && connected.extension === "2.6.1", "the page reaches the extension and the host",
        connected);

  const slots = await pageCall(page, "scrivaDemo.listSlots(0)");
  const tokens = (slots.slots ?? []).filter((slot) => slot.label === LABEL);
  check(tokens.length === 1 && tokens[0].serial.length === 16, "GetSlots lists the SoftHSM token", slots);
  check((slots.xml ?? "").includes('xmlns="http://www.corvant.com/Scriva/Pkcs11Operation/2026/02/04"'),
        "GetSlots answers with the answer document", slots.xml?.slice(0, 200));

  const certificates = await pageCall(page, "scrivaDemo.readCertificates(0)");
  const bodies = (certificates.certificates ?? []).map(pemBody);
  check(bodies.length === 1 && bodies[0] === pemBody(stored), "GetCertificates returns the stored certificate",
        certificates);

  const csr = await pageCall(page, "scrivaDemo.generateCsr('Scriva Browser Test', 1)");
  const verified = spawnSync("openssl", ["req", "-verify", "-noout", "-subject"], { input: csr.csr ?? "" });
  check(verified.status === 0 && verified.stdout.includes("Scriva Browser Test"),
        "GenerateCsr through the PIN pad returns a valid request for the subject", csr);

  const storedNow = await pageCall(page, "scrivaDemo.storeCertificate(1).then(() => scrivaDemo.readCertificates(0))");
  check(storedNow.certificates?.length === 2, "CreateObject stores the issued certificate", storedNow);

  // The host answers a token operation under the id of its latest request: the extension must
  // hold quick calls back until the operation is answered.
  const overlapping = await pageCall(page, `(async () => {
      const client = scrivaDemo.client;
      const nonce = await client.getNonce();
      const signed = await (await fetch('/api/request', { method: 'POST', body: JSON.stringify(
          { operation: 'GetCertificates', nonce, token: scrivaDemo.state.token }) })).json();
      return Promise.all([client.getCertificates(signed.argument), client.getVersion(), client.getNonce()]);
  })()`);
  check(Array.isArray(overlapping) && overlapping[0].includes("<Certificate>") && overlapping[1] === VERSION &&
        overlapping[2].length >= 16, "overlapping calls each get their own answer", overlapping);

  const replay = await pageCall(page, `fetch('/api/request', { method: 'POST', body: JSON.stringify(
      { operation: 'GetSlots', nonce: '${SAMPLE_NONCE}' }) }).then((r) => r.json())
      .then((r) => scrivaDemo.client.getSlots(r.argument))`);
  check(replay.error === "CommunicationMismatchNonce", "the host's error word reaches the page", replay);

  const ended = await pageCall(page, "scrivaDemo.client.terminate().then(() => scrivaDemo.client.getNonce())");
  check(ended.error === "ScrivaInstanceDoesNotExist", "after Terminate the page must create an instance again", ended);
  const again = await pageCall(page, "scrivaDemo.client.createInstance().then(() => scrivaDemo.client.getVersion())");
  check(again === VERSION, "a new instance starts a new host", again);

  // Without its manifest the browser cannot start the host.
  await pageCall(page, "scrivaDemo.client.terminate()");
  session.unregisterHost();
  const missing = await pageCall(page, "scrivaDemo.client.createInstance()");
  session.registerHost(session.original.path);
  check(missing.error === "NativeHostNotAvailable", "a missing host is reported as such", missing);
  return page;
}

const SIGN_SLOTS = `scrivaDemo.client.getNonce().then((nonce) => fetch('/api/request', { method: 'POST',
    body: JSON.stringify({ operation: 'GetSlots', nonce }) })).then((r) => r.json())
    .then((r) => { window.signedSlots = r.argument; return true; })`;

// Pages of two origins, each with a host of its own: what page A does to its host leaves page B's
// nonce and instance alone, and a page that goes away takes its host with it.
async function exercisePages(session, pageB, url, hosts) {
  const pageA = await session.open(url.replace("//127.0.0.1:", "//localhost:"));
  await pageA.evaluate("scrivaDemo.ready");

  async function createInstance(page) {
    const before = hosts.running();
    const created = await pageCall(page, "scrivaDemo.client.createInstance()");
    check(created === null, `CreateInstance on page ${page === pageA ? "A" : "B"}`, created);
    return [...hosts.running()].filter((pid) => !before.has(pid));
  }

  await createInstance(pageB);
  let started = await createInstance(pageA);
  check(started.length === 1, "page A gets a host of its own", started);
  for (const [name, call] of [["GetNonce", "scrivaDemo.client.getNonce()"], ["Terminate", "scrivaDemo.client.terminate()"]]) {
    await pageCall(pageB, SIGN_SLOTS);
    const done = await pageCall(pageA, call);
    check(done?.error === undefined, `page A's ${name}`, done);
    const slots = await pageCall(pageB, "scrivaDemo.client.getSlots(window.signedSlots)");
    check(typeof slots === "string" && slots.includes(LABEL), `page B's signed GetSlots survives page A's ${name}`, slots);
  }
  check(started.length === 1 && await Hosts.ends(started[0]), "page A's host ends with its Terminate", started);

  for (const how of ["reloaded", "closed"]) {
    started = await createInstance(pageA);
    await (how === "reloaded" ? pageA.reload({ waitUntil: "load" }) : pageA.close());
    check(started.length === 1 && await Hosts.ends(started[0]), `page A's host ends when the page is ${how}`, started);
  }
  check(await pageCall(pageB, "scrivaDemo.client.getVersion()") === VERSION,
        "page B keeps its host through all of page A's doings");

  // The size of a request is that of its method and arguments as JSON, in UTF-8 bytes.
  for (const [what, argument, refused] of [
    ["a request of exactly 16 MiB reaches the host", "'A'.repeat(limit - empty)", false],
    ["a request of 16 MiB and one byte is refused", "'A'.repeat(limit - empty + 1)", true],
    ["16 MiB of UTF-8 in fewer characters is refused", "'\\u00e9'.repeat(limit / 2)", true]]) {
    const answer = await pageCall(pageB, `(() => {
        const limit = 16 * 1024 * 1024;
        const empty = JSON.stringify({ method: 'ScrivaPkcs11.1.0.0.qt.QES.GetSlots', args: [''] }).length;
        return scrivaDemo.client.getSlots(${argument});
    })()`);
    const error = answer?.error;
    check((error === "RequestTooLarge") === refused && !["Error", "Timeout", "NativeHostDisconnected"].includes(error) &&
          error !== undefined, what, answer);
  }
  // Firefox's WebDriver BiDi does not reach a content script's world; the check is the same script.
  if (session.name === "chromium")
    await bypassContentScript(pageB);
  check(await pageCall(pageB, "scrivaDemo.client.getVersion()") === VERSION,
        "the host still serves the page after the large requests");
}

// A page whose renderer skips the content script's check still meets the background's: the
// request is sent from the content script's own world, reached through the DevTools protocol.
async function bypassContentScript(page) {
  const devtools = await page.createCDPSession();
  const worlds = [];
  devtools.on("Runtime.executionContextCreated", ({ context }) => {
    if (context.auxData?.type === "isolated" && context.origin.startsWith("chrome-extension://"))
      worlds.push(context.id);
  });
  await devtools.send("Runtime.enable");
  const { result } = await devtools.send("Runtime.evaluate", { contextId: worlds.at(-1), awaitPromise: true,
    returnByValue: true, expression: `new Promise((resolve) => {
      const port = chrome.runtime.connect({ name: 'scriva-pkcs11' });
      port.onMessage.addListener((reply) => { port.disconnect(); resolve(reply.answer.error); });
      port.postMessage({ id: 1, message: { method: 'ScrivaPkcs11.1.0.0.qt.QES.GetSlots',
                                           args: ['A'.repeat(16 * 1024 * 1024)] } });
    })` });
  check(result.value === "RequestTooLarge", "the background refuses a large request by itself", result);
  await devtools.detach();
}

async function main() {
  const name = args.browser;
  if (!fs.existsSync(EXECUTABLES[name])) {
    console.log(`SKIP: ${name} is not installed (${EXECUTABLES[name]})`);
    return 77;
  }
  if (fs.existsSync(SYSTEM_MANIFESTS[name])) {
    console.log(`SKIP: ${SYSTEM_MANIFESTS[name]} (an installed package) would answer instead of the build's host`);
    return 77;
  }
  fs.rmSync(args.work, { recursive: true, force: true });
  fs.mkdirSync(args.work, { recursive: true });
  const { softhsmConf, stored } = makeToken(args.work, args.build);
  const pinPad = path.join(args.work, "pinpad.conf");
  fs.writeFileSync(pinPad, `pin_pad_pin=${USER_PIN}\n`);
  const home = path.join(args.work, "home");
  const hostLog = path.join(home, ".local", "share", "Corvant", "Scriva", "Logs", "ScrivaPkcs11Log.txt");
  fs.mkdirSync(path.dirname(hostLog), { recursive: true });
  fs.writeFileSync(hostLog, ""); // the host logs only into a file that exists

  const testModule = path.join(args.build, "tests", "p11module", "scriva-test-p11.so");
  const { server, url } = await serveDemo(args.source, args.build, [SOFTHSM, testModule]);
  const started = Date.now();
  let session;
  try {
    // The browser hands its environment to the host it starts.
    session = await BrowserSession.start(name, {
      work: args.work, extension: path.join(args.source, "browser", "extension"),
      manifests: path.join(args.build, "share", "scriva", "native-messaging-hosts"), log: console.log,
      env: { SOFTHSM2_CONF: softhsmConf, SCRIVA_TEST_P11_CONFIG: pinPad, QT_QPA_PLATFORM: "offscreen" },
    });
    const page = await exercise(session, url, stored);
    await exercisePages(session, page, url, new Hosts(args.build, softhsmConf));
  } catch (error) {
    check(false, "the browser session ran to its end", error.stack ?? String(error));
  } finally {
    await session?.close();
    server.kill();
  }
  console.log(`${name}: ${((Date.now() - started) / 1000).toFixed(1)} s in the browser`);
  if (failures.length > 0)
    console.log("--- last lines of the host log\n" + fs.readFileSync(hostLog, "utf8").split("\n").slice(-40).join("\n"));
  console.log(failures.length > 0 ? `${failures.length} failed` : "all checks passed");
  return failures.length > 0 ? 1 : 0;
}

process.exitCode = await main();
