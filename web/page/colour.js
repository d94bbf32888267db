// Colours of the exports: height fields in viridis with hill shading, masks
// in grey, bitmaps as they are. orogen's gallery pictures use the same table.
"use strict";
window.Orogen = window.Orogen || {};
(function (Orogen) {
  const RAMP = [
    [68, 1, 84], [71, 45, 123], [59, 82, 139], [44, 114, 142], [33, 145, 140],
    [40, 174, 128], [94, 201, 98], [173, 220, 48], [253, 231, 37],
  ];

  function ramp(t, out, at) {
    if (!(t >= 0)) t = 0;
    t = Math.min(t, 1) * 8;
    const k = Math.min(Math.floor(t), 7), f = t - k;
    for (let c = 0; c < 3; ++c) out[at + c] = RAMP[k][c] + (RAMP[k + 1][c] - RAMP[k][c]) * f;
  }

  // RGBA bytes of `field` ({width, height, channels, samples, stride}) for
  // the export `entry`; `shade` adds hill shading from the upper left.
  function render(entry, field, world, shade) {
    const { width, height, channels, samples } = field;
    const rgba = new Uint8ClampedArray(width * height * 4);
    const n = width * height;
    if (channels === 3) {
      for (let i = 0; i < n; ++i) {
        for (let c = 0; c < 3; ++c) rgba[i * 4 + c] = samples[i * 3 + c] * 255;
        rgba[i * 4 + 3] = 255;
      }
      return rgba;
    }
    if (entry.mask) {
      for (let i = 0; i < n; ++i) {
        const g = samples[i] * 255;
        rgba[i * 4] = rgba[i * 4 + 1] = rgba[i * 4 + 2] = g;
        rgba[i * 4 + 3] = 255;
      }
      return rgba;
    }
    const low = entry.min ?? 0, high = entry.max ?? 1;
    const span = high > low ? high - low : 1;
    const cell = (world.extent[2] - world.extent[0]) / Math.max(1, world.resolution[0] - 1) * field.stride;
    const rise = world.verticalScale / (2 * cell);
    const l = 0.5773503;
    const h = (x, y) => {
      x = Math.min(Math.max(x, 0), width - 1);
      y = Math.min(Math.max(y, 0), height - 1);
      const v = samples[y * width + x];
      return Number.isNaN(v) ? low : v;
    };
    const rgb = [0, 0, 0];
    for (let y = 0; y < height; ++y) {
      for (let x = 0; x < width; ++x) {
        let s = 1;
        if (shade) {
          const dx = (h(x + 1, y) - h(x - 1, y)) * rise, dy = (h(x, y + 1) - h(x, y - 1)) * rise;
          const light = Math.max(0, (dx * l + dy * l + l) / Math.sqrt(dx * dx + dy * dy + 1));
          s = 0.45 + 0.55 * light / l;
        }
        ramp((h(x, y) - low) / span, rgb, 0);
        const o = (y * width + x) * 4;
        rgba[o] = rgb[0] * s; rgba[o + 1] = rgb[1] * s; rgba[o + 2] = rgb[2] * s; rgba[o + 3] = 255;
      }
    }
    return rgba;
  }

  Orogen.colour = { ramp, render };
})(window.Orogen);
