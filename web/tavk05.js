// tavk05.js: the client of tavk05 serve, the local service of the TAVK05
// fingerprint scanners (protocol version 1, tavk05-serve(1)). A plain ES
// module: copy it beside your page and import it.
//
//   import { connect, drawFrame } from "./tavk05.js";
//   const service = await connect({ onPairing: () => show("ask the technician to approve this site") });
//   const { blob } = await service.capture(0, { format: "png", onFrame: (f) => drawFrame(canvas, f) });

export const PROTOCOL = 1;
export const DEFAULT_URL = "ws://127.0.0.1:7405/v1/ws";
const TOKEN_KEY = "tavk05-token";

export class Tavk05Error extends Error {
  constructor(code, message) {
    super(message || code);
    this.code = code;
  }
}

// A live frame: number (counted per acquisition), scanner, quality 0..100,
// rollState (0 live, 1 waiting for the finger to roll, 2 rolling), width,
// height, status (0, or 53 after a failed read), readMs (when the service
// read it, ms since 1970), pixels (width * height grey levels).
export function parseFrame(buffer) {
  const view = new DataView(buffer);
  const magic = String.fromCharCode(view.getUint8(0), view.getUint8(1), view.getUint8(2), view.getUint8(3));
  if (magic !== "TVKF" || view.getUint16(4, true) !== PROTOCOL) return null;
  const header = view.getUint16(6, true);
  const width = view.getUint16(16, true), height = view.getUint16(18, true);
  if (buffer.byteLength < header + width * height) return null;
  return {
    number: view.getUint32(8, true),
    scanner: view.getUint16(12, true),
    quality: view.getUint8(14),
    rollState: view.getUint8(15),
    width, height,
    status: view.getUint32(20, true),
    readMs: view.getFloat64(24, true),
    pixels: new Uint8Array(buffer, header, width * height),
  };
}

// Draws a frame on a canvas of any size (the frame is scaled to it): straight
// into a canvas of the frame's size, through a scratch canvas into any other.
// The RGBA image is kept per canvas from frame to frame.
const drawState = new WeakMap();
export function drawFrame(canvas, frame) {
  let state = drawState.get(canvas);
  if (!state || state.frameWidth !== frame.width || state.frameHeight !== frame.height ||
      state.canvasWidth !== canvas.width || state.canvasHeight !== canvas.height) {
    const direct = canvas.width === frame.width && canvas.height === frame.height;
    const target = direct ? canvas : new OffscreenCanvas(frame.width, frame.height);
    const context = target.getContext("2d");
    const image = context.createImageData(frame.width, frame.height);
    state = { frameWidth: frame.width, frameHeight: frame.height, canvasWidth: canvas.width,
              canvasHeight: canvas.height, direct, target, context, image,
              rgba: new Uint32Array(image.data.buffer) };
    drawState.set(canvas, state);
  }
  const { rgba } = state;
  const grey = frame.pixels;
  for (let i = 0; i < grey.length; ++i) rgba[i] = 0xff000000 | (grey[i] * 0x010101);
  state.context.putImageData(state.image, 0, 0);
  if (!state.direct) canvas.getContext("2d").drawImage(state.target, 0, 0, canvas.width, canvas.height);
}

// Connects and says hello. Resolves with a Service once the service accepts
// this page; an origin not yet paired first waits for the technician
// (onPairing is called), then keeps the token it is given. Options: url,
// token (default: the one this origin stored), storeToken(token),
// onPairing(origin).
export function connect(options = {}) {
  const url = options.url || DEFAULT_URL;
  const storage = globalThis.localStorage;
  const token = options.token !== undefined ? options.token : storage ? storage.getItem(TOKEN_KEY) : null;
  const storeToken = options.storeToken || ((t) => storage && storage.setItem(TOKEN_KEY, t));
  return new Promise((resolve, reject) => {
    const service = new Service(new WebSocket(url));
    service._onWelcome = (msg) => resolve(service);
    service._onHelloError = reject;
    service._onPaired = (msg) => storeToken(msg.token);
    service._onPairing = (msg) => options.onPairing && options.onPairing(msg.origin);
    service.ws.addEventListener("open", () => {
      const hello = { type: "hello", version: PROTOCOL };
      if (token) hello.token = token;
      service.ws.send(JSON.stringify(hello));
    });
    service.ws.addEventListener("close", (event) => {
      reject(new Tavk05Error("closed", `the service closed the connection (${event.code} ${event.reason})`));
    });
  });
}

export class Service extends EventTarget {
  constructor(ws) {
    super();
    this.ws = ws;
    ws.binaryType = "arraybuffer";
    this.scanners = [];
    this.formats = [];
    this.role = null;
    this._nextId = 1;
    this._pending = new Map();  // request id -> {resolve, reject}
    this._jobs = new Map();     // job -> {resolve, reject, onFrame, scanner}
    this._results = [];         // result headers waiting for their bytes
    ws.addEventListener("message", (event) => this._message(event.data));
    ws.addEventListener("close", (event) => {
      const error = new Tavk05Error("closed", `connection closed (${event.code} ${event.reason})`);
      for (const p of this._pending.values()) p.reject(error);
      for (const j of this._jobs.values()) j.reject(error);
      this._pending.clear();
      this._jobs.clear();
      this.dispatchEvent(new CustomEvent("close", { detail: event }));
    });
  }

  close() { this.ws.close(); }

  _send(msg) {
    const id = this._nextId++;
    this.ws.send(JSON.stringify({ ...msg, id }));
    return new Promise((resolve, reject) => this._pending.set(id, { resolve, reject }));
  }

  _message(data) {
    if (typeof data !== "string") {
      const frame = parseFrame(data);
      if (frame) {
        for (const job of this._jobs.values()) {
          if (job.scanner === frame.scanner && job.onFrame) job.onFrame(frame);
        }
        return;
      }
      const header = this._results.shift();
      if (header) header.resolve({ ...header.msg, blob: new Blob([data], { type: header.msg.mediaType }) });
      return;
    }
    const msg = JSON.parse(data);
    const waiting = msg.id !== undefined ? this._pending.get(msg.id) : undefined;
    switch (msg.type) {
      case "welcome":
        this.scanners = msg.scanners;
        this.formats = msg.formats;
        this.role = msg.role;
        if (this._onWelcome) this._onWelcome(msg);
        this._onWelcome = null;
        return;
      case "paired": if (this._onPaired) this._onPaired(msg); return;
      case "pairing": if (this._onPairing) this._onPairing(msg); return;
      case "result":
        this._pending.delete(msg.id);
        this._results.push({ msg, resolve: waiting ? waiting.resolve : (r) => this._resultForJob(r) });
        return;
      case "done": this._done(msg); return;
      case "error":
      case "busy": {
        const error = new Tavk05Error(msg.type === "busy" ? "busy" : msg.code, msg.message);
        if (waiting) {
          this._pending.delete(msg.id);
          waiting.reject(error);
        } else if (this._onHelloError) {
          this._onHelloError(error);
        }
        this.dispatchEvent(new CustomEvent("error", { detail: error }));
        return;
      }
      default:
        if (waiting) {
          this._pending.delete(msg.id);
          waiting.resolve(msg);
        } else {
          this.dispatchEvent(new CustomEvent(msg.type, { detail: msg }));
        }
    }
  }

  _done(msg) {
    const job = this._jobs.get(msg.job);
    if (!job) return;
    if (msg.capture === undefined) {
      this._jobs.delete(msg.job);
      if (msg.error || (msg.status !== 0 && !msg.stopped)) {
        job.reject(new Tavk05Error(msg.error || "status", msg.error || `status ${msg.status}: ${msg.statusText}`));
      } else {
        job.resolve(msg);
      }
      return;
    }
    job.done = msg;  // the result follows with the capture's first format
    this._byCapture = this._byCapture || new Map();
    this._byCapture.set(msg.capture, msg.job);
  }

  _resultForJob(result) {
    const jobId = this._byCapture && this._byCapture.get(result.capture);
    const job = jobId !== undefined ? this._jobs.get(jobId) : undefined;
    if (!job) return;
    this._byCapture.delete(result.capture);
    this._jobs.delete(jobId);
    job.resolve({ ...job.done, ...result });
  }

  async _acquire(type, scanner, options) {
    const { onFrame, ...rest } = options;
    const started = await this._send({ type, scanner, ...rest });
    return new Promise((resolve, reject) => this._jobs.set(started.job, { resolve, reject, onFrame, scanner }));
  }

  // Guided single capture: clear glass, then the finger. Resolves with
  // {capture, quality, format, blob, ...}. Options: format ("png", "wsq",
  // "fir", "an2"), timeout (ms), onFrame(frame).
  capture(scanner, options = {}) { return this._acquire("capture", scanner, options); }
  // Live view until a frame reaches the threshold; the last frame as a capture.
  live(scanner, options = {}) { return this._acquire("live", scanner, options); }
  // Rolled print: the finger is placed, then rolled across the glass.
  roll(scanner, options = {}) { return this._acquire("roll", scanner, options); }
  background(scanner) { return this._acquire("background", scanner, {}); }
  // Brightness and contrast 0..100, gain 1, 2, 4 or 8.
  settings(scanner, values) { return this._acquire("settings", scanner, values); }
  stop(scanner) { return this._send({ type: "stop", scanner }); }
  release(scanner) { return this._send({ type: "release", scanner }); }
  // Another format of one of the last captures: {format, bytes, blob, ...}.
  result(capture, format) { return this._send({ type: "result", capture, format }); }
  listScanners() { return this._send({ type: "scanners" }).then((m) => (this.scanners = m.scanners)); }

  // The technician's page only.
  approve(origin) { return this._send({ type: "approve", origin }); }
  deny(origin) { return this._send({ type: "deny", origin }); }
  revoke(origin) { return this._send({ type: "revoke", origin }); }
}
