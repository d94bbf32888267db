#pragma once

#include <cstdint>

#include "devices/natural/coast/CoastKernels.h"
#include "framework/DeviceOf.h"

namespace basekit {

// Shapes a terrain around a water line: a beach just above it, a shelf just
// below it, and optionally smoothed ground under water. Besides the terrain it
// gives out a water mask and a beach mask.
class CoastalErosion : public DeviceOf<CoastalErosion, NaturalFilter> {
  public:
    static constexpr DeviceInfo kInfo{"COER", "Coast Erosion", "Ocean coast Erosion", 1};
    CoastalErosion();
    bool OptionQuery3(uint32_t globals) override;
    bool Build(const BuildContext& context) override;
};

}  // namespace basekit
