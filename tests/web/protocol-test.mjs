// tavk05 serve against hostile and careless clients, without a browser:
// Host and Origin checks, the technician's login, pairing and tokens,
// leases, malformed messages and limits, eight scanners at once, results.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { statSync, writeFileSync } from "node:fs";
import { join } from "node:path";
import { after, before, test } from "node:test";
import { Client, TAVK05, hello, startService, technicianCookie } from "./serve-harness.mjs";

const APP = "https://app.example";
let service, tech;

before(async () => {
  // Eight units: the person at each glass, two models that roll.
  const units = Array.from({ length: 8 }, (_, i) => `${i}:model=${[7, 5, 3, 4, 6, 8, 7, 5][i]},seed=${i + 1}`).join(";");
  service = await startService(units);
  const login = await technicianCookie(service);
  tech = await hello(service, service.origin, null, { cookie: login.value });
  await tech.type("welcome");
});

after(async () => {
  assert.equal(await service.stop(), 0, "the service ends cleanly on SIGTERM");
});

async function httpGet(path, headers = {}) {
  // fetch() forbids setting Host; a raw request does not.
  const http = await import("node:http");
  return new Promise((resolve, reject) => {
    const req = http.request({ host: "127.0.0.1", port: service.port, path, headers }, (res) => {
      res.resume();
      res.on("end", () => resolve(res));
    });
    req.on("error", reject);
    req.end();
  });
}

test("Host names the loopback and the port, or nothing is served (DNS rebinding)", async () => {
  for (const host of ["evil.example", `evil.example:${service.port}`, `127.0.0.1:${service.port + 1}`, "127.0.0.1"]) {
    assert.equal((await httpGet("/", { Host: host })).statusCode, 421, `Host: ${host}`);
  }
  for (const host of [`127.0.0.1:${service.port}`, `localhost:${service.port}`, `[::1]:${service.port}`]) {
    assert.equal((await httpGet("/", { Host: host })).statusCode, 200, `Host: ${host}`);
  }
  const rebound = new Client(service, { origin: APP, host: `rebind.example:${service.port}` });
  await assert.rejects(rebound.opened, { status: 421 });
});

test("every answer is uncached and varies with Origin; CORS only for paired origins, by name", async () => {
  const res = await httpGet("/");
  assert.equal(res.headers["cache-control"], "no-store");
  assert.equal(res.headers.vary, "Origin");
  const unpaired = await httpGet("/v1/version", { Origin: "https://stranger.example" });
  assert.equal(unpaired.statusCode, 403);
  assert.equal(unpaired.headers["access-control-allow-origin"], undefined);
  for (const origin of ["null", "file://", "https://a.example/path", "HTTPS://A.EXAMPLE", "http://public.example"]) {
    assert.equal((await httpGet("/v1/version", { Origin: origin })).statusCode, 403, `Origin: ${origin}`);
    const c = new Client(service, { origin });
    await assert.rejects(c.opened, { status: 403 }, `upgrade from ${origin}`);
  }
  const own = await httpGet("/v1/version", { Origin: service.origin });
  assert.equal(own.headers["access-control-allow-origin"], service.origin);
});

test("the technician's URL works once; its cookie is HttpOnly and SameSite=Strict", async () => {
  const again = await technicianCookie(service);
  assert.equal(again.status, 403, "the printed URL was used by before()");
  const wrong = await technicianCookie(service, service.url.replace(/secret=.*/, "secret=00"));
  assert.equal(wrong.status, 403);
  const nextUrl = service.log.map((l) => l.match(/next technician's URL: (\S+)/)).filter(Boolean).pop()[1];
  const fresh = await technicianCookie(service, nextUrl);
  assert.equal(fresh.status, 303);
  assert.match(fresh.cookie, /HttpOnly/);
  assert.match(fresh.cookie, /SameSite=Strict/);
  // The service's own origin without the cookie is not the technician.
  const impostor = await hello(service, service.origin, null);
  assert.equal((await impostor.type("error")).code, "unauthorized");
  assert.equal((await impostor.closed).code, 1008);
});

test("an origin pairs when the technician approves, keeps a 0600 token, and loses it when revoked", async () => {
  const app = await hello(service, APP, null);
  assert.equal((await app.type("pairing")).state, "pending");
  const seen = await tech.next((m) => m.type === "pairings" && m.pending.includes(APP), "pairing request");
  assert.deepEqual(seen.pending, [APP]);
  assert.equal((await app.ask({ type: "capture", scanner: 0 })).code, "not-paired");
  assert.equal((await tech.ask({ type: "approve", origin: APP })).type, "ok");
  const { token } = await app.type("paired");
  assert.equal((await app.type("welcome")).role, "client");

  const folder = join(service.home, "config", "tavk05");
  assert.equal(statSync(folder).mode & 0o777, 0o700);
  assert.equal(statSync(join(folder, "origins.json")).mode & 0o777, 0o600);

  const again = await hello(service, APP, token);
  assert.equal((await again.type("welcome")).scanners.length, 8);
  const forged = await hello(service, APP, "0".repeat(64));
  assert.equal((await forged.type("error")).code, "unauthorized");
  const missing = await hello(service, APP, null);
  assert.equal((await missing.type("error")).code, "unauthorized");
  const elsewhere = await hello(service, "https://other.example", token);
  assert.equal((await elsewhere.type("error")).code, "unauthorized", "a token belongs to its origin");

  assert.equal((await tech.ask({ type: "revoke", origin: APP })).type, "ok");
  assert.equal((await again.type("error")).code, "revoked");
  await again.closed;
  const revoked = await hello(service, APP, token);
  assert.equal((await revoked.type("error")).code, "unauthorized");
  await app.closed;
});

async function pairedClient(origin) {
  const c = await hello(service, origin, null);
  await tech.next((m) => m.type === "pairings" && m.pending.includes(origin), "pairing request");
  await tech.ask({ type: "approve", origin });
  await c.type("welcome");
  return c;
}

test("malformed, mistyped and out-of-range messages get an error; the connection and the service go on", async () => {
  const c = await pairedClient("https://hostile.example");
  const cases = [
    ["not json", "bad-json"], ["{\"type\":", "bad-json"], ["[1,2]", "bad-message"], ["\"capture\"", "bad-message"],
    ["42", "bad-message"], ["null", "bad-message"], ["{}", "bad-message"], [{ type: 7 }, "bad-message"],
    [{ type: "format-disk" }, "unknown-type"], [{ type: "capture", id: "x", scanner: 0 }, "bad-message"],
    [{ type: "capture" }, "bad-message"], [{ type: "capture", scanner: "0" }, "bad-message"],
    [{ type: "capture", scanner: 99 }, "bad-message"], [{ type: "capture", scanner: -1 }, "bad-message"],
    [{ type: "capture", scanner: 0.5 }, "bad-message"], [{ type: "capture", scanner: 0, timeout: 0 }, "bad-value"],
    [{ type: "capture", scanner: 0, timeout: 1e12 }, "bad-value"], [{ type: "live", scanner: 0, threshold: 101 }, "bad-value"],
    [{ type: "capture", scanner: 0, format: "exe" }, "bad-value"], [{ type: "capture", scanner: 0, format: 1 }, "bad-value"],
    [{ type: "settings", scanner: 0, brightness: 101 }, "bad-value"], [{ type: "settings", scanner: 0, gain: 3 }, "bad-value"],
    [{ type: "settings", scanner: 0, contrast: "50" }, "bad-value"], [{ type: "result", format: "png" }, "bad-message"],
    [{ type: "result", capture: 999, format: "png" }, "not-found"], [{ type: "hello", version: 1 }, "bad-message"],
    [{ type: "approve", origin: "https://hostile.example" }, "unknown-type"], [Buffer.from([1, 2, 3]), "bad-message"],
    ["[".repeat(8000) + "]".repeat(8000), "bad-message"],
  ];
  for (const [msg, code] of cases) {
    c.send(msg);
    const answer = await c.next((m) => m.type === "error", `error for ${String(JSON.stringify(msg)).slice(0, 60)}`);
    assert.equal(answer.code, code, `answer to ${String(JSON.stringify(msg)).slice(0, 60)}`);
  }
  assert.equal((await c.ask({ type: "scanners" })).scanners.length, 8, "the connection still answers");
  // Over the message limit the connection closes (1009); the service stays.
  c.send(JSON.stringify({ type: "scanners", pad: "x".repeat(20000) }));
  assert.equal((await c.closed).code, 1009);
  // A flood is answered with errors, not served.
  const flood = await pairedClient("https://flood.example");
  for (let i = 0; i < 200; ++i) flood.send({ type: "scanners" });
  assert.equal((await flood.next((m) => m.type === "error", "rate error")).code, "rate-limited");
  assert.ok(service.alive());
});

test("one client per scanner: the second is told busy; a client gone mid-acquisition frees the scanner", async () => {
  const a = await pairedClient("https://first.example");
  const b = await pairedClient("https://second.example");
  assert.equal((await a.ask({ type: "live", scanner: 1, threshold: 100, timeout: 60000 })).type, "started");
  await a.next((m) => m.binary, "a live frame");
  const busy = await b.ask({ type: "capture", scanner: 1 });
  assert.equal(busy.type, "busy");
  assert.equal(busy.scanner, 1);
  assert.equal((await b.ask({ type: "stop", scanner: 1 })).type, "busy", "nor can the second stop it");
  a.ws.terminate();  // gone without a word
  const deadline = Date.now() + 60000;
  let answer;
  do {
    answer = await b.ask({ type: "settings", scanner: 1, brightness: 50 });
  } while (answer.type === "busy" && Date.now() < deadline && (await new Promise((r) => setTimeout(r, 200)), true));
  assert.equal(answer.type, "started", "the scanner is free once its acquisition stopped");
  const done = await b.type("done");
  assert.equal(done.settings.brightness, 50);
  await logShows(/live on scanner 1 ended without its client: stopped/);
  assert.equal((await b.ask({ type: "release", scanner: 1 })).type, "ok");
});

// The service's standard error shows a line (it is read as it comes).
async function logShows(pattern) {
  const deadline = Date.now() + 30000;
  while (!service.log.some((l) => pattern.test(l))) {
    assert.ok(Date.now() < deadline, `no line ${pattern} in the service's log`);
    await new Promise((r) => setTimeout(r, 100));
  }
}

function frameHeader(buf) {
  return { magic: buf.subarray(0, 4).toString(), number: buf.readUInt32LE(8), scanner: buf.readUInt16LE(12),
           quality: buf[14], roll: buf[15], width: buf.readUInt16LE(16), height: buf.readUInt16LE(18) };
}

test("a client that stops reading is sent the newest frame, never a queue of old ones", async () => {
  const c = await pairedClient("https://slow.example");
  assert.equal((await c.ask({ type: "live", scanner: 3, threshold: 100, timeout: 6000 })).type, "started");
  c.ws.pause();  // the socket's buffers fill; then the service must drop
  await new Promise((r) => setTimeout(r, 5000));
  c.ws.resume();
  const done = await c.type("done");
  const newest = await c.next((m) => m.binary && frameHeader(m.binary).number === done.frames, "the acquisition's last frame");
  const numbers = c.queue.filter((m) => m.binary).map((m) => frameHeader(m.binary).number).concat(frameHeader(newest.binary).number);
  assert.ok(numbers.length < done.frames, `${numbers.length} of ${done.frames} frames sent`);
  assert.deepEqual(numbers, [...numbers].sort((a, b) => a - b), "in the order read");
  await c.close();
  await logShows(/origin=https:\/\/slow.example disconnected, [1-9]\d* frames dropped/);
});

test("eight scanners capture at once; frames are numbered; results come in every format", async () => {
  const c = await pairedClient("https://eight.example");
  for (let s = 0; s < 8; ++s) assert.equal((await c.ask({ type: "capture", scanner: s, format: "wsq" })).type, "started");
  const captures = new Map();
  for (let n = 0; n < 8; ++n) {
    const done = await c.next((m) => m.type === "done", "capture done");
    assert.equal(done.status, 0, `scanner ${done.scanner}: ${done.statusText} ${done.error || ""}`);
    captures.set(done.scanner, done.capture);
  }
  assert.equal(captures.size, 8);
  const frames = c.queue.filter((m) => m.binary && m.binary.subarray(0, 4).toString() === "TVKF").map((m) => frameHeader(m.binary));
  assert.ok(frames.length > 0);
  assert.equal(frames[0].width, 600);
  assert.ok(frames.every((f) => f.number >= 1));
  const dir = service.home;
  const wanted = { png: "\x89PNG", wsq: "\xff\xa0", fir: "FIR\0", an2: "1.001:" };
  for (const [format, magic] of Object.entries(wanted)) {
    const head = await c.ask({ type: "result", capture: captures.get(0), format });
    assert.equal(head.format, format, JSON.stringify(head));
    const { binary } = await c.next((m) => m.binary && m.binary.length === head.bytes, `${format} bytes`);
    assert.equal(binary.subarray(0, magic.length).toString("latin1"), magic, `${format} begins as its format does`);
    writeFileSync(join(dir, `capture.${format}`), binary);
  }
  // The PNG carries the driver's corner marks.
  const verify = execFileSync(TAVK05, ["verify", join(dir, "capture.png")], { encoding: "utf8" });
  assert.match(verify, /4 of 4 corner marks hold/);
  await logShows(/audit: .* origin=https:\/\/eight.example capture on scanner 7: ok/);
  assert.ok(!service.log.some((l) => l.length > 400), "audit lines carry no image data");
});
