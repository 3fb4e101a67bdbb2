// The demo page: every token operation asks the page's server for a signed request (carrying the
// nonce the token program just gave out), hands it to the program through the extension and
// shows the answer. The same steps are reachable as window.scrivaDemo for scripted runs.
import { ScrivaClient } from "./client/scriva-client.js";

const client = new ScrivaClient();
const state = { modules: [], module: 0, token: null, keyId: null, csr: null };
const $ = (id) => document.getElementById(id);

function log(text, isError = false) {
  const line = document.createElement("div");
  line.textContent = text;
  if (isError)
    line.className = "error";
  $("log").prepend(line);
}

function texts(node, name) {
  return Array.from(node.getElementsByTagNameNS("*", name), (element) => element.textContent);
}

function parse(xml) {
  return new DOMParser().parseFromString(xml, "application/xml");
}

async function signedRequest(operation, extra = {}) {
  const nonce = await client.getNonce();
  const response = await fetch("/api/request", {
    method: "POST",
    headers: { "Content-Type": "application/json" },
    body: JSON.stringify({ operation, nonce, module: state.module, token: state.token, ...extra }),
  });
  const body = await response.json();
  if (!response.ok)
    throw new Error("the server refused the request: " + body.error);
  return body;
}

async function connect() {
  const { version } = await client.detect();
  await client.createInstance();
  const host = await client.getVersion();
  $("status").textContent = `Extension ${version}, ScrivaPkcs11 ${host}`;
  log(`connected: extension ${version}, host ${host}`);
  return { extension: version, host };
}

async function listSlots(module = state.module) {
  state.module = Number(module);
  const { argument } = await signedRequest("GetSlots");
  const xml = await client.getSlots(argument);
  const slots = Array.from(parse(xml).getElementsByTagNameNS("*", "Slot"), (slot) => ({
    slotId: texts(slot, "SlotId")[0],
    label: texts(slot, "Label")[0] ?? "",
    serial: texts(slot, "SerialNumber")[0] ?? "",
    model: texts(slot, "Model")[0] ?? "",
    protectedAuthPath: texts(slot, "HasProtectedAuthPath")[0] === "true",
  }));
  const body = $("slotTable").tBodies[0];
  body.replaceChildren(...slots.map((slot, index) => {
    const row = body.insertRow();
    row.innerHTML = `<td><input type="radio" name="token" value="${index}"></td><td></td><td></td><td></td><td></td>`;
    [slot.slotId, slot.label, slot.serial, slot.model].forEach((text, column) => { row.cells[column + 1].textContent = text; });
    row.querySelector("input").addEventListener("change", () => selectToken(slot.serial, slot.label));
    return row;
  }));
  $("slotTable").hidden = slots.length === 0;
  if (slots.length > 0 && !state.token) {
    body.rows[0].querySelector("input").checked = true;
    selectToken(slots[0].serial, slots[0].label);
  }
  log(`GetSlots: ${slots.length} token(s)`);
  return { xml, slots };
}

function selectToken(serial, label) {
  state.token = { serial, label };
  log(`token chosen: ${label} (${serial})`);
  return state.token;
}

async function readCertificates(module = state.module) {
  state.module = Number(module);
  const { argument } = await signedRequest("GetCertificates");
  const xml = await client.getCertificates(argument);
  const certificates = texts(parse(xml), "Certificate");
  $("certificateList").replaceChildren(...certificates.map((pem) => {
    const item = document.createElement("li");
    item.textContent = pem.split("\n").slice(0, 2).join(" ") + " …";
    return item;
  }));
  log(`GetCertificates: ${certificates.length} certificate(s)`);
  return { xml, certificates };
}

async function generateCsr(subject = $("subject").value, module = state.module) {
  state.module = Number(module);
  const { argument, keyId } = await signedRequest("GenerateCsr", { subject });
  const xml = await client.generateCsr(argument);
  state.keyId = keyId;
  state.csr = texts(parse(xml), "CSR")[0];
  state.csrAnswer = xml;
  log(`GenerateCsr: key ${keyId}\n${state.csr}`);
  return { xml, keyId, csr: state.csr };
}

async function storeCertificate(module = state.module) {
  state.module = Number(module);
  if (!state.csr)
    throw new Error("generate a certificate request first");
  // The server checks the token's whole answer against the GenerateCsr request it signed.
  const { argument, certificate } = await signedRequest("CreateObject",
                                                        { answer: state.csrAnswer, keyId: state.keyId });
  const xml = await client.createObject(argument);
  log(`CreateObject: certificate stored\n${certificate}`);
  return { xml, certificate };
}

// What the user reads about a failure: the client's message for its category, with the error word.
function explain(error) {
  return error.userMessage ? `${error.userMessage} [${error.category}: ${error.message}]` : String(error.message || error);
}

// Buttons report failures in the log; scripted callers get the rejection.
function button(id, action) {
  $(id).addEventListener("click", () => action().catch((error) => log(explain(error), true)));
}

async function start() {
  const config = await (await fetch("/api/config")).json();
  state.modules = config.modules;
  $("module").replaceChildren(...config.modules.map((path, index) => new Option(path, index)));
  $("module").addEventListener("change", () => { state.module = Number($("module").value); });
  button("connect", connect);
  button("slots", () => listSlots());
  button("certificates", () => readCertificates());
  button("csr", () => generateCsr());
  button("store", () => storeCertificate());
  try {
    const { version } = await client.detect();
    $("status").textContent = `Scriva extension ${version} found. Press Connect.`;
  } catch (error) {
    $("status").textContent = explain(error);
    $("status").className = "error";
  }
}

window.scrivaDemo = { client, state, ready: start(), connect, listSlots, selectToken, readCertificates, generateCsr,
                      storeCertificate };
