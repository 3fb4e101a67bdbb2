#!/usr/bin/env node
// What only a real browser (chromium or firefox; then the source, build and work folders) shows beyond the portal
// recipe's enrolment: the demo page's error categories and the retries they allow, pages of two origins kept apart,
// requests over 16 MiB stopped in the extension; what the pages see is one record, tests/data/browser/e2e-record.json.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import fs from "node:fs";
import path from "node:path";

const [name, ...folders] = process.argv.slice(2), [source, build, scratch] = folders.map((folder) => path.resolve(folder));
const drivers = await import("./browsers.mjs").catch((error) => ({ error }));
const { BrowserSession, EXECUTABLES = {}, SYSTEM_MANIFESTS = {}, serveDemo } = drivers;
if (drivers.error || !fs.existsSync(EXECUTABLES[name]) || fs.existsSync(SYSTEM_MANIFESTS[name])) {
  console.log("SKIP: " + (drivers.error ? `puppeteer-core is not installed (npm ci in tests/browser): ${drivers.error.message}`
                                        : `${name} is not installed, or ${SYSTEM_MANIFESTS[name]} would answer`));
  process.exit(77);
}

const LABEL = "Scriva token", VERSION = "2.6.1 (qt)";
const work = (file) => path.join(scratch, file);
fs.rmSync(scratch, { recursive: true, force: true });
fs.mkdirSync(work("tokens"), { recursive: true });
// The test token logs in with a PIN the token refuses: a login the user cancelled.
fs.writeFileSync(work("softhsm2.conf"),
                 `directories.tokendir = ${work("tokens")}\nobjectstore.backend = file\nlog.level = ERROR\n`);
const env = { SOFTHSM2_CONF: work("softhsm2.conf"), SCRIVA_TEST_TOKEN_PIN: "0000", QT_QPA_PLATFORM: "offscreen" };
const tool = (program, list) => execFileSync(program, list, { env: { ...process.env, ...env }, stdio: "pipe" });
tool("softhsm2-util", ["--init-token", "--free", "--label", LABEL, "--so-pin", "5678", "--pin", "1234"]);
// Runs an async expression in the page, with the page's `client`; its value, or a rejection's category and word.
const call = (page, expression) => page.evaluate(`(async (client) => ${expression})(scrivaDemo.client)
    .catch((e) => e.code ? e.category + ' ' + e.code : String(e))`);
// A request signed by the demo server for the page; with a nonce the host never gave out, if given.
const signed = (operation, nonce = "client.getNonce()") => `Promise.resolve(${nonce}).then((nonce) => fetch('/api/request',
    { method: 'POST', body: JSON.stringify({ operation: '${operation}', nonce, token: scrivaDemo.state.token }) }))
    .then((r) => r.json()).then((r) => r.argument)`;

// The host processes of this build that the browser started for this test's token; what is no process, or is
// gone meanwhile, reads "".
const program = fs.realpathSync(path.join(build, "bin", "ScrivaPkcs11"));
const proc = (read, pid, file) => { try { return read(`/proc/${pid}/${file}`, "latin1"); } catch { return ""; } };
const hosts = () => new Set(fs.readdirSync("/proc").filter((pid) =>
  proc(fs.readlinkSync, pid, "exe") === program && proc(fs.readFileSync, pid, "environ").includes(env.SOFTHSM2_CONF)));
// Whether the one host in `pids` ends within 20 s (a zombie left for its parent counts: its exe reads no more).
async function ends(pids) {
  for (const deadline = Date.now() + 20000; pids.length === 1 && hosts().has(pids[0]) && Date.now() < deadline;)
    await new Promise((resolve) => setTimeout(resolve, 50));
  return pids.length === 1 && !hosts().has(pids[0]);
}

const seen = {};
async function exercise(session, url) {
  const page = await session.open(url);
  seen.connect = await call(page, "scrivaDemo.connect().then((c) => `${c.host} ${c.extension}`)");
  seen["GenerateCsr, the login cancelled"] = await call(page,
      "scrivaDemo.listSlots(0).then(() => scrivaDemo.generateCsr('Scriva Browser Test', 0))");
  // A frame gets no content script: its demo page tells the user what is missing.
  seen["the demo in a frame"] = await call(page, `new Promise((resolve) => document.body.append(Object.assign(
      document.createElement('iframe'), { src: location.href, onload: (event) => resolve(event.target.contentWindow) })))
      .then((frame) => frame.scrivaDemo.ready.then(() => frame.document.getElementById('status').textContent.split(' [')[1]))`);
  // The host answers a token operation under the id of its latest request: the extension must
  // hold quick calls back until the operation is answered.
  seen["overlapping GetCertificates, GetVersion, GetNonce"] = await call(page, `${signed("GetCertificates")}.then((s) =>
      Promise.all([client.getCertificates(s), client.getVersion(), client.getNonce()]))
      .then(([certificates, version, nonce]) => [certificates.includes('<GetCertificates>'), version, nonce.length >= 16])`);
  // Asking again helps with a nonce the host never gave, never with a signer it does not trust:
  // the attempts withFreshNonce makes (the second one right), then what it gives.
  const signer = path.join(build, "devpki", "signer-unknown-root");
  const untrusted = tool("openssl", ["cms", "-sign", "-binary", "-nodetach", "-outform", "DER", "-signer", `${signer}.pem`,
      "-inkey", `${signer}.key`, "-in", path.join(source, "tests", "data", "requests", "getslots-2026.xml")]);
  for (const [what, first] of [["a nonce the host never gave", signed("GetSlots", "'0f8fad5b-d9cb-469f-a165-70867728950e'")],
                               ["a signer the host does not trust", `'${untrusted.toString("base64")}'`]])
    seen[`${what}: attempts, outcome`] = await call(page, `(async () => { let attempts = 0;
        const outcome = await client.withFreshNonce(async (nonce) => client.getSlots(await (attempts++ ? ${signed("GetSlots",
            "nonce")} : ${first}))).then((xml) => xml.includes('${LABEL}'), (e) => e.category + ' ' + e.code);
        return [attempts, outcome]; })()`);
  seen["Terminate, then GetNonce"] = await call(page, "client.terminate().then(() => client.getNonce())");
  seen["a new instance"] = await call(page, "client.createInstance().then(() => client.getVersion())");
  seen["new clients that need this version, 10.0"] = await call(page, `Promise.all(['${VERSION.split(" ")[0]}', '10.0']
      .map((v) => new client.constructor({ minimumHostVersion: v }).createInstance().catch((e) => e.category + ' ' + e.code)))`);
  await call(page, "client.terminate()");
  fs.rmSync(session.manifest);
  seen["CreateInstance with no host registered"] = await call(page, "client.createInstance()");
  session.registerHost(session.original.path);

  // Pages of two origins, each with a host of its own: what page A does to its host leaves page
  // B's nonce and instance alone, and a page that goes away takes its host with it.
  const pageB = page, pageA = await session.open(url.replace("//127.0.0.1:", "//localhost:"));
  const createInstance = (target, before = hosts()) => call(target, "client.createInstance()")
    .then((created) => [...hosts()].filter((pid) => !before.has(pid) && created === null)); // the hosts it started
  const started = [await createInstance(pageB), await createInstance(pageA)];
  seen["hosts started for pages B and A"] = started.map((pids) => pids.length);
  for (const what of ["getNonce", "terminate"]) {
    await call(pageB, `${signed("GetSlots")}.then((s) => { window.signedSlots = s; })`);
    seen[`page A's ${what}, then page B's signed GetSlots`] = [
      await call(pageA, `client.${what}().then(() => 'answered')`),
      await call(pageB, `client.getSlots(window.signedSlots).then((xml) => xml.includes('${LABEL}'))`)];
  }
  const endings = seen["page A's host ends: terminated, reloaded, closed"] = [await ends(started[1])];
  for (const how of ["reload", "close"])
    endings.push(await createInstance(pageA).then((pids) => pageA[how]().then(() => ends(pids))));
  seen["page B's host after page A's doings"] = await call(pageB, "client.getVersion()");

  // The size of a request is that of its method and arguments as JSON, in UTF-8 bytes.
  seen["exactly 16 MiB, one byte more, 16 MiB of UTF-8 in fewer characters"] = await call(pageB, `(async () => {
      const limit = 16 * 1024 * 1024;
      const empty = JSON.stringify({ method: 'ScrivaPkcs11.1.0.0.qt.QES.GetSlots', args: [''] }).length;
      // The host refuses the junk it reads with the whole OpenSSL text, which names the thread.
      const answer = (argument) => client.getSlots(argument).catch((e) => e.category + ' ' + e.code.split(':')[0]);
      return [await answer('A'.repeat(limit - empty)), await answer('A'.repeat(limit - empty + 1)),
              await answer('\\u00e9'.repeat(limit / 2))];
  })()`);
  // Firefox's WebDriver BiDi does not reach a content script's world; the check is the same script.
  if (name === "chromium")
    seen["the background by itself"] = await bypassContentScript(pageB);
  seen["page B after the large requests"] = await call(pageB, "client.getVersion()");
}

// A page whose renderer skips the content script's check still meets the background's: the
// request is sent from the content script's own world, reached through the DevTools protocol.
async function bypassContentScript(page) {
  const devtools = await page.createCDPSession();
  const worlds = [];
  devtools.on("Runtime.executionContextCreated", ({ context }) => context.auxData?.type === "isolated" &&
              context.origin.startsWith("chrome-extension://") && worlds.push(context.id));
  await devtools.send("Runtime.enable");
  const { result } = await devtools.send("Runtime.evaluate", { contextId: worlds.at(-1), awaitPromise: true,
    returnByValue: true, expression: `new Promise((resolve) => {
      const port = chrome.runtime.connect({ name: SCRIVA_CHANNEL });
      port.onMessage.addListener((reply) => { port.disconnect(); resolve(reply.answer.error); });
      port.postMessage({ id: 1, message: { method: 'ScrivaPkcs11.1.0.0.qt.QES.GetSlots',
                                           args: ['A'.repeat(16 * 1024 * 1024)] } });
    })` });
  await devtools.detach();
  return result.value;
}

const { server, url } = await serveDemo(source, build, [path.join(build, "tools", "scriva-test-token", "scriva-test-token.so")]);
let session;
try {
  // The browser hands its environment to the host it starts.
  session = await BrowserSession.start(name, { work: scratch, extension: path.join(source, "browser", "extension"),
    manifests: path.join(build, "share", "scriva", "native-messaging-hosts"), log: console.log, env });
  await exercise(session, url);
} catch (error) {
  seen["the browser session ran to its end"] = error.stack;
} finally {
  await session?.close();
  server.kill();
}
console.log(JSON.stringify(seen, null, 1));
const expected = JSON.parse(fs.readFileSync(path.join(source, "tests", "data", "browser", "e2e-record.json"), "utf8"));
if (name !== "chromium")
  delete expected["the background by itself"];
assert.deepEqual(seen, expected);
console.log("all checks passed");
