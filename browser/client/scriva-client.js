// A promise-based client for web pages that talk to the ScrivaPkcs11 program through the Scriva
// browser extension. An ES module without dependencies:
//
//   import { ScrivaClient, Category } from "./scriva-client.js";
//   const scriva = new ScrivaClient({ minimumHostVersion: "2.6.1" });
//   try {
//     await scriva.createInstance();
//     const nonce = await scriva.getNonce();
//     const slotsXml = await scriva.getSlots(signedArgumentFromYourServer);
//   } catch (error) {
//     if (error.category === Category.NOT_INSTALLED) showInstallHelp();
//     showMessage(error.userMessage);
//   }
//
// Every call resolves with the "result" of the answer (a string, or null) and rejects with a
// ScrivaError: its `code` is the error word as it came (one of the program's words,
// "CommunicationMismatchNonce", or texts such as "PKCS#11 method C_Login returned error …", or one
// of the words of the extension and of this client), its `category` says what the page should do
// and its `userMessage` tells the user, in English or Czech. docs/errors.md lists every word.

const channel = "scriva-pkcs11";
const prefix = "ScrivaPkcs11.1.0.0.qt.QES.";

export const METHODS = Object.freeze([
  "CreateInstance", "GetVersion", "GetNonce", "SetProperty", "BringToFront",
  "GetSlots", "GetCertificates", "GenerateCsr", "CreateObject", "Terminate", "DisposeInstance",
]);

// Token operations wait for the user (PIN entry, module choice), so they get a long time.
const tokenMethods = new Set(["GetSlots", "GetCertificates", "GenerateCsr", "CreateObject"]);

// What the page should do about an error, and whether asking again can help.
export const Category = Object.freeze({
  NOT_INSTALLED: "not-installed", // the extension, the program or the token's module is missing: install or enable it
  HOST_TOO_OLD: "host-too-old", // the program is older than the page needs: install a newer one
  CANCELLED: "cancelled", // the user cancelled (PIN entry, module choice): nothing to report
  PIN: "pin", // the PIN is blocked, expired or refused: the user sees to it
  TOKEN_MISSING: "token-missing", // the token is not connected: connect it and try again
  RETRY: "retry", // the request met the program at the wrong moment (an old nonce): ask once more, freshly signed
  SITE_CONFIGURATION: "site-configuration", // the site's signer, requests or address are refused: report it, no retry
  REQUEST_REFUSED: "request-refused", // the page used the program wrongly (order, argument, property): fix the page
  TOKEN_FAILURE: "token-failure", // the token or its module failed: try again, then the administrator
  INTERNAL: "internal", // anything else: report to the administrator
});

const C = Category;
// Whole words by category; a word listed nowhere is internal.
const wordCategories = {
  [C.NOT_INSTALLED]: ["ExtensionNotAvailable", "NativeHostNotAvailable", "NoUsablePkcs11LibraryFound"],
  [C.HOST_TOO_OLD]: ["HostTooOld"],
  [C.CANCELLED]: ["OperationCanceled", "UserRejectedFileDialog"],
  [C.PIN]: ["PinBlocked"],
  [C.TOKEN_MISSING]: ["SpecifiedTokenNotFound"],
  [C.RETRY]: ["CommunicationMismatchNonce", "Another asynchronous method is already running"],
  [C.SITE_CONFIGURATION]: [
    "OriginNotAllowed", "CommunicationMismatchUnstrustedServer", "AlgorithmNotSupported",
    "Unsuccessful XML validation!", "Invalid XML namespace!", "Unexpected element!", "Nonce is null or empty!",
    "XML namespace is null or empty!", "No PKCS#11 library location provided!", "Pin2Name is null or empty!",
    "No CK_ATTRIBUTE provided!", "TokenSerialNumber is null or empty!", "Token serial number is null or empty!",
    "Unable to parse Pkcs11Library data!", "Unable to parse operation specific data!", "Unable to HEX decode subject",
    "Unable to DER decode subject", "Unsupported vendor extensions requested",
    "CMS does not contain exactly one signing certificate", "Unable to extract signing certificate from CMS",
    "Unable to process signing certificate extracted from CMS",
  ],
  [C.REQUEST_REFUSED]: [
    "InvalidRequest", "RequestTooLarge", "ScrivaInstanceDoesNotExist", "NoMethodOrEventSpecified", "UnsupportedLanguage",
    "The ScrivaPkcs11 is terminating!", "Scriva is terminating",
    "Properties cannot be modified while application window is visible",
    "Unable to parse properties as JSON structure", "Unable to convert properties to JSON object",
  ],
  [C.TOKEN_FAILURE]: ["UnableToLoad", "UnableToFind", "UnableToCall"],
};
const categoryOfWord = new Map(Object.entries(wordCategories).flatMap(([category, words]) =>
  words.map((word) => [word, category])));

// A failed module call, by its return value.
function pkcs11Category(returnValue) {
  if (returnValue.startsWith("CKR_PIN_"))
    return C.PIN;
  if (["CKR_TOKEN_NOT_PRESENT", "CKR_DEVICE_REMOVED", "CKR_TOKEN_NOT_RECOGNIZED", "CKR_SLOT_ID_INVALID"]
      .includes(returnValue))
    return C.TOKEN_MISSING;
  return returnValue === "CKR_FUNCTION_CANCELED" ? C.CANCELLED : C.TOKEN_FAILURE;
}

// Texts that carry values: the category by the text's start.
const families = [
  [/^PKCS#11 method \S+ returned error (\S+)/, (match) => pkcs11Category(match[1])],
  [/^(Unable to (load|parse|get) CMS|CMS (signature is not valid|does not contain signing certificates))/,
   () => C.SITE_CONFIGURATION],
  [/^(Signing|Digesting) mechanism \S+ is not supported/, () => C.SITE_CONFIGURATION],
  [/^(JSON node |Method \S+ requires an argument|Unknown method )/, () => C.REQUEST_REFUSED],
];

export function categoryOf(code) {
  const text = String(code);
  if (categoryOfWord.has(text))
    return categoryOfWord.get(text);
  for (const [pattern, category] of families) {
    const match = pattern.exec(text);
    if (match)
      return category(match);
  }
  return C.INTERNAL;
}

// What the user reads: by word where a word needs its own text, else by category (every word of
// not-installed has its own).
const messages = {
  en: {
    [C.HOST_TOO_OLD]: "The ScrivaPkcs11 program on this computer is too old. Please install its current version.",
    [C.CANCELLED]: "The operation was cancelled.",
    [C.PIN]: "The token did not accept the PIN: it is blocked, expired or not valid. Unblock or change it with " +
             "the token's own software, or contact your administrator.",
    [C.TOKEN_MISSING]: "The token was not found. Connect the token (or insert the card) and try again.",
    [C.RETRY]: "The request crossed another one, and nothing was done on the token. Please try again.",
    [C.SITE_CONFIGURATION]: "This site cannot use your token because of a problem in the site's own configuration; " +
                            "nothing was done on the token. Trying again will not help: please tell the site's support.",
    [C.REQUEST_REFUSED]: "This page asked the ScrivaPkcs11 program for something it cannot do, and nothing was done " +
                         "on the token. Reload the page and try again; if it happens again, contact the support of this site.",
    [C.TOKEN_FAILURE]: "The token reported an error. Check that it is connected properly and try again; if the " +
                       "error persists, contact your administrator.",
    [C.INTERNAL]: "An unexpected error occurred. Please try again; if it happens again, report it to your administrator.",
    ExtensionNotAvailable: "The Scriva browser extension is not installed or not enabled for this page. Install " +
                           "or enable it, then reload the page.",
    NativeHostNotAvailable: "The ScrivaPkcs11 program is not installed on this computer. Install it and try again.",
    NoUsablePkcs11LibraryFound: "The software of your token (its PKCS#11 module) is not installed on this computer.",
    OriginNotAllowed: "This page may not use the token: only secure (https) pages may.",
    PinBlocked: "The token's PIN is blocked. Unblock it with the token's own software, or contact your administrator.",
    ExtensionDisconnected: "The connection to the Scriva extension was lost. Reload the page and try again.",
    Timeout: "No answer came in time. Please try again.",
  },
  cs: {
    [C.HOST_TOO_OLD]: "Program ScrivaPkcs11 v tomto počítači je příliš starý. Nainstalujte prosím jeho aktuální verzi.",
    [C.CANCELLED]: "Operace byla zrušena.",
    [C.PIN]: "Token nepřijal PIN: je zablokovaný, vypršela jeho platnost nebo není platný. Odblokujte nebo " +
             "změňte jej programem dodaným k tokenu, nebo se obraťte na správce.",
    [C.TOKEN_MISSING]: "Token nebyl nalezen. Připojte token (nebo vložte kartu) a zkuste to znovu.",
    [C.RETRY]: "Požadavek se zkřížil s jiným a na tokenu se nic neprovedlo. Zkuste to prosím znovu.",
    [C.SITE_CONFIGURATION]: "Tato stránka nemůže váš token použít kvůli chybě ve svém vlastním nastavení; na tokenu " +
                            "se nic neprovedlo. Opakování nepomůže: dejte to prosím vědět podpoře této stránky.",
    [C.REQUEST_REFUSED]: "Tato stránka žádala po programu ScrivaPkcs11 něco, co provést nemůže, a na tokenu se nic " +
                         "neprovedlo. Načtěte stránku znovu a zkuste to ještě jednou; pokud se to bude opakovat, " +
                         "obraťte se na podporu této stránky.",
    [C.TOKEN_FAILURE]: "Token ohlásil chybu. Zkontrolujte, že je správně připojen, a zkuste to znovu; pokud " +
                       "chyba přetrvá, obraťte se na správce.",
    [C.INTERNAL]: "Došlo k neočekávané chybě. Zkuste to prosím znovu; pokud se to bude opakovat, nahlaste to správci.",
    ExtensionNotAvailable: "Rozšíření prohlížeče Scriva není nainstalováno nebo pro tuto stránku povoleno. " +
                           "Nainstalujte nebo povolte rozšíření a stránku znovu načtěte.",
    NativeHostNotAvailable: "Program ScrivaPkcs11 není v tomto počítači nainstalován. Nainstalujte jej a zkuste to znovu.",
    NoUsablePkcs11LibraryFound: "Software vašeho tokenu (jeho modul PKCS#11) není v tomto počítači nainstalován.",
    OriginNotAllowed: "Tato stránka nesmí používat token: smějí to jen zabezpečené stránky (https).",
    PinBlocked: "PIN tokenu je zablokovaný. Odblokujte jej programem dodaným k tokenu, nebo se obraťte na správce.",
    ExtensionDisconnected: "Spojení s rozšířením Scriva bylo přerušeno. Načtěte stránku znovu a zkuste to ještě jednou.",
    Timeout: "Odpověď nepřišla včas. Zkuste to prosím znovu.",
  },
};

// "cs" or "en": the given language, else the page's (<html lang>), else the browser's.
export function messageLanguage(language) {
  const wanted = language || globalThis.document?.documentElement?.lang || globalThis.navigator?.language || "";
  return wanted.toLowerCase().startsWith("cs") ? "cs" : "en";
}

// { category, userMessage } of an error word or text: what the page should do, and a sentence for
// the user in the given language ("en", "cs"; else as messageLanguage chooses).
export function describeError(code, language) {
  const category = categoryOf(code);
  const texts = messages[messageLanguage(language)];
  return { category, userMessage: texts[code] ?? texts[category] };
}

// Compares dotted version numbers ("2.6.1 (qt)" as 2.6.1); negative when a is older than b. A text
// without a number counts as older than any version.
export function compareVersions(a, b) {
  const parts = (text) => (/^\s*(\d+(?:\.\d+)*)/.exec(String(text))?.[1] ?? "-1").split(".").map(Number);
  const [x, y] = [parts(a), parts(b)];
  for (let i = 0; i < Math.max(x.length, y.length); ++i)
    if ((x[i] ?? 0) !== (y[i] ?? 0))
      return (x[i] ?? 0) - (y[i] ?? 0);
  return 0;
}

export class ScrivaError extends Error {
  constructor(code, method, detail, language) {
    super(`${method ? method + ": " : ""}${code}${detail ? " (" + detail + ")" : ""}`);
    this.name = "ScrivaError";
    this.code = code;
    this.method = method;
    this.detail = detail;
    Object.assign(this, describeError(code, language));
  }
}

export class ScrivaClient {
  // options.timeout: ms for quick methods (default 15 s); options.tokenTimeout: ms for token
  // operations (default 5 min); options.detectTimeout: ms to wait for the extension (default 1 s);
  // options.language: language of the user messages ("en", "cs"; default the page's);
  // options.minimumHostVersion: createInstance fails with HostTooOld below this version.
  constructor(options = {}) {
    this.window = options.window ?? globalThis.window;
    this.timeout = options.timeout ?? 15000;
    this.tokenTimeout = options.tokenTimeout ?? 300000;
    this.detectTimeout = options.detectTimeout ?? 1000;
    this.language = options.language;
    this.minimumHostVersion = options.minimumHostVersion;
    this.hostVersion = null;
    this.pending = new Map();
    this.lastId = 0;
    this.presence = null;
    this.session = Math.random().toString(36).slice(2);
    this.window.addEventListener("message", (event) => this.onMessage(event));
  }

  error(code, method, detail) {
    return new ScrivaError(code, method, detail, this.language);
  }

  // Resolves with { version } of the extension; rejects with ExtensionNotAvailable or OriginNotAllowed.
  detect() {
    if (!this.presence) {
      this.presence = this.exchange({ type: "ping" }, this.detectTimeout, "ExtensionNotAvailable").then((pong) => {
        if (!pong.allowed)
          throw this.error("OriginNotAllowed");
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
      throw this.error("InvalidRequest", name, "Unknown method.");
    await this.detect();
    const message = { method: prefix + name };
    if (argument !== undefined && argument !== null)
      message.args = [String(argument)];
    const timeout = options.timeout ?? (tokenMethods.has(name) ? this.tokenTimeout : this.timeout);
    const pong = await this.exchange({ type: "request", message }, timeout, "Timeout", name);
    const answer = pong.answer || {};
    if (answer.error !== null && answer.error !== undefined)
      throw this.error(answer.error, name, answer.detail);
    return answer.result ?? null;
  }

  // Starts a fresh instance; with a minimum host version, also checks the program's version.
  async createInstance() {
    await this.call("CreateInstance");
    if (this.minimumHostVersion) {
      this.hostVersion = await this.getVersion();
      if (compareVersions(this.hostVersion, this.minimumHostVersion) < 0)
        throw this.error("HostTooOld", "GetVersion", `${this.hostVersion}, at least ${this.minimumHostVersion} needed`);
    }
    return null;
  }

  // Runs attempt(nonce) with a fresh nonce (the page has its server sign a request with it, and sends
  // that). When the program answers that asking again can help (Category.RETRY), it runs once more
  // with another fresh nonce; any other failure, or a second one, rejects.
  async withFreshNonce(attempt) {
    try {
      return await attempt(await this.getNonce());
    } catch (error) {
      if (error.category !== C.RETRY)
        throw error;
      return attempt(await this.getNonce());
    }
  }

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
        reject(this.error(timeoutCode, method, `after ${timeout} ms`));
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
