// Select Angle's rows compiled for AVX-512.

#include "devices/selectors/FacingPaths.h"

BASEKIT_BEGIN_AVX512
#include "devices/selectors/FacingRows.h"
BASEKIT_END_TARGET

namespace basekit::facing {

namespace {
struct Avx512 {};
}  // namespace

BASEKIT_TARGET_AVX512 void FacingRowsAvx512(const float* heights, const Orogen::Grid& grid,
                                            const FacingDirection& direction, int32_t first,
                                            int32_t last, float* facing, float* angle) {
    FacingRowsOf<Avx512>(heights, grid, direction, first, last, facing, angle);
}

}  // namespace basekit::facing
