// The light map's rows compiled for AVX-512.

#include "devices/converters/LightPaths.h"

BASEKIT_BEGIN_AVX512
#include "devices/converters/LightRows.h"
BASEKIT_END_TARGET

namespace basekit::light {

namespace {
struct Avx512 {};
}  // namespace

BASEKIT_TARGET_AVX512 void LightRowsAvx512(const LightSetup& setup, const float* heights,
                                           const Orogen::Grid& grid, const float* shadow,
                                           int32_t first, int32_t last, float* out) {
    LightRowsOf<Avx512>(setup, heights, grid, shadow, first, last, out);
}

}  // namespace basekit::light
