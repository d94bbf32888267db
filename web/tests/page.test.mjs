// The page orogen writes, in headless Chromium: the demo build's gallery,
// the sample under the pointer, the 3-D relief, and orogen serve.
//   node web/tests/page.test.mjs ORGEN_BINARY OUTPUT_FOLDER
import { chromium } from "playwright-core";
import { execFileSync, spawn } from "node:child_process";
import fs from "node:fs";
import http from "node:http";
import path from "node:path";
import url from "node:url";

const [orogen, outDir] = process.argv.slice(2).map((p) => path.resolve(p));
const repo = path.resolve(path.dirname(url.fileURLToPath(import.meta.url)), "../..");
const browserPath = process.env.CHROMIUM || "/usr/bin/chromium";
fs.rmSync(outDir, { recursive: true, force: true });
fs.mkdirSync(outDir, { recursive: true });

let failures = 0;
const began = Date.now();
function check(ok, what) {
  console.log(`${ok ? "ok  " : "FAIL"} ${what} [${((Date.now() - began) / 1000).toFixed(1)} s]`);
  if (!ok) failures++;
}

function build(network, dir, ...flags) {
  execFileSync(orogen, ["build", network, "-o", dir, "--html", "-q", ...flags], { stdio: "inherit" });
  return JSON.parse(fs.readFileSync(path.join(dir, "manifest.json"), "utf8"));
}

// Pixels of a PNG, decoded by the browser itself: [width, height, rgba].
async function pixels(page, png) {
  return page.evaluate(async (b64) => {
    const img = new Image();
    img.src = "data:image/png;base64," + b64;
    await img.decode();
    const c = document.createElement("canvas");
    c.width = img.width;
    c.height = img.height;
    const g = c.getContext("2d");
    g.drawImage(img, 0, 0);
    const data = g.getImageData(0, 0, img.width, img.height).data;
    let text = "";
    for (let i = 0; i < data.length; i += 0x8000) text += String.fromCharCode.apply(null, data.subarray(i, i + 0x8000));
    return [img.width, img.height, btoa(text)];
  }, png.toString("base64")).then(([w, h, b64]) => [w, h, Buffer.from(b64, "base64")]);
}

// Share of pixels away from the page's background, and of pixels that differ.
const background = [0x1b, 0x1d, 0x21];
function drawnShare([, , a]) {
  let drawn = 0;
  for (let i = 0; i < a.length; i += 4)
    if (Math.abs(a[i] - background[0]) + Math.abs(a[i + 1] - background[1]) + Math.abs(a[i + 2] - background[2]) > 24) drawn++;
  return drawn / (a.length / 4);
}
function changedShare([, , a], [, , b]) {
  if (a.length !== b.length) return 1;
  let changed = 0;
  for (let i = 0; i < a.length; i += 4)
    if (Math.abs(a[i] - b[i]) + Math.abs(a[i + 1] - b[i + 1]) + Math.abs(a[i + 2] - b[i + 2]) > 24) changed++;
  return changed / (a.length / 4);
}

function watchConsole(page, errors) {
  page.on("console", (m) => { if (m.type() === "error") errors.push(m.text()); });
  page.on("pageerror", (e) => errors.push(String(e)));
}

// The relief's pixels; a clip of the page is much quicker than an element shot.
async function shoot(page, options = {}) {
  const box = await page.locator("#relief").boundingBox();
  return pixels(page, await page.screenshot({ ...options, clip: box }));
}

async function openRelief(page) {
  await page.click("#show3d");
  await page.waitForSelector("body[data-relief=ready]");
  await page.waitForFunction(() => Number(document.getElementById("relief").dataset.frames) > 0);
}

const browser = await chromium.launch({
  executablePath: browserPath,
  args: ["--use-angle=swiftshader", "--enable-unsafe-swiftshader", "--allow-file-access-from-files"],
});
const context = await browser.newContext({ viewport: { width: 1100, height: 720 } });

// The demo build, opened from its folder.
{
  const dir = path.join(outDir, "demo");
  const manifest = build(path.join(repo, "examples/demo.json"), dir, "--format", "r32");
  const page = await context.newPage();
  const errors = [];
  watchConsole(page, errors);
  await page.goto(url.pathToFileURL(path.join(dir, "index.html")).href);
  await page.waitForSelector("body[data-ready=yes]");
  await page.waitForFunction(() => [...document.images].every((i) => i.complete && i.naturalWidth > 0));
  const names = await page.$$eval("#gallery figure", (f) => f.map((x) => x.dataset.name));
  check(JSON.stringify(names) === JSON.stringify(manifest.outputs.map((o) => o.name)) && names.length === 5,
    `gallery lists every export: ${names.join(", ")}`);
  const caption = await page.textContent("#gallery figure[data-name=terrain] figcaption");
  check(caption.includes("terrain (Blur) · height field · 1025×1025 · 0.017092 … 0.73803"), `caption: ${caption}`);
  check((await page.textContent("#world")).includes("world 0, 0 – 4, 4"), "the world extent is shown");
  await page.screenshot({ path: path.join(outDir, "gallery.png") });

  // The value under the pointer is the sample the r32 file holds there.
  await page.click("#gallery figure[data-name=terrain]");
  await page.waitForSelector("body[data-shown=terrain]");
  const terrain = manifest.outputs.find((o) => o.name === "terrain");
  const r32 = fs.readFileSync(path.join(dir, terrain.files.r32));
  const samples = new Float32Array(r32.buffer, r32.byteOffset, r32.length / 4);
  const box = await page.locator("#picture").boundingBox();
  for (const [sx, sy] of [[300, 700], [1024, 0], [512, 512]]) {
    await page.mouse.move(box.x + (sx + 0.5) * box.width / terrain.width, box.y + (sy + 0.5) * box.height / terrain.height);
    const probe = await page.$eval("#probe", (p) => ({ ...p.dataset, text: p.textContent }));
    const x = Number(probe.x), y = Number(probe.y);
    const expected = samples[y * terrain.width + x];
    check(Math.abs(x - sx) <= 2 && Math.abs(y - sy) <= 2 && Number(probe.value) === expected,
      `hover near ${sx}, ${sy} shows sample ${x}, ${y} = ${probe.value} (file: ${expected})`);
  }
  await page.screenshot({ path: path.join(outDir, "flat.png") });

  // 3-D: a relief is drawn, and the exaggeration changes it.
  await openRelief(page);
  const relief = page.locator("#relief");
  const flat = await shoot(page);
  check(drawnShare(flat) > 0.15, `the relief covers ${(100 * drawnShare(flat)).toFixed(1)}% of the view`);
  await page.locator("#exaggeration").fill("4");
  const steep = await shoot(page, { path: path.join(outDir, "relief.png") });
  check(changedShare(flat, steep) > 0.02, `exaggeration 4 changes ${(100 * changedShare(flat, steep)).toFixed(1)}% of the view`);
  // Orbit: a drag turns the camera.
  const rbox = await relief.boundingBox();
  await page.mouse.move(rbox.x + rbox.width / 2, rbox.y + rbox.height / 2);
  await page.mouse.down();
  await page.mouse.move(rbox.x + rbox.width / 2 + 120, rbox.y + rbox.height / 2, { steps: 4 });
  await page.mouse.up();
  const turned = await shoot(page);
  check(changedShare(steep, turned) > 0.02, "a drag orbits the camera");
  await page.setViewportSize({ width: 760, height: 470 });
  await page.locator("#exaggeration").fill("2");
  await page.waitForTimeout(100);
  await page.screenshot({ path: path.join(outDir, "readme.png") });
  await page.setViewportSize({ width: 1100, height: 720 });
  await page.selectOption("#drape", "splat");
  await page.waitForSelector("body[data-relief=ready]");
  const draped = await shoot(page);
  check(changedShare(turned, draped) > 0.05, "draping the splat bitmap changes the colours");
  await page.screenshot({ path: path.join(outDir, "page.png") });
  check(errors.length === 0, `no console errors${errors.length ? ": " + errors.join(" | ") : ""}`);
  await page.close();
}

// Opening times of bigger builds (reported, not judged); OROGEN_PAGE_SIZES=2049,4097.
for (const side of (process.env.OROGEN_PAGE_SIZES || "2049").split(",").map(Number)) {
  const dir = path.join(outDir, "demo" + side);
  build(path.join(repo, "examples/demo.json"), dir, "--format", "r32", "--resolution", `${side}x${side}`);
  const page = await context.newPage();
  const start = Date.now();
  await page.goto(url.pathToFileURL(path.join(dir, "index.html")).href);
  await page.waitForSelector("body[data-ready=yes]");
  await page.waitForFunction(() => [...document.images].every((i) => i.complete && i.naturalWidth > 0));
  const gallery = Date.now() - start;
  const click = Date.now();
  await page.click("#gallery figure[data-name=terrain]");
  await page.waitForSelector("body[data-shown=terrain]");
  const large = Date.now() - click;
  const relief = Date.now();
  await openRelief(page);
  const threeD = Date.now() - relief;
  console.log(`time ${side}x${side}: gallery ${gallery} ms, large view ${large} ms, 3-D ${threeD} ms (after the large view)`);
  await page.close();
  fs.rmSync(dir, { recursive: true, force: true });
}

// orogen serve: a saved change shows by itself; a failed build keeps the last world.
function get(port, rawPath) {
  return new Promise((resolve, reject) => {
    const request = http.request({ host: "127.0.0.1", port, path: rawPath, method: "GET" }, (reply) => {
      let body = "";
      reply.on("data", (d) => (body += d));
      reply.on("end", () => resolve({ status: reply.statusCode, body }));
    });
    request.on("error", reject);
    request.end();
  });
}
{
  const dir = path.join(outDir, "serve");
  fs.mkdirSync(dir, { recursive: true });
  const network = path.join(dir, "network.json");
  const original = fs.readFileSync(path.join(repo, "examples/demo.json"), "utf8");
  fs.writeFileSync(network, original);
  const server = spawn(orogen, ["serve", network, "-o", path.join(dir, "page"), "--port", "0"],
    { stdio: ["ignore", "pipe", "inherit"] });
  let log = "";
  const port = await new Promise((resolve, reject) => {
    server.stdout.on("data", (d) => {
      log += d;
      const m = /127\.0\.0\.1:(\d+)/.exec(log);
      if (m) resolve(Number(m[1]));
    });
    server.on("exit", (code) => reject(new Error("orogen serve ended: " + code + "\n" + log)));
  });
  try {
    const page = await context.newPage();
    const errors = [];
    watchConsole(page, errors);
    await page.goto(`http://127.0.0.1:${port}/`);
    await page.waitForSelector("body[data-version='1']");
    await page.click("#gallery figure[data-name=terrain]");
    await page.waitForSelector("body[data-shown=terrain]");
    await openRelief(page);
    const relief = page.locator("#relief");
    const before = await shoot(page);
    const camera = await page.evaluate(() => JSON.stringify(Orogen.state.relief.orbit));

    fs.writeFileSync(network, original.replace('"Radius": 3.6', '"Radius": 1.4'));
    const saved = Date.now();
    await page.waitForSelector("body[data-version='2']", { timeout: 5000 });
    await page.waitForSelector("body[data-relief=ready]");
    const shown = Date.now() - saved;
    const after = await shoot(page, { path: path.join(outDir, "serve.png") });
    check(changedShare(before, after) > 0.02, `a saved change shows in ${shown} ms and changes ${(100 * changedShare(before, after)).toFixed(1)}% of the relief`);
    check(camera === await page.evaluate(() => JSON.stringify(Orogen.state.relief.orbit)), "the camera stays");
    check((await page.textContent("#facts")).includes("513×513"), "serve builds at 513×513 by default");

    fs.writeFileSync(network, original.replace('"Radius": 3.6', '"Radius": "wide"'));
    await page.waitForSelector("body[data-version='3']", { timeout: 5000 });
    const error = await page.textContent("#error");
    check(await page.isVisible("#error") && error.includes("Radius"), `a failed build shows: ${error}`);
    const kept = await shoot(page);
    const status = await page.textContent("#status");
    check(changedShare(after, kept) < 0.01 && status.includes("showing build 2"),
      `the last good world stays (${(100 * changedShare(after, kept)).toFixed(1)}% changed; status: ${status})`);
    await page.screenshot({ path: path.join(outDir, "serve-error.png") });
    check(errors.length === 0, `no console errors${errors.length ? ": " + errors.join(" | ") : ""}`);

    // Only the page's folder is served.
    check((await get(port, "/version.json")).status === 200, "version.json is served");
    for (const p of ["/../network.json", "/%2e%2e/network.json", "/builds/../../network.json", "/..%2fnetwork.json",
      "/page/../../network.json", "//etc/passwd", "/%2Fetc%2Fpasswd"]) {
      const reply = await get(port, p);
      check(reply.status === 404 && !reply.body.includes("Radius") && !reply.body.includes("root:"),
        `${p} is refused (${reply.status})`);
    }
  } finally {
    server.kill("SIGTERM");
    console.log("orogen serve said:\n" + log.trim());
  }
}

await browser.close();
console.log(failures ? `${failures} check(s) failed` : "all page checks passed");
process.exit(failures ? 1 : 0);
