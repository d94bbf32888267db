#pragma once

#include <vector>

#include "devices/converters/ChannelDevice.h"

namespace basekit {

// A bitmap into three masks: red, green and blue, or hue, saturation and
// brightness.
class ChannelSplitter : public ChannelDevice<ChannelSplitter> {
  public:
    static constexpr DeviceInfo kInfo{"PRCS", "Channel Splitter",
                                      "Seperates the R,G,B channels of a bitmap into masks", 1};
    ChannelSplitter();
    bool Build(const BuildContext& context) override;
    std::vector<Port*> ChannelPorts() { return {outputs.begin(), outputs.end()}; }
};

}  // namespace basekit
