#pragma once

#include <cstdint>

#include "framework/DeviceOf.h"

namespace basekit {

// The "Route Picker": passes along the one input that "Input Choice" names;
// "Number of Inputs" sets how many inputs there are.
class MultiChooser : public DeviceOf<MultiChooser, Utility> {
  public:
    static constexpr DeviceInfo kInfo{"U_MC", "Route Picker",
                                      "Chooses one of several inputs based on a parameter", 1};
    MultiChooser();
    const char* GetInputName(uint32_t /*index*/) override { return "Choice Input"; }
    bool OptionQuery7() override { return false; }
    bool Build(const BuildContext& context) override;
    // Rebuilds the inputs to "Number of Inputs", then tells the owner.
    void SettingsChanged() override;
    void CopyFrom(Device* other) override;
    bool AfterLoad(uint8_t version);

  private:
    // Inputs to the count (links kept on the inputs that stay), every one
    // optional, and "Input Choice" ranging over them.
    void FollowCount();
};

}  // namespace basekit
