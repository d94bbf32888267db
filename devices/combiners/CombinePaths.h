// The combine loops' entry points on the vector paths.
#pragma once

#include <cstdint>

#include "devices/combiners/CombineKernels.h"
#include "framework/VectorDispatch.h"

namespace basekit::combine {

BASEKIT_TARGET_AVX2 void HeightRowsAvx2(const CombinePlane& plane, int32_t method, float strength,
                                        int32_t first, int32_t last);
BASEKIT_TARGET_AVX2 void ImageRowsAvx2(const CombinePlane& plane, int32_t method, float strength,
                                       int32_t first, int32_t last);
BASEKIT_TARGET_AVX2 void ArithmeticRowsAvx2(const CombinePlane& plane, int32_t operation,
                                            float amount, int32_t first, int32_t last);

BASEKIT_TARGET_AVX512 void HeightRowsAvx512(const CombinePlane& plane, int32_t method,
                                            float strength, int32_t first, int32_t last);
BASEKIT_TARGET_AVX512 void ImageRowsAvx512(const CombinePlane& plane, int32_t method,
                                           float strength, int32_t first, int32_t last);
BASEKIT_TARGET_AVX512 void ArithmeticRowsAvx512(const CombinePlane& plane, int32_t operation,
                                                float amount, int32_t first, int32_t last);

}  // namespace basekit::combine
