// Relays each page's requests to a ScrivaPkcs11 program of its own.
//
// Every page (the document of a tab, with its origin) that connects gets its own native port, so
// its own program and instance: one page cannot retire another's nonce, set its properties or end
// its program. When the page goes away (tab closed, navigated, reloaded) its port to the program is
// closed; the program reads the end of its input and quits.
//
// The program runs one operation at a time and answers a token operation under the id of the
// latest request it received, so a page's requests are sent one after the other: the next one
// leaves only when the previous one has been answered. Every request travels under an id of our
// own, mapped back to the page's id in the answer.
"use strict";

if (typeof importScripts === "function")
  importScripts("origin.js"); // as a service worker; Firefox loads it through the manifest

const api = globalThis.browser ?? globalThis.chrome;
const hostName = "com.corvant.scriva.pkcs11";
const createInstance = /^ScrivaPkcs11\.[^.]+\.[^.]+\.[^.]+\.\w+\.QES\.CreateInstance$/;
const endsHost = /\.QES\.(Terminate|DisposeInstance)$/;

let lastId = 0;

// One per connected page: { page, open, queue: [{ pageId, message, hostId }], inFlight, host },
// host being { port, hasInstance, heard } while the page has a program.

function reply(session, entry, answer) {
  if (!session.open)
    return; // the page went away while the program worked
  const out = { ...answer };
  if (entry.pageId === undefined)
    delete out.id;
  else
    out.id = entry.pageId;
  try {
    session.page.postMessage({ id: entry.pageId, answer: out });
  } catch {
    // the page closed between our check and the answer
  }
}

function fail(session, entry, error, detail) {
  reply(session, entry, { error, method: entry.message.method, result: null, detail });
}

function closeHost(session) {
  const host = session.host;
  if (!host)
    return;
  session.host = null;
  try {
    host.port.disconnect(); // the program reads the end of its input and quits
  } catch {
    // already gone
  }
}

function connectHost(session) {
  const host = { port: api.runtime.connectNative(hostName), hasInstance: false, heard: false };
  host.port.onMessage.addListener((answer) => onHostAnswer(session, host, answer));
  host.port.onDisconnect.addListener(() => onHostGone(session, host));
  session.host = host;
}

function onHostAnswer(session, host, answer) {
  host.heard = true;
  const entry = session.inFlight;
  if (host !== session.host || !entry || !answer || answer.id !== entry.hostId) {
    console.warn("Scriva: dropping an answer nobody waits for", answer);
    return;
  }
  session.inFlight = null;
  if (answer.error === null && createInstance.test(entry.message.method))
    host.hasInstance = true;
  reply(session, entry, answer);
  if (answer.error === null && endsHost.test(entry.message.method))
    closeHost(session);
  pump(session);
}

function onHostGone(session, host) {
  if (host !== session.host)
    return;
  session.host = null;
  // Chromium reports through lastError ("… host not found.", "… is forbidden.", "Failed to start
  // …"), Firefox through the port, with "No such native application …" for all three.
  const reason = (host.port.error || api.runtime.lastError || {}).message || "";
  const entry = session.inFlight;
  if (entry) {
    session.inFlight = null;
    if (!host.heard && /not found|forbidden|failed to start|no such native application/i.test(reason))
      fail(session, entry, "NativeHostNotAvailable", reason);
    else
      fail(session, entry, "NativeHostDisconnected", reason || "The ScrivaPkcs11 program ended.");
  }
  pump(session);
}

function pump(session) {
  while (session.open && !session.inFlight && session.queue.length > 0) {
    const entry = session.queue.shift();
    if (!createInstance.test(entry.message.method) && !(session.host && session.host.hasInstance)) {
      // A fresh program ends without an answer when its first request is not CreateInstance.
      fail(session, entry, "ScrivaInstanceDoesNotExist", "Call CreateInstance first.");
      continue;
    }
    if (!session.host)
      connectHost(session);
    entry.hostId = String(++lastId);
    const message = { method: entry.message.method, id: entry.hostId };
    if (entry.message.args !== undefined)
      message.args = entry.message.args;
    session.inFlight = entry;
    try {
      session.host.port.postMessage(message);
    } catch (error) {
      session.inFlight = null;
      closeHost(session);
      fail(session, entry, "NativeHostDisconnected", String(error));
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
  const session = { page, open: true, queue: [], inFlight: null, host: null };
  page.onMessage.addListener((request) => {
    const given = (request && request.message) || {};
    const entry = { pageId: request && request.id, message: { method: given.method, args: given.args } };
    if (!validMessage(entry.message))
      fail(session, entry, "InvalidRequest", "A request needs a method named ScrivaPkcs11.… and an args array.");
    else if (globalThis.scrivaRequestTooLarge(entry.message))
      fail(session, entry, "RequestTooLarge", globalThis.SCRIVA_REQUEST_TOO_LARGE);
    else {
      session.queue.push(entry);
      pump(session);
    }
  });
  page.onDisconnect.addListener(() => {
    // Nobody can use this page's instance any more: its program goes at once, with any dialog
    // it shows for an operation still running.
    session.open = false;
    session.queue.length = 0;
    session.inFlight = null;
    closeHost(session);
  });
});
