#include "devices/utility/MultiSwitch.h"

#include <algorithm>

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Number of Outputs", kParamInteger, 2, 1, 16, 0,
     "Determines how many output ports should there be."},
    {"Output Choice", kParamInteger, 0, 0, 1, 0,
     "Selects which output port should recieve the input data."},
};

constexpr int32_t kMostOutputs = 16;

MultiSwitch::MultiSwitch() {
    SetPortCount(this, 1, 2, 0);
    DeclareParameters(this, kParameters);
    FollowCount();
}

void MultiSwitch::FollowCount() {
    const int32_t count = std::clamp(ParamInt(this, "Number of Outputs"), 1, kMostOutputs);
    ResizePorts(this, 1, static_cast<uint32_t>(count), 0);
    for (OutputPort* port : outputs) port->role = kRoleOptional;
    params.records[static_cast<size_t>(FindParameter(params, "Output Choice"))].maximum.i =
        count - 1;
}

bool MultiSwitch::Build(const BuildContext& context) {
    PacketRef packet = InputPacket(context, 0);
    if (!packet) return false;
    // An index beyond the outputs stores nothing; the build still succeeds.
    StoreOutput(context, packet, static_cast<uint32_t>(ParamInt(this, "Output Choice")));
    return true;
}

void MultiSwitch::SettingsChanged() {
    FollowCount();
    Device::SettingsChanged();
}

void MultiSwitch::CopyFrom(Device* other) {
    Device::CopyFrom(other);
    if (other && other != this) FollowCount();
}

bool MultiSwitch::AfterLoad(uint8_t /*version*/) {
    FollowCount();
    return true;
}

}  // namespace basekit
