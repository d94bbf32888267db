// What the snow pass's plain code shares with its vector paths.
#pragma once

#include <cstdint>

#include "devices/natural/snow/SnowKernels.h"
#include "framework/VectorDispatch.h"

namespace basekit::snow {

// Row y, columns from x while whole vectors fit below end; returns where
// they stop, for the plain loop to finish the row.
BASEKIT_TARGET_AVX2 int32_t SnowRowAvx2(const SnowPass& p, int32_t y, int32_t x, int32_t end);
BASEKIT_TARGET_AVX512 int32_t SnowRowAvx512(const SnowPass& p, int32_t y, int32_t x, int32_t end);

}  // namespace basekit::snow
