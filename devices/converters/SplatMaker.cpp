#include "devices/converters/SplatMaker.h"

#include <cmath>
#include <limits>
#include <vector>

#include "devices/converters/PixelsAvx2.h"
#include "framework/Neighbourhood.h"
#include "framework/PortableMath.h"
#include "framework/Ramps.h"

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Rock Angle", kParamInteger, 35, 0, 90, 0, "Slopes steeper than this many degrees are rock"},
    {"High Level", kParamReal, 0.7, 0.0, 1.0, 0, "Heights above this are high ground"},
    {"Transition", kParamReal, 0.05, 0.0, 0.5, 0,
     "The width of the blend between layers, as a fraction of each range"},
};

SplatMaker::SplatMaker() {
    SetPortCount(this, 1, 1, kHeightField);
    outputs[0]->kind = kBitmap;
    DeclareParameters(this, kParameters);
}

namespace {

// Degrees per radian as the angle is taken: atan, then degrees, then right angles.
const float kToDegrees = static_cast<float>(180.0 / 3.14159265358979323846);

// The slope angle in right angles, from the slope's length.
inline float RightAngles(float steep) {
    return Orogen::Atan2(steep, 1.0f) * kToDegrees / 90.0f;
}

// Slope lengths below `below` are certainly under the angle `lo` (in right
// angles), above `above` certainly over `hi`: the arctangent is needed only
// between them. The bounds keep a margin of 1e-4 of their value, far beyond
// the few roundings of the angle; past 85 degrees the angle flattens out and
// the bounds are not used (0 and infinity).
struct SteepBounds {
    float below = 0.0f;
    float above = std::numeric_limits<float>::infinity();
};

SteepBounds BoundsOf(float lo, float hi) {
    const double quarter = 3.14159265358979323846 / 2.0;
    SteepBounds b;
    if (!(hi >= lo)) return b;
    if (lo > 0.0f && lo < 85.0f / 90.0f)
        b.below = static_cast<float>(std::tan(lo * quarter) * (1.0 - 1e-4));
    if (hi >= 0.0f && hi < 85.0f / 90.0f)
        b.above = static_cast<float>(std::tan(hi * quarter) * (1.0 + 1e-4));
    return b;
}

#if defined(BASEKIT_HAVE_X86_VECTORS)
// One row of the plain loop below, eight points at a time: the arctangent
// only for the lanes between the bounds. Returns where the plain loop goes on.
BASEKIT_TARGET_AVX2 int32_t SplatRowAvx2(const float* gx, const float* gy, const float* h,
                                         int32_t width, const SteepBounds& bounds, float rockLow,
                                         float rockHigh, float highLow, float highHigh,
                                         float* out) {
    const __m256 one = _mm256_set1_ps(1.0f);
    const __m256 below = _mm256_set1_ps(bounds.below), above = _mm256_set1_ps(bounds.above);
    int32_t x = 0;
    for (; x + 8 <= width; x += 8) {
        const __m256 X = _mm256_loadu_ps(gx + x), Y = _mm256_loadu_ps(gy + x);
        const __m256 steep =
            _mm256_sqrt_ps(_mm256_add_ps(_mm256_mul_ps(X, X), _mm256_mul_ps(Y, Y)));
        const __m256 under = _mm256_cmp_ps(steep, below, _CMP_LT_OQ);
        const __m256 over = _mm256_cmp_ps(steep, above, _CMP_GT_OQ);
        __m256 r = _mm256_and_ps(over, one);
        const int between = ~_mm256_movemask_ps(_mm256_or_ps(under, over)) & 0xFF;
        if (between) {
            alignas(32) float lanes[8], rocks[8];
            _mm256_store_ps(lanes, steep);
            _mm256_store_ps(rocks, r);
            for (int k = 0; k < 8; ++k)
                if (between & (1 << k)) rocks[k] = SplatRock(lanes[k], rockLow, rockHigh);
            r = _mm256_load_ps(rocks);
        }
        const __m256 high = colour::RampBetween8(_mm256_loadu_ps(h + x), highLow, highHigh);
        const __m256 soil = _mm256_sub_ps(one, r);
        colour::StorePixels(
            out + 3 * x, colour::ClampHeights8(_mm256_mul_ps(soil, _mm256_sub_ps(one, high))),
            colour::ClampHeights8(r), colour::ClampHeights8(_mm256_mul_ps(soil, high)));
    }
    return x;
}
#endif

}  // namespace

float SplatRock(float steep, float lo, float hi) {
    return RampBetween(RightAngles(steep), lo, hi);
}

void SplatRows(const SplatSetup& s, int32_t first, int32_t last, float* rgb, VectorPath path) {
    const int32_t width = s.grid.width, height = s.grid.height;
    if (width <= 0 || height <= 0) return;
    const Orogen::SlopeScale scale(s.grid);
    std::vector<float> gx(static_cast<size_t>(width)), gy(static_cast<size_t>(width));
    const float half = s.transition / 2.0f;
    const float rock = static_cast<float>(s.rockAngle) / 90.0f;
    const float rockLow = rock - half, rockHigh = rock + half;
    const float highLow = s.highLevel - half, highHigh = s.highLevel + half;
    // Beyond the bounds the ramp is 0 or 1 whatever the rounding; a NaN
    // slope fails both tests and takes the arctangent.
    const SteepBounds bounds = BoundsOf(rockLow, rockHigh);
    const bool avx2 = UsablePath(path) != VectorPath::Plain;
#if !defined(BASEKIT_HAVE_X86_VECTORS)
    (void)avx2;
#endif
    for (int32_t y = first; y <= last; ++y) {
        scale.SlopeRow(s.heights, width, height, y, gx.data(), gy.data());
        const float* h = s.heights + static_cast<int64_t>(y) * width;
        float* out = rgb + static_cast<int64_t>(y) * width * 3;
        int32_t x = 0;
#if defined(BASEKIT_HAVE_X86_VECTORS)
        if (avx2)
            x = SplatRowAvx2(gx.data(), gy.data(), h, width, bounds, rockLow, rockHigh, highLow,
                             highHigh, out);
#endif
        for (; x < width; ++x) {
            const float steep = std::sqrt(gx[x] * gx[x] + gy[x] * gy[x]);
            float r;
            if (steep < bounds.below)
                r = 0.0f;
            else if (steep > bounds.above)
                r = 1.0f;
            else
                r = SplatRock(steep, rockLow, rockHigh);
            const float high = RampBetween(h[x], highLow, highHigh);
            const float soil = 1.0f - r;
            out[3 * x] = ClampHeight(soil * (1.0f - high));
            out[3 * x + 1] = ClampHeight(r);
            out[3 * x + 2] = ClampHeight(soil * high);
        }
    }
}

bool SplatMaker::Build(const BuildContext& context) {
    PacketRef input = InputPacket(context, 0);
    if (!input) return false;
    input = ConvertPacket(input, kHeightField);
    if (input->GetKind() != kHeightField) return false;
    // A NaN height would give NaN weights: clamped first, the three always sum to 1.
    ClampHeights(input.get());
    const SplatSetup setup{input->samples, input->grid, ParamInt(this, "Rock Angle"),
                           ParamFloat(this, "High Level"), ParamFloat(this, "Transition")};
    PacketRef image = NewPacketLike(*input, kBitmap);
    if (input->PointCount() > 0 &&
        !RunRows(context, this, 0, setup.grid.height - 1, [&](int32_t first, int32_t last) {
            SplatRows(setup, first, last, image->samples);
        }))
        return false;
    StoreOutput(context, image, 0);
    return true;
}

}  // namespace basekit
