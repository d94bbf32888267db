#pragma once

#include <cstdint>

#include "framework/DeviceOf.h"

namespace basekit {

// The "Router": passes its input to the one output that "Output Choice" names;
// "Number of Outputs" sets how many outputs there are.
class MultiSwitch : public DeviceOf<MultiSwitch, Utility> {
  public:
    static constexpr DeviceInfo kInfo{
        "MSWC", "Router",
        "Passes the input packet along to only one of the outputs, based on the routing setting.",
        1};
    MultiSwitch();
    bool OptionQuery7() override { return false; }
    bool Build(const BuildContext& context) override;
    // Rebuilds the outputs to "Number of Outputs", then tells the owner.
    void SettingsChanged() override;
    void CopyFrom(Device* other) override;
    bool AfterLoad(uint8_t version);

  private:
    // Outputs to the count (links kept on the outputs that stay), every one
    // optional, and "Output Choice" ranging over them.
    void FollowCount();
};

}  // namespace basekit
