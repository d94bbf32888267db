#include "devices/selectors/SelectColor.h"

#include <cmath>

#include "framework/Ramps.h"

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Color", kParamInteger, 0x808080, 0, kColourMaximum, 0, "The colour to select"},
    {"Tolerance", kParamReal, 0.1, 0.0, 1.0, 0, "Colour distance that is fully selected"},
    {"Falloff", kParamReal, 0.1, 0.0, 1.0, 0,
     "Colour distance beyond the tolerance over which the selection fades out"},
};

SelectColor::SelectColor() {
    SetPortCount(this, 1, 1, kHeightField);
    inputs[0]->kind = kHeightField | kBitmap;
    DeclareParameters(this, kParameters);
}

void SelectColourMask(const float* image, int32_t channels, uint64_t begin, uint64_t end,
                      const float colour[3], float tolerance, float falloff, float* mask) {
    const float root3 = std::sqrt(3.0f);
    const float reach = tolerance + falloff;
    const bool grey = channels == 1;
    for (uint64_t i = begin; i < end; ++i) {
        const float* p = image + i * static_cast<uint64_t>(channels);
        const float dr = p[0] - colour[0];
        const float dg = p[grey ? 0 : 1] - colour[1];
        const float db = p[grey ? 0 : 2] - colour[2];
        const float d = std::sqrt(dr * dr + dg * dg + db * db) / root3;
        float m = 0.0f;
        if (d <= tolerance)
            m = 1.0f;
        else if (falloff > 0.0f && d < reach)
            m = 1.0f - (d - tolerance) / falloff;
        mask[i] = ClampHeight(m);
    }
}

bool SelectColor::Build(const BuildContext& context) {
    PacketRef input = InputPacket(context, 0);
    if (!input) return false;
    const uint32_t kind = input->GetKind();
    if (kind != kHeightField && kind != kBitmap) return false;
    float colour[3];
    ParamColour(this, "Color", colour);
    const float tolerance = ParamFloat(this, "Tolerance");
    const float falloff = ParamFloat(this, "Falloff");
    PacketRef mask = TakePrepared(context, 0);
    if (!mask || mask->grid.width != input->grid.width || mask->grid.height != input->grid.height)
        mask = NewPacketLike(*input, kHeightField);
    mask->grid = input->grid;
    const int32_t channels = kind == kBitmap ? 3 : 1;
    const uint64_t width = static_cast<uint64_t>(input->grid.width);
    if (input->PointCount() > 0 &&
        !RunRows(context, this, 0, input->grid.height - 1, [&](int32_t first, int32_t last) {
            SelectColourMask(input->samples, channels, first * width,
                             (static_cast<uint64_t>(last) + 1) * width, colour, tolerance, falloff,
                             mask->samples);
        }))
        return false;
    mask->maskFlag = 1;
    StoreOutput(context, mask, 0);
    return true;
}

}  // namespace basekit
