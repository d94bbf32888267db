// The combine loops compiled for AVX2.

#include "devices/combiners/CombinePaths.h"

BASEKIT_BEGIN_AVX2
#include "devices/combiners/CombineRows.h"
BASEKIT_END_TARGET

namespace basekit::combine {

namespace {
struct Avx2 {};
}  // namespace

BASEKIT_TARGET_AVX2 void HeightRowsAvx2(const CombinePlane& plane, int32_t method, float strength,
                                        int32_t first, int32_t last) {
    HeightRows<Avx2>(plane, method, strength, first, last);
}

BASEKIT_TARGET_AVX2 void ImageRowsAvx2(const CombinePlane& plane, int32_t method, float strength,
                                       int32_t first, int32_t last) {
    ImageRows<Avx2>(plane, method, strength, first, last);
}

BASEKIT_TARGET_AVX2 void ArithmeticRowsAvx2(const CombinePlane& plane, int32_t operation,
                                            float amount, int32_t first, int32_t last) {
    ArithmeticRows<Avx2>(plane, operation, amount, first, last);
}

}  // namespace basekit::combine
