#!/usr/bin/env node
// Measures tavk05 serve with the technician's page in headless chromium:
// live view on a virtual unit at fps=20 for a while, then the share of the
// frames the scanner read that reached the canvas, the delay from the read to
// the canvas, and the processor time the service spends per frame beside the
// tavk05 command's own live view of the same unit.
//
//   node bench/serve-measure.mjs build/x86_64/bin/tavk05 build/x86_64/lib/libtavk05-virtual.so [SECONDS]
import { execFileSync, spawn } from "node:child_process";
import { mkdtempSync, readFileSync, rmSync } from "node:fs";
import { createRequire } from "node:module";
import { tmpdir } from "node:os";
import { dirname, join, resolve } from "node:path";
import { createInterface } from "node:readline";
import { fileURLToPath } from "node:url";

const require = createRequire(join(dirname(fileURLToPath(import.meta.url)), "..", "tests", "web", "package.json"));
const { chromium } = require("playwright-core");
const [tavk05, lib, seconds = "15"] = process.argv.slice(2).map((a, i) => (i < 2 ? resolve(a) : a));
const UNITS = "0:model=7,fps=20";
const home = mkdtempSync(join(tmpdir(), "tavk05-measure-"));
const env = { ...process.env, XDG_CONFIG_HOME: join(home, "config"), TAVK05_CONF: join(home, "rf.conf"),
              TAVK05_VIRTUAL_LIB: lib };
const ticks = 100;  // USER_HZ
const cpuMs = (pid, task = "") => {
  const f = readFileSync(`/proc/${pid}${task}/stat`, "utf8").split(") ")[1].split(" ");
  return ((Number(f[11]) + Number(f[12])) * 1000) / ticks;
};
const percentile = (a, p) => [...a].sort((x, y) => x - y)[Math.min(a.length - 1, Math.floor((p / 100) * a.length))];

const service = spawn(tavk05, [`--virtual=${UNITS}`, "serve", "--port", "0"], { env, stdio: ["ignore", "pipe", "inherit"] });
const url = await new Promise((r) => createInterface({ input: service.stdout }).once("line", r));
// The re-executed command keeps its process id: the service is this pid.
const browser = await chromium.launch({
  executablePath: "/usr/bin/chromium",
  args: ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync"],
});
const page = await browser.newPage();
await page.goto(url);
await page.waitForSelector("body[data-ready='1']");
// The service's I/O thread (the process's first) does all the serving; the
// scanner's worker thread runs the driver as the command does.
const ioThread = `/task/${service.pid}`;
const cpuBefore = cpuMs(service.pid), ioBefore = cpuMs(service.pid, ioThread);
// Live through the page's own client: threshold 100 is never reached, so the
// acquisition runs until its time-out.
const measured = await page.evaluate(async (ms) => {
  const stats = window.tavk05Stats;
  stats.frames = 0; stats.missed = 0; stats.last = 0; stats.delays = [];
  const { connect, drawFrame } = await import("/tavk05.js");
  const canvas = document.getElementById("view");
  // A second connection is not the technician (no new cookie is needed: the
  // page's own connection's cookie is sent by the browser).
  const service = await connect({ url: `ws://${location.host}/v1/ws`, token: null });
  let first = 0, last = 0, drawn = 0;
  const delays = [];
  const done = await service.live(0, { threshold: 100, timeout: ms, onFrame: (f) => {
    drawFrame(canvas, f);
    delays.push(Date.now() - f.readMs);
    if (!first) first = f.number;
    last = f.number;
    drawn += 1;
  } }).catch((e) => ({ error: e.message }));
  return { done, drawn, first, last, delays };
}, Number(seconds) * 1000);
const cpuService = cpuMs(service.pid) - cpuBefore, cpuIo = cpuMs(service.pid, ioThread) - ioBefore;
await browser.close();
service.kill("SIGTERM");

// The command's own live view of the same unit, for the driver's share.
const timed = execFileSync("bash", ["-c", `"$0" --virtual="$1" live --threshold 100 --timeout ${Number(seconds) * 1000} --no-picture 2>/dev/null; times`, tavk05, UNITS],
                           { env, encoding: "utf8" });
const commandFrames = Number(timed.match(/ended after (\d+) frames/)[1]);
const child = timed.trim().split("\n").pop().match(/(\d+)m([\d.]+)s (\d+)m([\d.]+)s/);
const cpuCommand = (Number(child[1]) * 60 + Number(child[2]) + Number(child[3]) * 60 + Number(child[4])) * 1000;
rmSync(home, { recursive: true, force: true });

const read = measured.done.frames;
console.log(`frames read by the scanner: ${read}; drawn on the canvas: ${measured.drawn} (${((100 * measured.drawn) / read).toFixed(1)} %)`);
const within = measured.delays.filter((d) => d <= 50).length;
console.log(`delay from read to canvas: median ${percentile(measured.delays, 50).toFixed(1)} ms, 95 % ${percentile(measured.delays, 95).toFixed(1)} ms, ` +
            `max ${Math.max(...measured.delays).toFixed(1)} ms; within one frame (50 ms): ${((100 * within) / measured.delays.length).toFixed(1)} %`);
console.log(`service's I/O thread: ${(cpuIo / read).toFixed(2)} ms of processor time a frame`);
const perService = cpuService / read, perCommand = cpuCommand / commandFrames;
console.log(`processor time a frame: service ${perService.toFixed(2)} ms, the command's live view ${perCommand.toFixed(2)} ms ` +
            `(both include the virtual scanner and the driver); the service adds ${(perService - perCommand).toFixed(2)} ms`);
