// Keeps one connection to the ScrivaPkcs11 program and relays the pages' requests to it.
//
// The program runs one operation at a time and answers a token operation under the id of the
// latest request it received, so requests are sent one after the other: the next one leaves only
// when the previous one has been answered. Every request travels under an id of our own, mapped
// back to the page's id in the answer, so pages cannot see or collide with each other's ids.
"use strict";

if (typeof importScripts === "function")
  importScripts("origin.js"); // as a service worker; Firefox loads it through the manifest

const api = globalThis.browser ?? globalThis.chrome;
const hostName = "com.corvant.scriva.pkcs11";
const createInstance = /^ScrivaPkcs11\.[^.]+\.[^.]+\.[^.]+\.\w+\.QES\.CreateInstance$/;
const endsHost = /\.QES\.(Terminate|DisposeInstance)$/;

const pages = new Set();
const queue = []; // { page, pageId, message }
let inFlight = null; // the queue entry the program is working on, with its hostId
let host = null; // { port, hasInstance, heard }
let lastId = 0;

function reply(entry, answer) {
  if (!entry.page)
    return; // the page went away while the program worked
  const out = { ...answer };
  if (entry.pageId === undefined)
    delete out.id;
  else
    out.id = entry.pageId;
  try {
    entry.page.postMessage({ id: entry.pageId, answer: out });
  } catch {
    // the page closed between our check and the answer
  }
}

function fail(entry, error, detail) {
  reply(entry, { error, method: entry.message.method, result: null, detail });
}

function closeHost() {
  if (!host)
    return;
  const port = host.port;
  host = null;
  port.disconnect(); // the program reads the end of its input and quits
}

function connectHost() {
  const port = api.runtime.connectNative(hostName);
  const connection = { port, hasInstance: false, heard: false };
  port.onMessage.addListener((answer) => onHostAnswer(connection, answer));
  port.onDisconnect.addListener(() => onHostGone(connection));
  host = connection;
}

function onHostAnswer(connection, answer) {
  connection.heard = true;
  if (connection !== host || !inFlight || !answer || answer.id !== inFlight.hostId) {
    console.warn("Scriva: dropping an answer nobody waits for", answer);
    return;
  }
  const entry = inFlight;
  inFlight = null;
  if (answer.error === null && createInstance.test(entry.message.method))
    connection.hasInstance = true;
  reply(entry, answer);
  if (answer.error === null && endsHost.test(entry.message.method))
    closeHost();
  else if (pages.size === 0)
    closeHost();
  pump();
}

function onHostGone(connection) {
  if (connection !== host)
    return;
  host = null;
  // Chromium reports through lastError, Firefox through the port.
  const reason = (connection.port.error || api.runtime.lastError || {}).message || "";
  if (inFlight) {
    const entry = inFlight;
    inFlight = null;
    if (!connection.heard && /not found|forbidden|failed to start/i.test(reason))
      fail(entry, "NativeHostNotAvailable", reason);
    else
      fail(entry, "NativeHostDisconnected", reason || "The ScrivaPkcs11 program ended.");
  }
  pump();
}

function pump() {
  while (!inFlight && queue.length > 0) {
    const entry = queue.shift();
    if (!entry.page)
      continue;
    const isCreate = createInstance.test(entry.message.method);
    if (!isCreate && !(host && host.hasInstance)) {
      // A fresh program ends without an answer when its first request is not CreateInstance.
      fail(entry, "ScrivaInstanceDoesNotExist", "Call CreateInstance first.");
      continue;
    }
    if (!host)
      connectHost();
    entry.hostId = String(++lastId);
    const message = { method: entry.message.method, id: entry.hostId };
    if (entry.message.args !== undefined)
      message.args = entry.message.args;
    inFlight = entry;
    try {
      host.port.postMessage(message);
    } catch (error) {
      inFlight = null;
      host = null;
      fail(entry, "NativeHostDisconnected", String(error));
    }
  }
}

function validMessage(message) {
  return message && typeof message.method === "string" && message.method.startsWith("ScrivaPkcs11.") &&
    (message.args === undefined || Array.isArray(message.args));
}

api.runtime.onConnect.addListener((page) => {
  const sender = page.sender || {};
  if (page.name !== globalThis.SCRIVA_CHANNEL || sender.id !== api.runtime.id || !sender.tab ||
      !globalThis.scrivaPageAllowed(sender.url || "")) {
    page.disconnect();
    return;
  }
  pages.add(page);
  page.onMessage.addListener((request) => {
    const entry = { page, pageId: request && request.id, message: (request && request.message) || {} };
    if (!validMessage(entry.message)) {
      fail(entry, "InvalidRequest", "A request needs a method named ScrivaPkcs11.… and an args array.");
      return;
    }
    queue.push(entry);
    pump();
  });
  page.onDisconnect.addListener(() => {
    pages.delete(page);
    for (const entry of queue)
      if (entry.page === page)
        entry.page = null;
    if (inFlight && inFlight.page === page)
      inFlight.page = null;
    // Without pages nobody can use the program's instance any more.
    if (pages.size === 0 && !inFlight)
      closeHost();
  });
});
