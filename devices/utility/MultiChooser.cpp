#include "devices/utility/MultiChooser.h"

#include <algorithm>

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Number of Inputs", kParamInteger, 2, 1, 16, 0,
     "Determines how many input ports should there be."},
    {"Input Choice", kParamInteger, 0, 0, 1, 0,
     "Selects which input port should be passed on to the output."},
};

constexpr int32_t kMostInputs = 16;

MultiChooser::MultiChooser() {
    SetPortCount(this, 2, 1, 0);
    DeclareParameters(this, kParameters);
    FollowCount();
}

void MultiChooser::FollowCount() {
    const int32_t count = std::clamp(ParamInt(this, "Number of Inputs"), 1, kMostInputs);
    ResizePorts(this, static_cast<uint32_t>(count), 1, 0);
    for (Port* port : inputs) {
        port->SetName("Choice Input");
        port->role = kRoleOptional;
    }
    params.records[static_cast<size_t>(FindParameter(params, "Input Choice"))].maximum.i =
        count - 1;
}

bool MultiChooser::Build(const BuildContext& context) {
    // An index beyond the inputs, or an unconnected one, yields nothing.
    const auto choice = static_cast<uint32_t>(ParamInt(this, "Input Choice"));
    PacketRef packet = InputPacket(context, choice);
    if (!packet) return false;
    StoreOutput(context, packet, 0);
    return true;
}

void MultiChooser::SettingsChanged() {
    FollowCount();
    Device::SettingsChanged();
}

void MultiChooser::CopyFrom(Device* other) {
    Device::CopyFrom(other);
    if (other && other != this) FollowCount();
}

bool MultiChooser::AfterLoad(uint8_t /*version*/) {
    FollowCount();
    return true;
}

}  // namespace basekit
