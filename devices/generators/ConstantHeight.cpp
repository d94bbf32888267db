#include "devices/generators/ConstantHeight.h"

#include <algorithm>

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Height", kParamReal, 0.0, 0.0, 1.0, 256, "The height to set the terrain level at"},
};

ConstantHeight::ConstantHeight() {
    SetIdentity("CHGT", &CreateDevice<ConstantHeight>);
    SetPortCount(this, 0, 1, kHeightField);
    DeclareParameters(this, kParameters);
}

void FillConstant(float* samples, uint64_t count, float height) {
    std::fill(samples, samples + count, height);
}

bool ConstantHeight::Build(const BuildContext& context) {
    float height = ParamFloat(this, "Height");
    PacketRef field = TakePrepared(context, 0);
    if (!field) field = NewHeightField(context.grid);
    // The range already bounds the value: no clamping.
    FillConstant(field->samples, field->PointCount(), height);
    StoreOutput(context, field, 0);
    return true;
}

bool ConstantHeight::Save(std::ostream& out) {
    return SaveState(out, 1);
}

bool ConstantHeight::Load(std::istream& in) {
    uint8_t version;
    return LoadState(in, version);
}

}  // namespace basekit
