#include "devices/converters/ChannelCombiner.h"

#include "devices/converters/ColourKernels.h"

namespace basekit {

ChannelCombiner::ChannelCombiner() {
    SetPortCount(this, 3, 1, kHeightField);
    outputs[0]->kind = kBitmap;
    NameChannelPorts(ChannelPorts(), kChannelsRgb);
}

bool ChannelCombiner::Build(const BuildContext& context) {
    PacketRef fields[3];
    for (uint32_t i = 0; i < 3; ++i) {
        fields[i] = InputPacket(context, i);
        if (!fields[i]) return false;
        fields[i] = ConvertPacket(fields[i], kHeightField);
        if (fields[i]->GetKind() != kHeightField) return false;
    }
    CheckSameShape(*fields[0], *fields[1]);
    CheckSameShape(*fields[0], *fields[2]);
    const bool hsb = Hsb();
    PacketRef image = NewPacketLike(*fields[0], kBitmap);
    const float* const channels[3] = {fields[0]->samples, fields[1]->samples, fields[2]->samples};
    float* rgb = image->samples;
    const int32_t width = image->grid.width;
    if (image->PointCount() > 0 &&
        !RunRows(context, this, 0, image->grid.height - 1, [&](int32_t first, int32_t last) {
            CombineChannelRows(channels, width, first, last, hsb, rgb);
        }))
        return false;
    StoreOutput(context, image, 0);
    return true;
}

}  // namespace basekit
