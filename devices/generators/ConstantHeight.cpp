#include "devices/generators/ConstantHeight.h"

#include <algorithm>

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Height", kParamReal, 0.0, 0.0, 1.0, 256, "The height to set the terrain level at"},
};

ConstantHeight::ConstantHeight() {
    SetPortCount(this, 0, 1, kHeightField);
    DeclareParameters(this, kParameters);
}

void FillConstant(float* samples, uint64_t count, float height) {
    std::fill(samples, samples + count, height);
}

bool ConstantHeight::Build(const BuildContext& context) {
    const float height = ParamFloat(this, "Height");
    PacketRef field = FreshField(context);
    // The range already bounds the value: no clamping.
    const uint64_t width = RowFloats(*field);
    float* samples = field->samples;
    if (!RunRows(context, this, 0, field->grid.height - 1, [&](int32_t first, int32_t last) {
            FillConstant(samples + first * width, (last - first + 1) * width, height);
        }))
        return false;
    StoreOutput(context, field, 0);
    return true;
}

}  // namespace basekit
