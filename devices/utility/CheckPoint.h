#pragma once

#include <cstdint>

#include "framework/DeviceOf.h"

namespace basekit {

// Passes every input along to the output of the same index: a stage marker
// in a network. "Number of Ports" sets how many pairs there are.
class CheckPoint : public DeviceOf<CheckPoint, Utility> {
  public:
    static constexpr DeviceInfo kInfo{
        "CHKP", "Checkpoint",
        "The Checkpoint device helps you organize your network into logical stages", 2};
    CheckPoint();
    // Connected ports survive: the count's minimum is raised above them
    // before the dialog opens; an accepted new count resizes both sides.
    bool EditSettings() override;
    bool OptionQuery7() override { return false; }
    bool Build(const BuildContext& context) override;
    void CopyFrom(Device* other) override;
    bool AfterLoad(uint8_t version);

    // One more than the highest port index with a link, at least 1.
    int32_t PortsInUse() const;
};

}  // namespace basekit
