// The two transfer curves that thresholds, splits and soft edges share.
#pragma once

namespace Orogen {

// (v - lo) / (hi - lo) clamped to 0..1 when hi > lo; a step (1 from lo up,
// 0 below) when hi <= lo. A NaN v stays NaN for the caller's clamp.
inline float RampBetween(float v, float lo, float hi) {
    if (!(hi > lo)) return v >= lo ? 1.0f : (v < lo ? 0.0f : v);
    const float t = (v - lo) / (hi - lo);
    return t < 0.0f ? 0.0f : (t > 1.0f ? 1.0f : t);
}

// One sample of ClampHeights: NaN to 1, then into 0..1.
inline float ClampHeight(float v) {
    return v != v ? 1.0f : (v < 0.0f ? 0.0f : (v > 1.0f ? 1.0f : v));
}

// t·t·(3 − 2·t): flat at 0 and 1.
inline float SmoothStep(float t) {
    return t * t * (3.0f - 2.0f * t);
}

}  // namespace Orogen
