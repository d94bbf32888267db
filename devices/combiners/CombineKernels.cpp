#include "devices/combiners/CombineKernels.h"

#include "devices/combiners/CombinePaths.h"
#include "devices/combiners/CombineRows.h"

namespace basekit {

namespace {
struct Plain {};
}  // namespace

void CombineHeightRows(const CombinePlane& plane, int32_t method, float strength, int32_t first,
                       int32_t last, VectorPath path) {
    switch (UsablePath(path)) {
        case VectorPath::Avx512:
            return combine::HeightRowsAvx512(plane, method, strength, first, last);
        case VectorPath::Avx2:
            return combine::HeightRowsAvx2(plane, method, strength, first, last);
        case VectorPath::Plain:
            break;
    }
    combine::HeightRows<Plain>(plane, method, strength, first, last);
}

void CombineImageRows(const CombinePlane& plane, int32_t method, float strength, int32_t first,
                      int32_t last, VectorPath path) {
    switch (UsablePath(path)) {
        case VectorPath::Avx512:
            return combine::ImageRowsAvx512(plane, method, strength, first, last);
        case VectorPath::Avx2:
            return combine::ImageRowsAvx2(plane, method, strength, first, last);
        case VectorPath::Plain:
            break;
    }
    combine::ImageRows<Plain>(plane, method, strength, first, last);
}

void ArithmeticRows(const CombinePlane& plane, int32_t operation, float amount, int32_t first,
                    int32_t last, VectorPath path) {
    switch (UsablePath(path)) {
        case VectorPath::Avx512:
            return combine::ArithmeticRowsAvx512(plane, operation, amount, first, last);
        case VectorPath::Avx2:
            return combine::ArithmeticRowsAvx2(plane, operation, amount, first, last);
        case VectorPath::Plain:
            break;
    }
    combine::ArithmeticRows<Plain>(plane, operation, amount, first, last);
}

}  // namespace basekit
