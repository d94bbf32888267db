#include "devices/converters/ChannelSplitter.h"

#include "devices/converters/ColourKernels.h"

namespace basekit {

ChannelSplitter::ChannelSplitter() {
    SetPortCount(this, 1, 3, kHeightField);
    inputs[0]->kind = kBitmap;
    NameChannelPorts(ChannelPorts(), kChannelsRgb);
}

bool ChannelSplitter::Build(const BuildContext& context) {
    PacketRef image = InputPacket(context, 0);
    if (!image) return false;
    image = ConvertPacket(image, kBitmap);
    if (image->GetKind() != kBitmap) return false;
    const bool hsb = Hsb();
    PacketRef fields[3];
    for (PacketRef& field : fields) {
        field = NewPacketLike(*image, kHeightField);
        field->maskFlag = 1;
    }
    float* const channels[3] = {fields[0]->samples, fields[1]->samples, fields[2]->samples};
    const float* rgb = image->samples;
    const int32_t width = image->grid.width;
    if (image->PointCount() > 0 &&
        !RunRows(context, this, 0, image->grid.height - 1, [&](int32_t first, int32_t last) {
            SplitChannelRows(rgb, width, first, last, hsb, channels);
        }))
        return false;
    for (uint32_t i = 0; i < 3; ++i) StoreOutput(context, fields[i], i);
    return true;
}

}  // namespace basekit
