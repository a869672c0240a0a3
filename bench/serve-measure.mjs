#!/usr/bin/env node
// Measures tavk05 serve with the technician's page in headless chromium:
// live view on a virtual unit at fps=20 for a while, then the share of the
// frames the scanner read that reached the canvas, the delay from the frame's
// hand-over by the driver to the canvas (and where it goes), and the
// processor time the service spends per frame beside the tavk05 command's own
// live view of the same unit. The machine's load average is printed with the
// figures: other work on the machine shows in every one of them.
//
//   node bench/serve-measure.mjs build/x86_64/bin/tavk05 build/x86_64/lib/libtavk05-virtual.so [SECONDS]
import { execFileSync, spawn } from "node:child_process";
import { mkdtempSync, readFileSync, readdirSync, rmSync } from "node:fs";
import { createRequire } from "node:module";
import { loadavg, tmpdir } from "node:os";
import { dirname, join, resolve } from "node:path";
import { createInterface } from "node:readline";
import { fileURLToPath } from "node:url";

const require = createRequire(join(dirname(fileURLToPath(import.meta.url)), "..", "tests", "web", "package.json"));
const { chromium } = require("playwright-core");
const [tavk05, lib, seconds = "15"] = process.argv.slice(2).map((a, i) => (i < 2 ? resolve(a) : a));
const FRAME_MS = 50;  // one frame at fps=20
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
const load = () => loadavg().map((l) => l.toFixed(2)).join(" ");
const loadBefore = load();

const service = spawn(tavk05, [`--virtual=${UNITS}`, "serve", "--port", "0"], { env, stdio: ["ignore", "pipe", "inherit"] });
const url = await new Promise((r) => createInterface({ input: service.stdout }).once("line", r));
// The re-executed command keeps its process id: the service is this pid. Its
// I/O thread (the process's first) does all the serving; the scanner's worker
// thread (named tavk05-scan0) runs the driver as the command does.
const ioThread = `/task/${service.pid}`;
const scanThread = `/task/${readdirSync(`/proc/${service.pid}/task`).find(
  (t) => readFileSync(`/proc/${service.pid}/task/${t}/comm`, "utf8").trim() === "tavk05-scan0")}`;
const browser = await chromium.launch({
  executablePath: "/usr/bin/chromium",
  args: ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync"],
});
const page = await browser.newPage();
await page.goto(url);
await page.waitForSelector("body[data-ready='1']");
const cpuBefore = cpuMs(service.pid), ioBefore = cpuMs(service.pid, ioThread), scanBefore = cpuMs(service.pid, scanThread);
// Live through the page's own client: threshold 100 is never reached, so the
// acquisition runs until its time-out. Each frame is drawn as the page draws
// it; the times are taken when the message reached the client and once the
// canvas holds the frame.
const measured = await page.evaluate(async (ms) => {
  const { connect, drawFrame } = await import("/tavk05.js");
  const canvas = document.getElementById("view");
  // A second connection is not the technician (no new cookie is needed: the
  // page's own connection's cookie is sent by the browser).
  const service = await connect({ url: `ws://${location.host}/v1/ws`, token: null });
  const now = () => performance.timeOrigin + performance.now();
  const frames = [];
  const done = await service.live(0, { threshold: 100, timeout: ms, onFrame: (f) => {
    const arrived = now();
    drawFrame(canvas, f);
    frames.push({ number: f.number, read: f.readMs, arrived, drawn: now() });
  } }).catch((e) => ({ error: e.message }));
  return { done, frames };
}, Number(seconds) * 1000);
const cpuService = cpuMs(service.pid) - cpuBefore, cpuIo = cpuMs(service.pid, ioThread) - ioBefore;
const cpuScan = cpuMs(service.pid, scanThread) - scanBefore;
const loadDuring = load();
await browser.close();
service.kill("SIGTERM");

// The command's own live view of the same unit, for the driver's share.
const timed = execFileSync("bash", ["-c", `"$0" --virtual="$1" live --threshold 100 --timeout ${Number(seconds) * 1000} --no-picture 2>/dev/null; times`, tavk05, UNITS],
                           { env, encoding: "utf8" });
const commandFrames = Number(timed.match(/ended after (\d+) frames/)[1]);
const child = timed.trim().split("\n").pop().match(/(\d+)m([\d.]+)s (\d+)m([\d.]+)s/);
const cpuCommand = (Number(child[1]) * 60 + Number(child[2]) + Number(child[3]) * 60 + Number(child[4])) * 1000;
rmSync(home, { recursive: true, force: true });

if (measured.done.error) throw new Error(`live view failed: ${measured.done.error}`);
const read = measured.done.frames;
const { frames } = measured;
const drawn = frames.length;
const skipped = frames.length ? frames[frames.length - 1].number - frames[0].number + 1 - drawn : 0;
const spread = (values) => `median ${percentile(values, 50).toFixed(1)} ms, 95 % ${percentile(values, 95).toFixed(1)} ms, ` +
                           `max ${Math.max(...values).toFixed(1)} ms`;
const delays = frames.map((f) => f.drawn - f.read);
const within = delays.filter((d) => d <= FRAME_MS).length;
console.log(`load average (1, 5, 15 min): ${loadBefore} before, ${loadDuring} at the end of the live view`);
console.log(`frames read by the scanner: ${read} in ${seconds} s (${(read / Number(seconds)).toFixed(1)} a second); ` +
            `drawn on the canvas: ${drawn} (${((100 * drawn) / read).toFixed(1)} %); numbers skipped (dropped for a newer frame): ${skipped}`);
console.log(`delay from hand-over to canvas: ${spread(delays)}; within one frame (${FRAME_MS} ms): ${((100 * within) / drawn).toFixed(1)} %`);
console.log(`  hand-over to the page's client (service, loopback, browser): ${spread(frames.map((f) => f.arrived - f.read))}`);
console.log(`  client to canvas (grey to RGBA, putImageData): ${spread(frames.map((f) => f.drawn - f.arrived))}`);
const perScan = cpuScan / read;
console.log(`processor time a frame: scanner worker ${perScan.toFixed(2)} ms (virtual scanner's read, the driver's ` +
            `image processing, the frame's hand-over), I/O thread ${(cpuIo / read).toFixed(2)} ms (WebSocket send)`);
// The frame is stamped when the driver hands it over, after its image
// processing: the worker's processor time a frame stands for that part (its
// wall time whenever the worker is not kept waiting for a core).
const fromRead = delays.map((d) => d + perScan);
console.log(`read to canvas, estimated (hand-over to canvas + the worker's ${perScan.toFixed(2)} ms): ${spread(fromRead)}; ` +
            `within one frame: ${((100 * fromRead.filter((d) => d <= FRAME_MS).length) / drawn).toFixed(1)} %`);
const perService = cpuService / read, perCommand = cpuCommand / commandFrames;
console.log(`whole service ${perService.toFixed(2)} ms, the command's live view ${perCommand.toFixed(2)} ms ` +
            `(both include the virtual scanner and the driver; the command's also its start and its terminal)`);
