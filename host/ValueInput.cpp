#include "host/ValueInput.h"

#include <cmath>
#include <cstring>

#include "framework/Serialization.h"

namespace basekit::host {

namespace {
constexpr uint8_t kVersion = 1;
}

ValueInput::ValueInput() {
    SetIdentity("VALU", &Orogen::CreateDevice<ValueInput>);
    Orogen::SetPortCount(this, 0, 1, 3);
    outputs[0]->SetName("Parameter Output");
}

bool ValueInput::Build(const Orogen::BuildContext& context) {
    Orogen::PacketRef packet = Orogen::NewPacket(Orogen::kParameterPacket, context.grid);
    Orogen::SetPacketValue(*packet, value, typeCode);
    StoreOutput(context, packet, 0);
    return true;
}

ValueInput* AsValueInput(Orogen::Device* device) {
    if (!device || device->identity.create != &Orogen::CreateDevice<ValueInput>) return nullptr;
    return static_cast<ValueInput*>(device);
}

bool ValueInput::Save(std::ostream& out) {
    SaveHeader(out, kVersion);
    Orogen::StateWriter writer(out);
    writer.F32(value);
    writer.U32(typeCode);
    return SaveBaseState(out);
}

bool ValueInput::Load(std::istream& in) {
    uint8_t version;
    if (!LoadHeader(in, version) || version != kVersion) return false;
    Orogen::StateReader reader(in);
    uint32_t bits, code;
    if (!reader.U32(bits) || !reader.U32(code) || code > kMaxTypeCode) return false;
    float number;
    std::memcpy(&number, &bits, sizeof number);
    if (!std::isfinite(number) || !LoadBaseState(in)) return false;
    Set(number, code);
    return true;
}

}  // namespace basekit::host
