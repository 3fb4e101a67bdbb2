// What pages may send to the token program, shared by the content script and the background
// script. Pages served over https, and pages of the local machine (http://localhost,
// http://127.0.0.1) for development, may reach it; a request may be at most 16 MiB.
"use strict";

globalThis.SCRIVA_CHANNEL = "scriva-pkcs11";

globalThis.scrivaPageAllowed = function (address) {
  let url;
  try {
    url = new URL(address);
  } catch {
    return false;
  }
  if (url.protocol === "https:")
    return true;
  return url.protocol === "http:" && (url.hostname === "localhost" || url.hostname === "127.0.0.1");
};

globalThis.SCRIVA_MAX_REQUEST = 16 * 1024 * 1024;
globalThis.SCRIVA_REQUEST_TOO_LARGE = "A request (its method and arguments as JSON) may be at most 16 MiB.";

// Whether { method, args } takes more than 16 MiB as JSON in UTF-8.
globalThis.scrivaRequestTooLarge = function (message) {
  const limit = globalThis.SCRIVA_MAX_REQUEST;
  const text = JSON.stringify({ method: message.method, args: message.args });
  // A UTF-16 unit takes one to three bytes in UTF-8 (a surrogate pair four, for two units).
  if (text.length > limit)
    return true;
  if (text.length * 3 <= limit)
    return false;
  return new TextEncoder().encode(text).length > limit;
};
