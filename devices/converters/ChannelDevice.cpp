#include "devices/converters/ChannelDevice.h"

namespace basekit {

void NameChannelPorts(const std::vector<Port*>& ports, int32_t type) {
    static const char* const kRgb[3] = {"Red", "Green", "Blue"};
    static const char* const kHsb[3] = {"Hue", "Saturation", "Brightness"};
    const char* const* names = type == kChannelsHsb ? kHsb : kRgb;
    for (size_t i = 0; i < ports.size() && i < 3; ++i) ports[i]->SetName(names[i]);
}

}  // namespace basekit
