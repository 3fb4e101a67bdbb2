// Types of scriva-client.js, the page client of the Scriva browser extension.

export type ScrivaMethod =
  | "CreateInstance" | "GetVersion" | "GetNonce" | "SetProperty" | "BringToFront"
  | "GetSlots" | "GetCertificates" | "GenerateCsr" | "CreateObject" | "Terminate" | "DisposeInstance";

export declare const METHODS: readonly ScrivaMethod[];

/** What the page should do about an error; docs/errors.md gives the category of every error word. */
export declare const Category: {
  readonly NOT_INSTALLED: "not-installed";
  readonly HOST_TOO_OLD: "host-too-old";
  readonly CANCELLED: "cancelled";
  readonly PIN: "pin";
  readonly TOKEN_MISSING: "token-missing";
  /** Asking again can help: once, with a fresh nonce and a newly signed request (see withFreshNonce). */
  readonly RETRY: "retry";
  /** The site's signer, requests or address are not what the program accepts: report it; asking again cannot help. */
  readonly SITE_CONFIGURATION: "site-configuration";
  /** The page used the program wrongly (order of calls, argument, property): fix the page. */
  readonly REQUEST_REFUSED: "request-refused";
  readonly TOKEN_FAILURE: "token-failure";
  readonly INTERNAL: "internal";
};
export type ScrivaCategory = (typeof Category)[keyof typeof Category];

/** The language of the user messages. */
export type ScrivaLanguage = "en" | "cs";

export declare function categoryOf(code: string): ScrivaCategory;
/** "cs" for a Czech language tag, else "en"; without one, the page's or the browser's language. */
export declare function messageLanguage(language?: string): ScrivaLanguage;
/** What the page should do about an error word or text, and a sentence for the user ("en", "cs"; else as messageLanguage chooses). */
export declare function describeError(code: string, language?: string): { category: ScrivaCategory; userMessage: string };
/** Negative when version a is older than b, 0 when equal, positive when newer ("2.6.1 (qt)" reads as 2.6.1). */
export declare function compareVersions(a: string, b: string): number;

export declare class ScrivaError extends Error {
  constructor(code: string, method?: string, detail?: string, language?: string);
  readonly name: "ScrivaError";
  /** The error word or text as it came: from the program, the extension or this client. */
  readonly code: string;
  readonly category: ScrivaCategory;
  /** A text for the user, in English or Czech. */
  readonly userMessage: string;
  /** The short method name of the call that failed, when there was one. */
  readonly method?: string;
  /** Further detail from the extension or the client (not for the user). */
  readonly detail?: string;
}

export interface ScrivaClientOptions {
  /** The window the page talks through; default the global window. */
  window?: Window;
  /** Milliseconds to wait for a quick method; default 15000. */
  timeout?: number;
  /** Milliseconds to wait for a token operation (the user enters a PIN meanwhile); default 300000. */
  tokenTimeout?: number;
  /** Milliseconds to wait for the extension to answer; default 1000. */
  detectTimeout?: number;
  /** Language of ScrivaError.userMessage ("en", "cs"); default the page's <html lang>, then the browser's. */
  language?: string;
  /** createInstance checks GetVersion against this ("2.6.1") and fails with HostTooOld below it. */
  minimumHostVersion?: string;
}

export interface ScrivaCallOptions {
  timeout?: number;
}

export interface ScrivaProperties {
  MinimalWindowDisplayTime?: number;
  Language?: string;
  ResponseSigningCertificate?: { Certificate: string; OcspResponse?: string; Crl?: string };
}

export declare class ScrivaClient {
  constructor(options?: ScrivaClientOptions);
  /** The program's version as GetVersion answered it during createInstance with a minimum version set. */
  readonly hostVersion: string | null;
  /** The extension's version; rejects with ExtensionNotAvailable or OriginNotAllowed. */
  detect(): Promise<{ version: string }>;
  call(name: ScrivaMethod, argument?: string | null, options?: ScrivaCallOptions): Promise<string | null>;
  createInstance(): Promise<null>;
  /**
   * Runs attempt with a fresh nonce (the page has its server sign a request with it and sends that);
   * once more with another fresh nonce when the first attempt fails with Category.RETRY.
   */
  withFreshNonce<T>(attempt: (nonce: string) => Promise<T>): Promise<T>;
  disposeInstance(): Promise<null>;
  getNonce(): Promise<string>;
  getVersion(): Promise<string>;
  bringToFront(): Promise<null>;
  terminate(): Promise<null>;
  setProperty(properties: ScrivaProperties | string): Promise<null>;
  /** Each token operation takes the base64 signed request from the page's server and resolves with the answer XML. */
  getSlots(signedRequest: string, options?: ScrivaCallOptions): Promise<string>;
  getCertificates(signedRequest: string, options?: ScrivaCallOptions): Promise<string>;
  generateCsr(signedRequest: string, options?: ScrivaCallOptions): Promise<string>;
  createObject(signedRequest: string, options?: ScrivaCallOptions): Promise<string>;
}
