// The two transfer curves that thresholds, splits and soft edges share, and
// the clamp of one height. Written as selects that are always evaluated, so
// that loops over them vectorise.
#pragma once

namespace Orogen {

// One sample of ClampHeights: NaN to 1, then into 0..1.
inline float ClampHeight(float v) {
    const float c = !(v <= 1.0f) ? 1.0f : v;  // NaN fails v <= 1 as well
    return c < 0.0f ? 0.0f : c;
}

// t into 0..1; NaN stays NaN for a later ClampHeight.
inline float ClampUnit(float t) {
    const float c = t < 0.0f ? 0.0f : t;
    return c > 1.0f ? 1.0f : c;
}

// The ramp of v from lo to hi, when hi > lo: (v - lo) / (hi - lo) into 0..1.
inline float RisingRamp(float v, float lo, float hi) {
    return ClampUnit((v - lo) / (hi - lo));
}

// The step that stands in for a ramp whose hi <= lo: 1 from lo up, else 0
// (NaN included).
inline float RampStep(float v, float lo) {
    return v >= lo ? 1.0f : 0.0f;
}

// ramp(v, lo, hi): RisingRamp when hi > lo, RampStep otherwise. Loops hoist
// the choice themselves.
inline float RampBetween(float v, float lo, float hi) {
    return hi > lo ? RisingRamp(v, lo, hi) : RampStep(v, lo);
}

// t·t·(3 − 2·t): flat at 0 and 1.
inline float SmoothStep(float t) {
    return t * t * (3.0f - 2.0f * t);
}

}  // namespace Orogen
