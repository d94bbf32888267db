#include "devices/selectors/SelectColor.h"

#include <cmath>

#include "devices/converters/PixelsAvx2.h"
#include "framework/Ramps.h"

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Color", kParamInteger, 0x808080, 0, kColourMaximum, 0, "The colour to select"},
    {"Tolerance", kParamReal, 0.1, 0.0, 1.0, 0, "Colour distance that is fully selected"},
    {"Falloff", kParamReal, 0.1, 0.0, 1.0, 0,
     "Colour distance beyond the tolerance over which the selection fades out"},
};

SelectColor::SelectColor() {
    SetPortCount(this, 1, 1, kHeightField);
    inputs[0]->kind = kHeightField | kBitmap;
    DeclareParameters(this, kParameters);
}

#if defined(BASEKIT_HAVE_X86_VECTORS)
namespace {

// The plain loop's operations in its order, eight points at a time; returns
// where the plain loop goes on.
BASEKIT_TARGET_AVX2 uint64_t SelectColourAvx2(const float* image, int32_t channels, uint64_t begin,
                                              uint64_t end, const float colour[3], float tolerance,
                                              float falloff, float* mask) {
    const __m256 zero = _mm256_setzero_ps(), one = _mm256_set1_ps(1.0f);
    const __m256 R = _mm256_set1_ps(colour[0]), G = _mm256_set1_ps(colour[1]),
                 B = _mm256_set1_ps(colour[2]);
    const __m256 root3 = _mm256_set1_ps(std::sqrt(3.0f));
    const __m256 tol = _mm256_set1_ps(tolerance), fall = _mm256_set1_ps(falloff);
    const __m256 reach = _mm256_set1_ps(tolerance + falloff);
    // A squared distance above this is past the reach by far more than the
    // roundings of the root and the division.
    const double reachSum = 3.0 * static_cast<double>(tolerance + falloff) * (tolerance + falloff);
    const __m256 far = _mm256_set1_ps(static_cast<float>(reachSum * (1.0 + 1e-4)));
    const __m256 fades = falloff > 0.0f ? _mm256_castsi256_ps(_mm256_set1_epi32(-1)) : zero;
    uint64_t i = begin;
    for (; i + 8 <= end; i += 8) {
        __m256 r, g, b;
        if (channels == 3) {
            colour::LoadPixels(image + 3 * i, r, g, b);
        } else {
            r = g = b = _mm256_loadu_ps(image + i);
        }
        const __m256 dr = _mm256_sub_ps(r, R), dg = _mm256_sub_ps(g, G), db = _mm256_sub_ps(b, B);
        const __m256 sum = _mm256_add_ps(
            _mm256_add_ps(_mm256_mul_ps(dr, dr), _mm256_mul_ps(dg, dg)), _mm256_mul_ps(db, db));
        // Points certainly beyond the reach select nothing: no root, no division.
        if (_mm256_movemask_ps(_mm256_cmp_ps(sum, far, _CMP_GT_OQ)) == 0xFF) {
            _mm256_storeu_ps(mask + i, zero);
            continue;
        }
        const __m256 d = _mm256_div_ps(_mm256_sqrt_ps(sum), root3);
        const __m256 inFalloff = _mm256_and_ps(fades, _mm256_cmp_ps(d, reach, _CMP_LT_OQ));
        __m256 m = zero;
        if (_mm256_movemask_ps(inFalloff))  // the division only where a lane fades
            m = _mm256_and_ps(inFalloff,
                              _mm256_sub_ps(one, _mm256_div_ps(_mm256_sub_ps(d, tol), fall)));
        m = _mm256_blendv_ps(m, one, _mm256_cmp_ps(d, tol, _CMP_LE_OQ));
        // ClampHeight: m is never NaN here (a NaN distance selects nothing).
        _mm256_storeu_ps(mask + i, _mm256_min_ps(one, _mm256_max_ps(zero, m)));
    }
    return i;
}

}  // namespace
#endif

void SelectColourMask(const float* image, int32_t channels, uint64_t begin, uint64_t end,
                      const float colour[3], float tolerance, float falloff, float* mask,
                      VectorPath path) {
#if defined(BASEKIT_HAVE_X86_VECTORS)
    if (UsablePath(path) != VectorPath::Plain && (channels == 1 || channels == 3))
        begin = SelectColourAvx2(image, channels, begin, end, colour, tolerance, falloff, mask);
#else
    (void)path;
#endif
    const float root3 = std::sqrt(3.0f);
    const float reach = tolerance + falloff;
    const bool grey = channels == 1;
    for (uint64_t i = begin; i < end; ++i) {
        const float* p = image + i * static_cast<uint64_t>(channels);
        const float dr = p[0] - colour[0];
        const float dg = p[grey ? 0 : 1] - colour[1];
        const float db = p[grey ? 0 : 2] - colour[2];
        const float d = std::sqrt(dr * dr + dg * dg + db * db) / root3;
        float m = 0.0f;
        if (d <= tolerance)
            m = 1.0f;
        else if (falloff > 0.0f && d < reach)
            m = 1.0f - (d - tolerance) / falloff;
        mask[i] = ClampHeight(m);
    }
}

bool SelectColor::Build(const BuildContext& context) {
    PacketRef input = InputPacket(context, 0);
    if (!input) return false;
    const uint32_t kind = input->GetKind();
    if (kind != kHeightField && kind != kBitmap) return false;
    float colour[3];
    ParamColour(this, "Color", colour);
    const float tolerance = ParamFloat(this, "Tolerance");
    const float falloff = ParamFloat(this, "Falloff");
    PacketRef mask = TakePrepared(context, 0);
    if (!mask || mask->grid.width != input->grid.width || mask->grid.height != input->grid.height)
        mask = NewPacketLike(*input, kHeightField);
    mask->grid = input->grid;
    const int32_t channels = kind == kBitmap ? 3 : 1;
    const uint64_t width = static_cast<uint64_t>(input->grid.width);
    if (input->PointCount() > 0 &&
        !RunRows(context, this, 0, input->grid.height - 1, [&](int32_t first, int32_t last) {
            SelectColourMask(input->samples, channels, first * width,
                             (static_cast<uint64_t>(last) + 1) * width, colour, tolerance, falloff,
                             mask->samples);
        }))
        return false;
    mask->maskFlag = 1;
    StoreOutput(context, mask, 0);
    return true;
}

}  // namespace basekit
