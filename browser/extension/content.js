// Relays the page's requests (window.postMessage) to the background script over one extension
// port, and the answers back to the page. The port stands for this page: the background gives it a
// token program of its own and ends that program when the port closes with the page. The page sees
// only its own ids; the background assigns the ids that travel to the token program.
"use strict";

(() => {
  const api = globalThis.browser ?? globalThis.chrome;
  const channel = globalThis.SCRIVA_CHANNEL;
  const allowed = globalThis.scrivaPageAllowed(location.href);
  const version = api.runtime.getManifest().version;
  const pending = new Map(); // page id -> method, while the background has the request
  let port = null;

  function toPage(data) {
    window.postMessage({ channel, ...data }, location.origin);
  }

  function answerPage(id, method, error, detail) {
    toPage({ type: "answer", id, answer: { error, method, result: null, id, detail } });
  }

  function connect() {
    port = api.runtime.connect({ name: channel });
    port.onMessage.addListener((message) => {
      pending.delete(message.id);
      toPage({ type: "answer", id: message.id, answer: message.answer });
    });
    port.onDisconnect.addListener(() => {
      // The extension was reloaded or its background refused this page: nothing in flight
      // will be answered any more.
      port = null;
      for (const [id, method] of pending)
        answerPage(id, method, "ExtensionDisconnected", "The extension closed the connection to this page.");
      pending.clear();
    });
  }

  window.addEventListener("message", (event) => {
    const data = event.data;
    if (event.source !== window || !data || data.channel !== channel)
      return;
    if (data.type === "ping") {
      toPage({ type: "pong", id: data.id, version, allowed });
      return;
    }
    if (data.type !== "request")
      return;
    const method = data.message && data.message.method;
    if (!allowed) {
      answerPage(data.id, method, "OriginNotAllowed", "Only https pages and pages of localhost may use the token.");
      return;
    }
    // Only what the program reads travels on; an oversized request stops here, before the
    // browser copies it to the background (which checks again).
    const message = data.message && { method, args: data.message.args };
    try {
      if (message && globalThis.scrivaRequestTooLarge(message)) {
        answerPage(data.id, method, "RequestTooLarge", globalThis.SCRIVA_REQUEST_TOO_LARGE);
        return;
      }
      if (!port)
        connect();
      pending.set(data.id, method);
      port.postMessage({ id: data.id, message });
    } catch (error) {
      pending.delete(data.id);
      answerPage(data.id, method, "ExtensionDisconnected", String(error));
    }
  });
})();
