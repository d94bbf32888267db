#include "devices/converters/ColorGradient.h"

#include "devices/converters/ColourKernels.h"

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Color #1", kParamInteger, 0x000000, 0, kColourMaximum, 0, nullptr},
    {"Color #2", kParamInteger, 0xFFFFFF, 0, kColourMaximum, 0, nullptr},
};

ColorGradient::ColorGradient() {
    SetPortCount(this, 1, 1, kHeightField);
    outputs[0]->kind = kBitmap;
    DeclareParameters(this, kParameters);
}

bool ColorGradient::Build(const BuildContext& context) {
    PacketRef input = InputPacket(context, 0);
    if (!input) return false;
    input = ConvertPacket(input, kHeightField);
    if (input->GetKind() != kHeightField) return false;
    float low[3], high[3];
    ParamColour(this, "Color #1", low);
    ParamColour(this, "Color #2", high);
    PacketRef image = NewPacketLike(*input, kBitmap);
    const float* heights = input->samples;
    float* rgb = image->samples;
    const int32_t width = input->grid.width;
    if (input->PointCount() > 0 &&
        !RunRows(context, this, 0, input->grid.height - 1, [&](int32_t first, int32_t last) {
            ColourRampRows(heights, width, first, last, low, high, rgb);
        }))
        return false;
    StoreOutput(context, image, 0);
    return true;
}

}  // namespace basekit
