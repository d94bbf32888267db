#pragma once

#include <vector>

#include "devices/converters/ChannelDevice.h"

namespace basekit {

// Three grey height fields into one bitmap, read as red, green and blue or as
// hue, saturation and brightness.
class ChannelCombiner : public ChannelDevice<ChannelCombiner> {
  public:
    static constexpr DeviceInfo kInfo{"PRCC", "Channel Combiner",
                                      "Combines 3 seperate greyscale channels into a bitmap", 1};
    ChannelCombiner();
    bool Build(const BuildContext& context) override;
    std::vector<Port*> ChannelPorts() { return inputs; }
};

}  // namespace basekit
