// Which pages may reach the token program: pages served over https, and pages of the local
// machine (http://localhost, http://127.0.0.1) for development. Shared by the content script and
// the background script.
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
