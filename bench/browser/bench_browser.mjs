#!/usr/bin/env node
// Round trip page -> extension -> host -> page in headless Chromium and Firefox over a connected
// port: the p50 of GetNonce calls made by the page through the client, once with ScrivaPkcs11 and
// once with a host that only echoes, which leaves the browser's and the extension's own share.
import fs from "node:fs";
import os from "node:os";
import path from "node:path";
import { parseArgs } from "node:util";
import { BROWSERS, BrowserSession, serveDemo } from "../../tests/browser/browsers.mjs";

const { values: args } = parseArgs({ options: {
  source: { type: "string" }, build: { type: "string" }, "echo-host": { type: "string" },
  browsers: { type: "string", default: BROWSERS.join(",") },
  calls: { type: "string", default: "200" }, warmup: { type: "string" , default: "20" } } });
const calls = Number(args.calls), warmup = Number(args.warmup);

// Run in a page: an instance and warm-up calls, then blocks of timed calls (milliseconds each).
const SETUP = `(async () => {
  await scrivaDemo.ready;
  await scrivaDemo.client.createInstance();
  for (let i = 0; i < ${warmup}; ++i) await scrivaDemo.client.getNonce();
})()`;
const block = (count) => `(async () => {
  const times = [];
  for (let i = 0; i < ${count}; ++i) {
    const start = performance.now();
    await scrivaDemo.client.getNonce();
    times.push(performance.now() - start);
  }
  return times;
})()`;

function percentile(values, fraction) {
  const ordered = [...values].sort((a, b) => a - b);
  return ordered[Math.min(ordered.length - 1, Math.floor(fraction * ordered.length))];
}

// Each browser gets two pages: the first connects while the manifest names ScrivaPkcs11, the
// second while it names the echo host; each page keeps its own host for the whole run.
async function openPages(name, url, work, manifests) {
  const session = await BrowserSession.start(name, { work: path.join(work, name), manifests,
    extension: path.join(args.source, "browser", "extension"), env: { QT_QPA_PLATFORM: "offscreen" } });
  const pages = {};
  for (const [host, program] of [["ScrivaPkcs11", session.original.path], ["echo host", path.resolve(args["echo-host"])]]) {
    session.registerHost(program);
    pages[host] = await session.open(url);
    await pages[host].evaluate(SETUP);
  }
  return { session, pages };
}

async function main() {
  const work = fs.mkdtempSync(path.join(os.tmpdir(), "scriva-bench-browser-"));
  const manifests = path.join(path.resolve(args.build), "share", "scriva", "native-messaging-hosts");
  const { server, url } = await serveDemo(path.resolve(args.source), path.resolve(args.build), ["none"],
                                     { quiet: true });
  const opened = [];
  const results = new Map();
  try {
    for (const name of args.browsers.split(","))
      opened.push(await openPages(name, url, work, manifests));
    // Every page takes its turn in every round, so that a change in the machine's load falls on
    // all alike.
    const rounds = 10;
    for (let round = 0; round < rounds; ++round) {
      for (const { session, pages } of opened) {
        for (const [host, page] of Object.entries(pages)) {
          const key = `${session.name.padEnd(9)} ${host}`;
          const count = Math.floor(calls / rounds) + (round < calls % rounds ? 1 : 0);
          results.set(key, (results.get(key) ?? []).concat(await page.evaluate(block(count))));
        }
      }
    }
  } finally {
    for (const { session } of opened)
      await session.close();
    server.kill();
    fs.rmSync(work, { recursive: true, force: true });
  }

  console.log(`GetNonce round trip page -> extension -> host -> page, ${calls} calls over one connected port:`);
  for (const [key, times] of results)
    console.log(`  ${key.padEnd(22)} p50 ${percentile(times, 0.5).toFixed(3).padStart(7)} ms   ` +
                `p90 ${percentile(times, 0.9).toFixed(3).padStart(7)} ms   min ${Math.min(...times).toFixed(3).padStart(7)} ms`);
  for (const { session } of opened) {
    const share = percentile(results.get(`${session.name.padEnd(9)} echo host`), 0.5);
    const total = percentile(results.get(`${session.name.padEnd(9)} ScrivaPkcs11`), 0.5);
    console.log(`  ${session.name}: the browser's own share (echo host) is ${share.toFixed(3)} ms of the host's ` +
                `${total.toFixed(3)} ms p50`);
  }
}

await main();
