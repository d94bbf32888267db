// Select Angle's rows on the vector paths.
#pragma once

#include <cstdint>

#include "devices/selectors/SelectorKernels.h"
#include "framework/VectorDispatch.h"

namespace basekit::facing {

BASEKIT_TARGET_AVX2 void FacingRowsAvx2(const float* heights, const Orogen::Grid& grid,
                                        const FacingDirection& direction, int32_t first,
                                        int32_t last, float* facing, float* angle);
BASEKIT_TARGET_AVX512 void FacingRowsAvx512(const float* heights, const Orogen::Grid& grid,
                                            const FacingDirection& direction, int32_t first,
                                            int32_t last, float* facing, float* angle);

}  // namespace basekit::facing
