#include "devices/utility/Equals.h"

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Current Evaluation", kParamBoolean, 0, 0, 1, 0,
     "Does the input value equal the comparison value?"},
    {"Comparison Value", kParamInteger, 0, 0, 65535, 0, "Value to compare the input parameter to."},
};

// The type codes that carry integers.
constexpr uint32_t kIntegerCode = kParamInteger;
constexpr uint32_t kChoiceCode = kParamChoice;

Equals::Equals() {
    SetPortCount(this, 1, 1, 3);
    inputs[0]->SetName("Parameter Input");
    outputs[0]->SetName("Parameter Output");
    DeclareParameters(this, kParameters);
}

bool IntegerEquals(float value, uint32_t comparison) {
    if (!(value >= 0.0f && value < 4294967296.0f)) return false;
    const auto word = static_cast<uint32_t>(value);
    return static_cast<float>(word) == value && word == comparison;
}

bool Equals::Build(const BuildContext& context) {
    const auto comparison = static_cast<uint32_t>(ParamInt(this, "Comparison Value"));
    PacketRef packet = InputPacket(context, 0);
    if (!packet || packet->GetKind() != kParameterPacket || !packet->samples) return false;
    const uint32_t code = PacketTypeCode(*packet);
    if (code != kIntegerCode && code != kChoiceCode) return false;
    const bool equal = IntegerEquals(PacketValue(*packet), comparison);
    GetParameter(this, "Current Evaluation")->i = equal ? 1 : 0;
    PacketRef answer = NewPacket(kParameterPacket, context.grid);
    SetPacketValue(*answer, equal ? 1.0f : 0.0f, kParamBoolean);
    StoreOutput(context, answer, 0);
    return true;
}

}  // namespace basekit
