// The light map's rows on the vector paths.
#pragma once

#include <cstdint>

#include "devices/converters/LightKernels.h"
#include "framework/VectorDispatch.h"

namespace basekit::light {

BASEKIT_TARGET_AVX2 void LightRowsAvx2(const LightSetup& setup, const float* heights,
                                       const Orogen::Grid& grid, const float* shadow, int32_t first,
                                       int32_t last, float* out);
BASEKIT_TARGET_AVX512 void LightRowsAvx512(const LightSetup& setup, const float* heights,
                                           const Orogen::Grid& grid, const float* shadow,
                                           int32_t first, int32_t last, float* out);

}  // namespace basekit::light
