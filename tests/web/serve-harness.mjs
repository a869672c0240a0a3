// Starts `tavk05 serve` on virtual scanners for the web tests, with its own
// configuration folder, and speaks to it as a WebSocket client would.
import { spawn } from "node:child_process";
import { mkdtempSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { createInterface } from "node:readline";
import WebSocket from "ws";

export const WAIT_MS = 60000;  // generous: the machine may be loaded

// argv: tavk05 virtual-library [web-folder]
export const [TAVK05, VIRTUAL_LIB] = process.argv.slice(2);

export async function startService(units) {
  const home = mkdtempSync(join(tmpdir(), "tavk05-serve-"));
  const env = { ...process.env, XDG_CONFIG_HOME: join(home, "config"), TAVK05_CONF: join(home, "rf.conf"),
                TAVK05_VIRTUAL_LIB: VIRTUAL_LIB };
  const proc = spawn(TAVK05, [`--virtual=${units}`, "serve", "--port", "0"], { env, stdio: ["ignore", "pipe", "pipe"] });
  const log = [];
  createInterface({ input: proc.stderr }).on("line", (line) => log.push(line));
  const url = await new Promise((resolve, reject) => {
    createInterface({ input: proc.stdout }).once("line", resolve);
    proc.once("exit", (code) => reject(new Error(`tavk05 serve exited with ${code}: ${log.join("\n")}`)));
  });
  const port = Number(new URL(url).port);
  const service = {
    proc, url, port, home, log,
    origin: `http://127.0.0.1:${port}`,
    wsUrl: `ws://127.0.0.1:${port}/v1/ws`,
    alive: () => proc.exitCode === null && proc.signalCode === null,
    async stop() {
      if (service.alive()) {
        const exited = new Promise((resolve) => proc.once("exit", resolve));
        proc.kill("SIGTERM");
        await exited;
      }
      rmSync(home, { recursive: true, force: true });
      return proc.exitCode;
    },
  };
  return service;
}

// The technician's cookie, from the one-time URL.
export async function technicianCookie(service, url = service.url) {
  const res = await fetch(url, { redirect: "manual" });
  const cookie = res.headers.get("set-cookie");
  return { status: res.status, cookie, value: cookie ? cookie.split(";")[0] : "" };
}

// A WebSocket client with a queue of the messages it received.
export class Client {
  constructor(service, { origin, cookie, host } = {}) {
    const headers = {};
    if (cookie) headers.Cookie = cookie;
    if (host) headers.Host = host;
    this.ws = new WebSocket(service.wsUrl, { origin, headers, maxPayload: 64 << 20 });
    this.queue = [];
    this.waiters = [];
    this.closed = new Promise((resolve) => this.ws.once("close", (code, reason) => resolve({ code, reason: String(reason) })));
    this.opened = new Promise((resolve, reject) => {
      this.ws.once("open", resolve);
      this.ws.once("unexpected-response", (req, res) => reject(Object.assign(new Error(`HTTP ${res.statusCode}`), { status: res.statusCode })));
      this.ws.once("error", reject);
    });
    this.ws.on("message", (data, binary) => {
      this.queue.push(binary ? { binary: data } : JSON.parse(String(data)));
      for (const w of this.waiters.splice(0)) w();
    });
  }
  send(msg) { this.ws.send(typeof msg === "string" || Buffer.isBuffer(msg) ? msg : JSON.stringify(msg)); }
  // The next message that matches (others stay queued, in order).
  async next(match = () => true, what = "a message") {
    const deadline = Date.now() + WAIT_MS;
    for (;;) {
      const i = this.queue.findIndex(match);
      if (i >= 0) return this.queue.splice(i, 1)[0];
      if (Date.now() > deadline) throw new Error(`no ${what} within ${WAIT_MS} ms; queued: ${JSON.stringify(this.queue.filter((m) => !m.binary)).slice(0, 400)}`);
      await new Promise((resolve) => { this.waiters.push(resolve); setTimeout(resolve, 1000); });
    }
  }
  type(t) { return this.next((m) => m.type === t, `"${t}" message`); }
  // A request and its answer with the same id.
  async ask(msg) {
    const id = (this.lastId = (this.lastId || 0) + 1);
    this.send({ ...msg, id });
    return this.next((m) => m.id === id, `answer to ${JSON.stringify(msg).slice(0, 80)}`);
  }
  close() { this.ws.close(); return this.closed; }
}

// A client of origin that says hello (with token when given).
export async function hello(service, origin, token, extra = {}) {
  const c = new Client(service, { origin, ...extra });
  await c.opened;
  c.send(token ? { type: "hello", version: 1, token } : { type: "hello", version: 1 });
  return c;
}
