// Select Angle's rows compiled for AVX2.

#include "devices/selectors/FacingPaths.h"

BASEKIT_BEGIN_AVX2
#include "devices/selectors/FacingRows.h"
BASEKIT_END_TARGET

namespace basekit::facing {

namespace {
struct Avx2 {};
}  // namespace

BASEKIT_TARGET_AVX2 void FacingRowsAvx2(const float* heights, const Orogen::Grid& grid,
                                        const FacingDirection& direction, int32_t first,
                                        int32_t last, float* facing, float* angle) {
    FacingRowsOf<Avx2>(heights, grid, direction, first, last, facing, angle);
}

}  // namespace basekit::facing
