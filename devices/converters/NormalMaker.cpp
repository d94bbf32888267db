#include "devices/converters/NormalMaker.h"

#include "devices/converters/ColourKernels.h"

namespace basekit {

// "Encoding Type" has one choice; Build does not read it.
static const ParamSpec kParameters[] = {
    {"Encoding Type", kParamChoice, 0, 0, 0, 0, nullptr, {"R=X, G=Y, B=Z"}},
    {"Flip X", kParamBoolean, 0, 0, 1, 0, nullptr},
    {"Flip Y", kParamBoolean, 0, 0, 1, 0, nullptr},
};

NormalMaker::NormalMaker() {
    SetPortCount(this, 1, 1, kHeightField);
    outputs[0]->kind = kBitmap;
    DeclareParameters(this, kParameters);
}

bool NormalMaker::Build(const BuildContext& context) {
    PacketRef input = InputPacket(context, 0);
    if (!input) return false;
    input = ConvertPacket(input, kHeightField);
    if (input->GetKind() != kHeightField) return false;
    const NormalSetup setup{input->samples, input->grid, ParamBool(this, "Flip X") ? 1.0f : -1.0f,
                            ParamBool(this, "Flip Y") ? 1.0f : -1.0f};
    PacketRef image = NewPacketLike(*input, kBitmap);
    float* rgb = image->samples;
    if (input->PointCount() > 0 &&
        !RunRows(
            context, this, 0, setup.grid.height - 1,
            [&](int32_t first, int32_t last) { NormalRows(setup, first, last, rgb); }, kRowPieces,
            RowProgress::Rows))
        return false;
    StoreOutput(context, image, 0);
    return true;
}

}  // namespace basekit
