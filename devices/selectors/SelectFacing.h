#pragma once

#include "framework/DeviceOf.h"

namespace basekit {

// Masks the slopes that face a direction given by heading and elevation, and
// gives out the direction each slope faces.
class SelectFacing : public DeviceOf<SelectFacing, Selector> {
  public:
    static constexpr DeviceInfo kInfo{"SELF", "Select Angle",
                                      "Select parts of a heightfield facing a given direction", 1};
    SelectFacing();
    const char* GetOutputName(uint32_t index) override;
    bool Build(const BuildContext& context) override;
};

}  // namespace basekit
