#include "devices/combiners/HeightCombiner.h"

#include "devices/converters/PixelsAvx2.h"
#include "framework/Ramps.h"

namespace basekit {

// Transition 0 is the plain maximum: new devices keep the sharp seam.
static const ParamSpec kParameters[] = {
    {"Keep", kParamChoice, 0, 0, 1, 0, nullptr, {"Higher", "Lower"}},
    {"Transition", kParamReal, 0.0, 0.0, 0.5, 0,
     "The height difference over which the two terrains blend"},
};

HeightCombiner::HeightCombiner() {
    SetPortCount(this, 2, 2, kHeightField);
    inputs[1]->SetName("Secondary Input");
    outputs[1]->SetName("Choice Mask");
    outputs[1]->role = kRoleOptional;
    DeclareParameters(this, kParameters);
}

#if defined(BASEKIT_HAVE_X86_VECTORS)
namespace {

// The plain loop's operations in its order, eight samples at a time;
// returns where the plain loop goes on.
BASEKIT_TARGET_AVX2 uint64_t ChooseHeightsAvx2(float* a, const float* b, float* mask,
                                               uint64_t begin, uint64_t end, bool lower, float k) {
    const __m256 zero = _mm256_setzero_ps(), one = _mm256_set1_ps(1.0f);
    const __m256 K = _mm256_set1_ps(k), lo = _mm256_set1_ps(-k), span = _mm256_set1_ps(k - -k);
    const bool soft = k > 0.0f;
    uint64_t i = begin;
    for (; i + 8 <= end; i += 8) {
        const __m256 x = _mm256_loadu_ps(a + i), y = _mm256_loadu_ps(b + i);
        __m256 w;
        if (soft) {
            const __m256 v = lower ? _mm256_sub_ps(x, y) : _mm256_sub_ps(y, x);
            const __m256 t = _mm256_div_ps(_mm256_sub_ps(v, lo), span);
            w = _mm256_min_ps(one, _mm256_max_ps(zero, t));  // RampBetween, NaN kept
        } else {
            w = _mm256_and_ps(
                one, lower ? _mm256_cmp_ps(y, x, _CMP_LT_OQ) : _mm256_cmp_ps(y, x, _CMP_GT_OQ));
        }
        const __m256 bend = _mm256_mul_ps(_mm256_mul_ps(K, w), _mm256_sub_ps(one, w));
        const __m256 mix = _mm256_add_ps(x, _mm256_mul_ps(_mm256_sub_ps(y, x), w));
        const __m256 r = lower ? _mm256_sub_ps(mix, bend) : _mm256_add_ps(mix, bend);
        _mm256_storeu_ps(a + i, colour::ClampHeights8(r));
        _mm256_storeu_ps(mask + i, colour::ClampHeights8(w));
    }
    return i;
}

}  // namespace
#endif

void ChooseHeights(float* a, const float* b, float* mask, uint64_t begin, uint64_t end,
                   int32_t keep, float k, VectorPath path) {
    const bool lower = keep == kKeepLower;
#if defined(BASEKIT_HAVE_X86_VECTORS)
    if (UsablePath(path) != VectorPath::Plain)
        begin = ChooseHeightsAvx2(a, b, mask, begin, end, lower, k);
#else
    (void)path;
#endif
    for (uint64_t i = begin; i < end; ++i) {
        const float x = a[i], y = b[i];
        float w;
        if (k > 0.0f)
            w = RampBetween(lower ? x - y : y - x, -k, k);
        else  // a hard choice: equal heights keep the primary
            w = (lower ? y < x : y > x) ? 1.0f : 0.0f;
        const float bend = k * w * (1.0f - w);
        const float r = lower ? x + (y - x) * w - bend : x + (y - x) * w + bend;
        a[i] = ClampHeight(r);
        mask[i] = ClampHeight(w);
    }
}

bool HeightCombiner::Build(const BuildContext& context) {
    PacketRef a, b;
    if (!HeightFieldPair(context, a, b)) return false;
    const int32_t keep = ParamInt(this, "Keep");
    const float transition = ParamFloat(this, "Transition");
    PacketRef mask = NewPacketLike(*a, kHeightField);
    const uint64_t width = RowFloats(*a);
    if (a->PointCount() > 0 &&
        !RunRows(context, this, 0, a->grid.height - 1, [&](int32_t first, int32_t last) {
            ChooseHeights(a->samples, b->samples, mask->samples, first * width,
                          (static_cast<uint64_t>(last) + 1) * width, keep, transition);
        }))
        return false;
    mask->maskFlag = 1;
    StoreOutput(context, a, 0);
    StoreOutput(context, mask, 1);
    return true;
}

}  // namespace basekit
