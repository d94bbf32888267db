#pragma once

#include <cstdint>

#include "framework/DeviceOf.h"

namespace basekit {

// Passes input 0 or, with "Input choice" on, input 1 along unchanged.
class Switch : public DeviceOf<Switch, Utility> {
  public:
    static constexpr DeviceInfo kInfo{
        "SWCH", "Switch",
        "The switch passes along one of the inputs based upon the switch's setting", 1};
    Switch();
    const char* GetInputName(uint32_t index) override;
    bool OptionQuery7() override { return false; }
    bool Build(const BuildContext& context) override;
};

}  // namespace basekit
