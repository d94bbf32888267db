#include "devices/utility/Switch.h"

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Input choice", kParamBoolean, 0, 0, 1, 0,
     "If enabled, passes the optional input along instead of the primary input."},
};

Switch::Switch() {
    SetPortCount(this, 2, 1, 0);
    inputs[1]->SetName("Optional input");
    inputs[1]->role = kRoleOptional;
    DeclareParameters(this, kParameters);
}

const char* Switch::GetInputName(uint32_t index) {
    if (index == 1) return "Optional input";
    return Device::GetInputName(index);
}

bool Switch::Build(const BuildContext& context) {
    PacketRef primary = InputPacket(context, 0);
    PacketRef optional = InputPacket(context, 1);
    const int32_t choice = ParamInt(this, "Input choice");
    if (choice != 0 && choice != 1) return false;
    const PacketRef& chosen = choice == 0 ? primary : optional;
    if (!chosen) return false;
    StoreOutput(context, chosen, 0);
    return true;
}

}  // namespace basekit
