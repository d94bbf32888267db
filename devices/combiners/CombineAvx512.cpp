// The combine loops compiled for AVX512.

#include "devices/combiners/CombinePaths.h"

BASEKIT_BEGIN_AVX512
#include "devices/combiners/CombineRows.h"
BASEKIT_END_TARGET

namespace basekit::combine {

namespace {
struct Avx512 {};
}  // namespace

BASEKIT_TARGET_AVX512 void HeightRowsAvx512(const CombinePlane& plane, int32_t method,
                                            float strength, int32_t first, int32_t last) {
    HeightRows<Avx512>(plane, method, strength, first, last);
}

BASEKIT_TARGET_AVX512 void ImageRowsAvx512(const CombinePlane& plane, int32_t method,
                                           float strength, int32_t first, int32_t last) {
    ImageRows<Avx512>(plane, method, strength, first, last);
}

BASEKIT_TARGET_AVX512 void ArithmeticRowsAvx512(const CombinePlane& plane, int32_t operation,
                                                float amount, int32_t first, int32_t last) {
    ArithmeticRows<Avx512>(plane, operation, amount, first, last);
}

}  // namespace basekit::combine
