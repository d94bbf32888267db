// The gallery, the large view with the sample under the pointer, the 3-D
// view, and (when served by orogen serve) new builds as they come.
"use strict";
window.Orogen = window.Orogen || {};
(function (Orogen) {
  const $ = (id) => document.getElementById(id);
  const state = { base: "", manifest: null, entry: null, field: null, mode: "2d", relief: null, version: 0 };
  Orogen.state = state;

  // Data files are scripts calling these: a page opened from a folder may not fetch.
  const arrived = new Map();
  let manifestArrived = null;
  window.OrogenData = (name, head, base64) => arrived.set(name, { head, base64 });
  window.OrogenManifest = (manifest) => { manifestArrived = manifest; };

  function loadScript(url) {
    return new Promise((resolve, reject) => {
      const script = document.createElement("script");
      script.src = url;
      script.onload = () => { script.remove(); resolve(); };
      script.onerror = () => { script.remove(); reject(new Error("cannot load " + url)); };
      document.head.appendChild(script);
    });
  }

  function decode(base64) {
    if (Uint8Array.fromBase64) return new Float32Array(Uint8Array.fromBase64(base64).buffer);
    const text = atob(base64), bytes = new Uint8Array(text.length);
    for (let i = 0; i < text.length; ++i) bytes[i] = text.charCodeAt(i);
    return new Float32Array(bytes.buffer);
  }

  const fields = new Map();  // base + name -> promise of {width, height, channels, stride, samples}
  function field(name) {
    const key = state.base + name;
    if (!fields.has(key)) {
      fields.set(key, loadScript(state.base + "data/" + encodeURIComponent(name) + ".js").then(() => {
        const { head, base64 } = arrived.get(name);
        arrived.delete(name);
        return { ...head, samples: decode(base64) };
      }));
    }
    return fields.get(key);
  }

  const number = (v) => (v === null || v === undefined ? "–" : Number(v).toPrecision(5));
  const entryNamed = (name) => state.manifest.outputs.find((o) => o.name === name);

  function describeWorld(world) {
    const [x0, y0, x1, y1] = world.extent;
    return `world ${x0}, ${y0} – ${x1}, ${y1} · ${world.resolution[0]}×${world.resolution[1]} · vertical scale ${world.verticalScale}`;
  }

  function facts(o) {
    const kind = o.kind === "bitmap" ? "bitmap" : o.mask ? "mask" : "height field";
    const range = o.kind === "bitmap" ? "" : ` · ${number(o.min)} … ${number(o.max)}`;
    const device = (state.manifest.devices || []).find((d) => d.id === o.device);
    return `${o.device}${device ? " (" + device.type + ")" : ""} · ${kind} · ${o.width}×${o.height}${range}`;
  }

  function showGallery() {
    const m = state.manifest;
    $("world").textContent = describeWorld(m.world);
    const gallery = $("gallery");
    gallery.replaceChildren();
    for (const o of m.outputs) {
      const figure = document.createElement("figure");
      figure.dataset.name = o.name;
      const img = document.createElement("img");
      img.alt = o.name;
      img.src = state.base + "data/" + encodeURIComponent(o.name) + ".png";
      const caption = document.createElement("figcaption");
      const title = document.createElement("b");
      title.textContent = o.name;
      caption.append(title, document.createElement("br"), facts(o));
      figure.append(img, caption);
      figure.addEventListener("click", () => open(o.name));
      gallery.append(figure);
    }
    for (const missing of m.missing || []) {
      const figure = document.createElement("figure");
      figure.className = "missing";
      figure.textContent = `${missing.name}: ${missing.reason}`;
      gallery.append(figure);
    }
    const drape = $("drape");
    const keep = drape.value;
    drape.replaceChildren(new Option("its own colours", ""));
    for (const o of m.outputs) drape.append(new Option(o.name, o.name));
    if ([...drape.options].some((x) => x.value === keep)) drape.value = keep;
  }

  async function open(name) {
    const entry = entryNamed(name);
    if (!entry) return back();
    state.entry = entry;
    delete document.body.dataset.shown;
    $("gallery").hidden = true;
    $("viewer").hidden = false;
    $("name").textContent = entry.name;
    $("facts").textContent = facts(entry);
    $("show3d").disabled = entry.kind === "bitmap" || !window.THREE;
    if (state.mode === "3d" && entry.kind === "bitmap") state.mode = "2d";
    const loading = state.fieldPromise = field(name);
    const loaded = await loading;
    if (state.fieldPromise !== loading) return;  // another export was opened meanwhile
    state.field = loaded;
    drawFlat();
    document.body.dataset.shown = name;
    if (state.mode === "3d") await drawRelief();
    showMode();
  }

  function back() {
    state.entry = null;
    $("viewer").hidden = true;
    $("gallery").hidden = false;
  }

  function drawFlat() {
    const f = state.field, canvas = $("picture");
    canvas.width = f.width;
    canvas.height = f.height;
    const rgba = Orogen.colour.render(state.entry, f, state.manifest.world, true);
    canvas.getContext("2d").putImageData(new ImageData(rgba, f.width, f.height), 0, 0);
  }

  async function drawRelief() {
    document.body.dataset.relief = "loading";
    if (!state.relief) state.relief = new Orogen.Relief($("relief"));
    const entry = state.entry, heights = await state.fieldPromise;
    if (entry !== state.entry) return;
    const world = state.manifest.world;
    const drapeName = $("drape").value;
    const drapeEntry = drapeName ? entryNamed(drapeName) : entry;
    const drapeField = drapeName ? await field(drapeName) : heights;
    const drape = {
      width: drapeField.width, height: drapeField.height,
      rgba: new Uint8Array(Orogen.colour.render(drapeEntry, drapeField, world, false).buffer),
    };
    $("relief").hidden = false;
    state.relief.show(heights, world, drape);
    document.body.dataset.relief = "ready";
  }

  function showMode() {
    const in3d = state.mode === "3d";
    $("viewer").classList.toggle("in3d", in3d);
    $("flat").hidden = in3d;
    $("relief").hidden = !in3d;
    if (in3d && state.relief) state.relief.resize();
  }

  // The sample under the pointer: the page keeps every stride-th sample, so
  // the one shown is the nearest kept sample, at its own grid position.
  $("picture").addEventListener("pointermove", (e) => {
    const f = state.field, canvas = e.currentTarget;
    if (!f) return;
    const x = Math.min(f.width - 1, Math.floor(e.offsetX / canvas.clientWidth * f.width));
    const y = Math.min(f.height - 1, Math.floor(e.offsetY / canvas.clientHeight * f.height));
    const gx = x * f.stride, gy = y * f.stride;
    const [x0, y0, x1, y1] = state.manifest.world.extent;
    const wx = x0 + (x1 - x0) * gx / Math.max(1, state.entry.width - 1);
    const wy = y0 + (y1 - y0) * gy / Math.max(1, state.entry.height - 1);
    const at = (y * f.width + x) * f.channels;
    const values = Array.from(f.samples.subarray(at, at + f.channels));
    const probe = $("probe");
    probe.dataset.x = gx;
    probe.dataset.y = gy;
    probe.dataset.value = values.join(",");
    probe.textContent = `sample ${gx}, ${gy} · world ${wx.toFixed(4)}, ${wy.toFixed(4)} · ` +
      values.map((v) => v.toPrecision(7)).join(", ");
  });

  $("back").addEventListener("click", back);
  $("show2d").addEventListener("click", () => { state.mode = "2d"; showMode(); });
  $("show3d").addEventListener("click", async () => {
    state.mode = "3d";
    showMode();
    await drawRelief();
    showMode();
  });
  $("exaggeration").addEventListener("input", (e) => {
    $("exaggerationValue").textContent = e.target.value;
    if (state.relief) state.relief.setExaggeration(Number(e.target.value));
  });
  $("drape").addEventListener("change", () => { if (state.mode === "3d" && state.entry) drawRelief(); });

  async function loadBuild(base) {
    manifestArrived = null;
    await loadScript(base + "data/manifest.js");
    if (!manifestArrived) throw new Error("the manifest of " + (base || "this folder") + " is empty");
    state.base = base;
    state.manifest = manifestArrived;
    showGallery();
    if (state.entry) await open(state.entry.name);
  }

  // Served: poll the server's version file; the camera and the open export stay.
  async function follow() {
    for (;;) {
      try {
        const reply = await fetch("version.json", { cache: "no-store" });
        if (reply.ok) {
          const v = await reply.json();
          if (v.version && v.version !== state.version) {
            state.version = v.version;
            if (v.base && v.base !== state.base) await loadBuild(v.base);
            if (v.base) document.body.dataset.ready = "yes";
            $("error").hidden = !v.error;
            $("error").textContent = v.error ? "build " + v.version + " failed: " + v.error : "";
            $("status").textContent = v.error ? `build ${v.version} failed; showing build ${v.build}` : `build ${v.build}`;
            document.body.dataset.version = String(v.version);
          }
        }
      } catch (error) {
        $("status").textContent = "server gone: " + error.message;
      }
      await new Promise((r) => setTimeout(r, 120));
    }
  }

  if (location.protocol === "http:" || location.protocol === "https:") {
    follow();
  } else {
    loadBuild("").then(() => { document.body.dataset.ready = "yes"; }, (error) => {
      $("error").hidden = false;
      $("error").textContent = error.message;
    });
  }
})(window.Orogen);
