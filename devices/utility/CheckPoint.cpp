#include "devices/utility/CheckPoint.h"

#include <algorithm>

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Number of Ports", kParamInteger, 3, 1, 32, 0, nullptr},
};

constexpr int32_t kMostPorts = 32;

namespace {

ParamRecord& PortCount(Device& device) {
    return device.params
        .records[static_cast<size_t>(FindParameter(device.params, "Number of Ports"))];
}

// The count a value asks for, within what the device can hold.
uint32_t CountOf(int32_t value) {
    return static_cast<uint32_t>(std::clamp(value, 1, kMostPorts));
}

}  // namespace

CheckPoint::CheckPoint() {
    SetPortCount(this, 3, 3, 0);
    DeclareParameters(this, kParameters);
}

int32_t CheckPoint::PortsInUse() const {
    int32_t used = 1;
    for (size_t i = 0; i < inputs.size(); ++i)
        if (inputs[i]->peer) used = std::max(used, static_cast<int32_t>(i) + 1);
    for (size_t i = 0; i < outputs.size(); ++i)
        if (!outputs[i]->links.empty()) used = std::max(used, static_cast<int32_t>(i) + 1);
    return used;
}

bool CheckPoint::EditSettings() {
    PortCount(*this).minimum.i = PortsInUse();
    if (!Device::EditSettings()) return false;
    ParamRecord& count = PortCount(*this);
    const uint32_t wanted = CountOf(std::max(count.value.i, count.minimum.i));
    count.value.i = static_cast<int32_t>(wanted);
    if (wanted != inputs.size() || wanted != outputs.size()) {
        ResizePorts(this, wanted, wanted, 0);
        if (Services() && Services()->network) Services()->network->DeviceChanged(this);
    }
    return true;
}

bool CheckPoint::Build(const BuildContext& context) {
    for (uint32_t i = 0; i < inputs.size(); ++i) {
        PacketRef packet = InputPacket(context, i);
        if (packet) StoreOutput(context, packet, i);
    }
    return true;
}

void CheckPoint::CopyFrom(Device* other) {
    Device::CopyFrom(other);
    if (!other || other == this) return;
    const uint32_t count = CountOf(PortCount(*this).value.i);
    ResizePorts(this, count, count, 0);
}

bool CheckPoint::AfterLoad(uint8_t /*version*/) {
    const uint32_t count = CountOf(PortCount(*this).value.i);
    SetPortCount(this, count, count, 0);
    return true;
}

}  // namespace basekit
