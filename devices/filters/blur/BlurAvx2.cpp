// The blur's AVX2 path: the sums of both passes, eight floats at a time.

#include <cstddef>
#include <cstdint>

#include "devices/filters/blur/BlurPaths.h"
#include "framework/Vectors.h"

BASEKIT_BEGIN_AVX2
#include "devices/filters/blur/SumTaps.h"
BASEKIT_END_TARGET

namespace basekit::blur {

BASEKIT_TARGET_AVX2 void SumTapsAvx2(const Taps& taps, size_t first, size_t end, float* out) {
    SumTapsPlain(taps, SumTapsVectors<Floats8>(taps, first, end, out), end, out);
}

}  // namespace basekit::blur
