// tavk05 serve in Debian's chromium, headless: the client draws frames; the technician's page shows
// live frames and downloads captures; a page of another origin captures only
// once paired; a page the browser takes for a public site reaches the service
// only once the user allowed it, and then pairs and captures as any other.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { mkdtempSync, readFileSync, rmSync } from "node:fs";
import { createServer } from "node:http";
import { tmpdir } from "node:os";
import { dirname, join } from "node:path";
import { fileURLToPath } from "node:url";
import { after, before, test } from "node:test";
import { chromium } from "playwright-core";
import { TAVK05, WAIT_MS, startService } from "./serve-harness.mjs";

const WEB = join(dirname(fileURLToPath(import.meta.url)), "..", "..", "web");
const WSQTOOL = process.argv[4];
let service, browser, profile, app, appOrigin, publicApp, publicOrigin;

// A web application of its own origin: a page that uses web/tavk05.js.
function appPage(servicePort) {
  return `<!DOCTYPE html><meta charset="utf-8"><p id="state">starting</p><script type="module">
import { connect } from "./tavk05.js";
const state = document.getElementById("state");
try {
  const service = await connect({ url: "ws://127.0.0.1:${servicePort}/v1/ws", onPairing: () => (state.textContent = "pairing") });
  state.textContent = "connected";
  const result = await service.capture(0, { format: "wsq" });
  state.textContent = "captured " + result.format + " " + result.blob.size;
} catch (e) { state.textContent = "failed: " + e.code; }
</script>`;
}

function serveApp(servicePort) {
  const server = createServer((req, res) => {
    const body = req.url === "/tavk05.js" ? readFileSync(join(WEB, "tavk05.js")) : appPage(servicePort);
    res.writeHead(200, { "Content-Type": req.url === "/tavk05.js" ? "text/javascript" : "text/html" });
    res.end(body);
  });
  return new Promise((resolve) => server.listen(0, "127.0.0.1", () => resolve(server)));
}

// The one-time technician's URL the service printed last.
function nextTechnicianUrl() {
  return service.log.map((l) => l.match(/next technician's URL: (\S+)/)).filter(Boolean).pop()[1];
}

before(async () => {
  service = await startService("0:model=7,fps=20;1:model=5,fps=20");
  app = await serveApp(service.port);
  appOrigin = `http://127.0.0.1:${app.address().port}`;
  publicApp = await serveApp(service.port);
  publicOrigin = `http://127.0.0.1:${publicApp.address().port}`;
  profile = mkdtempSync(join(tmpdir(), "tavk05-chromium-"));
  browser = await chromium.launchPersistentContext(profile, {
    executablePath: "/usr/bin/chromium",
    headless: true,
    acceptDownloads: true,
    timeout: WAIT_MS,
    args: ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
           "--disable-background-networking", "--disable-component-update", "--disable-sync",
           `--ip-address-space-overrides=127.0.0.1:${publicApp.address().port}=public`],
  });
  browser.setDefaultTimeout(WAIT_MS);
});

after(async () => {
  await browser?.close();
  app?.close();
  publicApp?.close();
  rmSync(profile, { recursive: true, force: true });
  assert.equal(await service.stop(), 0);
});

test("the technician's page shows live frames, captures, and downloads a PNG with its marks and a WSQ that decodes", async () => {
  const page = await browser.newPage();
  await page.goto(service.url);
  await page.waitForSelector("body[data-ready='1']");
  await page.click("#capture");
  await page.waitForSelector("#downloads button[data-format='wsq']");
  const stats = await page.evaluate(() => window.tavk05Stats);
  assert.ok(stats.frames > 0, "live frames were drawn on the canvas");
  assert.notEqual(await page.textContent("#quality"), "-");
  for (const format of ["png", "wsq"]) {
    const [download] = await Promise.all([page.waitForEvent("download"),
                                          page.click(`#downloads button[data-format='${format}']`)]);
    const path = join(service.home, `page.${format}`);
    await download.saveAs(path);
    if (format === "png") {
      assert.match(execFileSync(TAVK05, ["verify", path], { encoding: "utf8" }), /4 of 4 corner marks hold/);
    } else if (WSQTOOL) {
      execFileSync(WSQTOOL, ["decode", path, join(service.home, "page.pgm")]);
      assert.equal(readFileSync(join(service.home, "page.pgm")).subarray(0, 11).toString(), "P5\n600 600\n");
    }
  }
  await page.close();
});

test("drawFrame puts the grey levels on a canvas of the frame's size and scales them to another", async () => {
  const page = await browser.newPage();
  await page.goto(service.origin + "/");
  const drawn = await page.evaluate(async () => {
    const { drawFrame } = await import("/tavk05.js");
    const frame = (levels) => ({ width: 4, height: 1, pixels: Uint8Array.from(levels) });
    const canvas = (w, h) => Object.assign(document.createElement("canvas"), { width: w, height: h });
    const rgba = (c) => Array.from(c.getContext("2d").getImageData(0, 0, c.width, c.height).data);
    const same = canvas(4, 1), scaled = canvas(8, 2);
    drawFrame(same, frame([0, 1, 128, 255]));
    const first = rgba(same);
    drawFrame(same, frame([9, 8, 7, 6]));  // the kept image takes the new frame
    drawFrame(scaled, frame([77, 77, 77, 77]));
    return { first, second: rgba(same), scaled: rgba(scaled) };
  });
  const grey = (levels) => levels.flatMap((g) => [g, g, g, 255]);
  assert.deepEqual(drawn.first, grey([0, 1, 128, 255]));
  assert.deepEqual(drawn.second, grey([9, 8, 7, 6]));
  assert.deepEqual(drawn.scaled, grey(Array(16).fill(77)));
  await page.close();
});

test("a page of another origin waits for the technician's approval, then captures", async () => {
  const tech = await browser.newPage();
  await tech.goto(nextTechnicianUrl());
  await tech.waitForSelector("body[data-ready='1']");
  const other = await browser.newPage();
  await other.goto(appOrigin + "/");
  await other.waitForFunction(() => document.getElementById("state").textContent === "pairing");
  const row = `#pending div[data-origin='${appOrigin}'] button`;
  await tech.waitForSelector(row);
  assert.equal(await other.textContent("#state"), "pairing", "nothing captured before approval");
  await tech.click(`${row}:text('Approve')`);
  await other.waitForFunction(() => document.getElementById("state").textContent.startsWith("captured"));
  assert.match(await other.textContent("#state"), /^captured wsq \d+/);
  // Once paired the token is kept: a reload captures without asking.
  await other.reload();
  await other.waitForFunction(() => /^(captured|failed)/.test(document.getElementById("state").textContent));
  assert.match(await other.textContent("#state"), /^captured/);
  // Revoked: the stored token no longer opens the service.
  await tech.click(`#allowed li[data-origin='${appOrigin}'] button`);
  await tech.waitForFunction((o) => !document.querySelector(`#allowed li[data-origin='${o}']`), appOrigin);
  await other.reload();
  await other.waitForFunction(() => document.getElementById("state").textContent.startsWith("failed"));
  assert.equal(await other.textContent("#state"), "failed: unauthorized");
  await other.close();
  await tech.close();
});

test("a page the browser takes for a public site reaches the service only with the user's permission", async () => {
  const page = await browser.newPage();
  await page.goto(publicOrigin + "/");
  await page.waitForFunction(() => document.getElementById("state").textContent.startsWith("failed"));
  assert.equal(await page.textContent("#state"), "failed: closed");
  assert.ok(!service.log.some((l) => l.includes(publicOrigin)), "the service never heard from the public page");
  // The user allows the site to reach this machine. Chromium names the
  // permission for loopback addresses "loopback-network" (CDP: loopbackNetwork);
  // its "local-network" covers private addresses and does not open 127.0.0.1.
  const cdp = await browser.newCDPSession(page);
  await cdp.send("Browser.grantPermissions", { origin: publicOrigin, permissions: ["loopbackNetwork"] });
  const tech = await browser.newPage();
  await tech.goto(nextTechnicianUrl());
  await tech.waitForSelector("body[data-ready='1']");
  await page.reload();
  await page.waitForFunction(() => /^(pairing|failed)/.test(document.getElementById("state").textContent));
  assert.equal(await page.textContent("#state"), "pairing");
  assert.ok(service.log.some((l) => l.includes(publicOrigin)), "the service heard from the public page");
  await tech.click(`#pending div[data-origin='${publicOrigin}'] button:text('Approve')`);
  await page.waitForFunction(() => /^(captured|failed)/.test(document.getElementById("state").textContent));
  assert.match(await page.textContent("#state"), /^captured wsq \d+/);
  await page.close();
  await tech.close();
});
