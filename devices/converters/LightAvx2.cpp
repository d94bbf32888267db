// The light map's rows compiled for AVX2.

#include "devices/converters/LightPaths.h"

BASEKIT_BEGIN_AVX2
#include "devices/converters/LightRows.h"
BASEKIT_END_TARGET

namespace basekit::light {

namespace {
struct Avx2 {};
}  // namespace

BASEKIT_TARGET_AVX2 void LightRowsAvx2(const LightSetup& setup, const float* heights,
                                       const Orogen::Grid& grid, const float* shadow, int32_t first,
                                       int32_t last, float* out) {
    LightRowsOf<Avx2>(setup, heights, grid, shadow, first, last, out);
}

}  // namespace basekit::light
