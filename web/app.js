// The technician's page of tavk05 serve: live image, capture, roll, the
// results in every format, and the web applications that ask to use the
// scanners.
import { connect, drawFrame } from "./tavk05.js";

const $ = (id) => document.getElementById(id);
const ROLL_STATES = ["live", "place the finger", "rolling"];
// What the page showed, for the measurements and the tests.
const stats = (window.tavk05Stats = { frames: 0, missed: 0, last: 0, delays: [], captures: 0 });

function status(text, error) {
  $("status").textContent = text;
  $("status").className = error ? "error" : "";
}

function show(frame) {
  if (frame.number > stats.last + 1 && stats.last !== 0) stats.missed += frame.number - stats.last - 1;
  stats.last = frame.number;
  drawFrame($("view"), frame);
  stats.frames += 1;
  stats.delays.push(Date.now() - frame.readMs);
  $("frame").textContent = frame.number;
  $("quality").textContent = frame.quality;
  $("roll").textContent = ROLL_STATES[frame.rollState] || frame.rollState;
}

function offerDownloads(service, result) {
  const box = $("downloads");
  box.replaceChildren();
  for (const format of service.formats) {
    const button = document.createElement("button");
    button.textContent = `Download ${format.toUpperCase()}`;
    button.dataset.format = format;
    button.addEventListener("click", async () => {
      try {
        const { blob } = format === result.format ? result : await service.result(result.capture, format);
        const a = document.createElement("a");
        a.href = URL.createObjectURL(blob);
        a.download = `finger-${result.capture}.${format}`;
        a.click();
        setTimeout(() => URL.revokeObjectURL(a.href), 10000);
      } catch (e) {
        status(`${format}: ${e.message}`, true);
      }
    });
    box.append(button);
  }
}

function showPairings(service, msg) {
  const pending = $("pending");
  pending.replaceChildren();
  for (const origin of msg.pending) {
    const row = document.createElement("div");
    row.className = "pending";
    row.dataset.origin = origin;
    row.append(`${origin} asks to use the scanner `);
    for (const [label, act] of [["Approve", "approve"], ["Deny", "deny"]]) {
      const b = document.createElement("button");
      b.textContent = label;
      b.addEventListener("click", () => service[act](origin).catch((e) => status(e.message, true)));
      row.append(b);
    }
    pending.append(row);
  }
  const allowed = $("allowed");
  allowed.replaceChildren();
  for (const origin of msg.allowed) {
    const li = document.createElement("li");
    li.dataset.origin = origin;
    li.append(`${origin} `);
    const b = document.createElement("button");
    b.textContent = "Revoke";
    b.addEventListener("click", () => service.revoke(origin).catch((e) => status(e.message, true)));
    li.append(b);
    allowed.append(li);
  }
}

async function main() {
  let service;
  try {
    service = await connect({ url: `ws://${location.host}/v1/ws`, token: null });
  } catch (e) {
    status(`${e.message}. Open the technician's URL that tavk05 serve printed.`, true);
    return;
  }
  service.addEventListener("pairings", (e) => showPairings(service, e.detail));
  service.addEventListener("close", () => status("The service closed the connection.", true));
  for (const s of service.scanners) {
    const option = document.createElement("option");
    option.value = s.scanner;
    option.textContent = `${s.scanner}: type ${s.deviceType}, ${s.deviceId}`;
    $("scanner").append(option);
  }
  status(`Connected: ${service.scanners.length} scanner(s).`);
  const scanner = () => Number($("scanner").value);
  const run = (label, act) => async () => {
    stats.last = 0;
    status(`${label}: keep the glass clear, then place the finger...`);
    try {
      const result = await act();
      if (result.capture !== undefined) {
        stats.captures += 1;
        offerDownloads(service, result);
        status(`${label}: capture ${result.capture}, quality ${result.quality}.`);
      } else {
        status(`${label}: ${result.stopped ? "stopped" : result.statusText}.`);
      }
    } catch (e) {
      status(`${label}: ${e.message}`, true);
    }
  };
  $("capture").addEventListener("click", run("Capture", () => service.capture(scanner(), { onFrame: show })));
  $("live").addEventListener("click", run("Live", () => service.live(scanner(), { onFrame: show })));
  $("rolled").addEventListener("click", run("Roll", () => service.roll(scanner(), { onFrame: show })));
  $("stop").addEventListener("click", () => service.stop(scanner()).catch((e) => status(e.message, true)));
  document.body.dataset.ready = "1";
}

main();
