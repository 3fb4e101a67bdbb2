// A promise-based client for web pages that talk to the ScrivaPkcs11 program through the Scriva
// browser extension. An ES module without dependencies:
//
//   import { ScrivaClient } from "./scriva-client.js";
//   const scriva = new ScrivaClient();
//   await scriva.createInstance();
//   const nonce = await scriva.getNonce();
//   const slotsXml = await scriva.getSlots(signedArgumentFromYourServer);
//
// Every call resolves with the "result" of the answer (a string, or null) and rejects with a
// ScrivaError whose `code` is the error word: one of the program's words ("CommunicationMismatchNonce",
// "PinIncorrect", ...) or one of the words below for the way to the program.

const channel = "scriva-pkcs11";
const prefix = "ScrivaPkcs11.1.0.0.qt.QES.";

export const METHODS = Object.freeze([
  "CreateInstance", "GetVersion", "GetNonce", "SetProperty", "BringToFront",
  "GetSlots", "GetCertificates", "GenerateCsr", "CreateObject", "Terminate", "DisposeInstance",
]);

// Token operations wait for the user (PIN entry, module choice), so they get a long time.
const tokenMethods = new Set(["GetSlots", "GetCertificates", "GenerateCsr", "CreateObject"]);

const explanations = {
  ExtensionNotAvailable: "The Scriva browser extension is not installed or not enabled for this page.",
  OriginNotAllowed: "The Scriva extension serves only https pages and pages of localhost.",
  ExtensionDisconnected: "The Scriva extension closed the connection to this page (was it reloaded?).",
  NativeHostNotAvailable: "The ScrivaPkcs11 program is not installed for this browser.",
  NativeHostDisconnected: "The ScrivaPkcs11 program ended before it answered.",
  Timeout: "No answer came in time.",
  InvalidRequest: "The request is malformed.",
  RequestTooLarge: "The request is larger than the 16 MiB the extension passes on.",
};

export class ScrivaError extends Error {
  constructor(code, method, detail) {
    const explanation = explanations[code];
    super(`${method ? method + ": " : ""}${code}${explanation ? " (" + explanation + ")" : ""}${detail ? " " + detail : ""}`);
    this.name = "ScrivaError";
    this.code = code;
    this.method = method;
    this.detail = detail;
  }
}

export class ScrivaClient {
  // options.timeout: ms for quick methods (default 15 s); options.tokenTimeout: ms for token
  // operations (default 5 min); options.detectTimeout: ms to wait for the extension (default 1 s).
  constructor(options = {}) {
    this.window = options.window ?? globalThis.window;
    this.timeout = options.timeout ?? 15000;
    this.tokenTimeout = options.tokenTimeout ?? 300000;
    this.detectTimeout = options.detectTimeout ?? 1000;
    this.pending = new Map();
    this.lastId = 0;
    this.presence = null;
    this.session = Math.random().toString(36).slice(2);
    this.window.addEventListener("message", (event) => this.onMessage(event));
  }

  // Resolves with { version } of the extension; rejects with ExtensionNotAvailable or OriginNotAllowed.
  detect() {
    if (!this.presence) {
      this.presence = this.exchange({ type: "ping" }, this.detectTimeout, "ExtensionNotAvailable").then((pong) => {
        if (!pong.allowed)
          throw new ScrivaError("OriginNotAllowed");
        return { version: pong.version };
      });
      // A failed detection is tried again on the next call (the extension may be enabled meanwhile).
      this.presence.catch(() => { this.presence = null; });
    }
    return this.presence;
  }

  // Calls a method by its short name ("GetSlots") with an optional string argument.
  async call(name, argument, options = {}) {
    if (!METHODS.includes(name))
      throw new ScrivaError("InvalidRequest", name, "Unknown method.");
    await this.detect();
    const message = { method: prefix + name };
    if (argument !== undefined && argument !== null)
      message.args = [String(argument)];
    const timeout = options.timeout ?? (tokenMethods.has(name) ? this.tokenTimeout : this.timeout);
    const pong = await this.exchange({ type: "request", message }, timeout, "Timeout", name);
    const answer = pong.answer || {};
    if (answer.error !== null && answer.error !== undefined)
      throw new ScrivaError(answer.error, name, answer.detail);
    return answer.result ?? null;
  }

  createInstance() { return this.call("CreateInstance"); }
  disposeInstance() { return this.call("DisposeInstance"); }
  getNonce() { return this.call("GetNonce"); }
  getVersion() { return this.call("GetVersion"); }
  bringToFront() { return this.call("BringToFront"); }
  terminate() { return this.call("Terminate"); }
  // properties: an object ({ MinimalWindowDisplayTime: 1500, Language: "cs" }) or its JSON text.
  setProperty(properties) {
    return this.call("SetProperty", typeof properties === "string" ? properties : JSON.stringify(properties));
  }
  getSlots(signedRequest, options) { return this.call("GetSlots", signedRequest, options); }
  getCertificates(signedRequest, options) { return this.call("GetCertificates", signedRequest, options); }
  generateCsr(signedRequest, options) { return this.call("GenerateCsr", signedRequest, options); }
  createObject(signedRequest, options) { return this.call("CreateObject", signedRequest, options); }

  exchange(data, timeout, timeoutCode, method) {
    const id = `${this.session}.${++this.lastId}`;
    return new Promise((resolve, reject) => {
      const timer = setTimeout(() => {
        this.pending.delete(id);
        reject(new ScrivaError(timeoutCode, method, `after ${timeout} ms`));
      }, timeout);
      this.pending.set(id, { resolve, timer });
      this.window.postMessage({ channel, id, ...data }, this.window.location.origin);
    });
  }

  onMessage(event) {
    const data = event.data;
    if (event.source !== this.window || !data || data.channel !== channel ||
        (data.type !== "pong" && data.type !== "answer"))
      return;
    const waiting = this.pending.get(data.id);
    if (!waiting)
      return;
    this.pending.delete(data.id);
    clearTimeout(waiting.timer);
    waiting.resolve(data);
  }
}
