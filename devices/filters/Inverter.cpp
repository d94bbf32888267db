#include "devices/filters/Inverter.h"

namespace basekit {

Inverter::Inverter() {
    SetPortCount(this, 1, 1, kHeightField | kBitmap);
}

void InvertSamples(float* samples, uint64_t count) {
    for (uint64_t i = 0; i < count; ++i) samples[i] = 1.0f - samples[i];
}

bool Inverter::Build(const BuildContext& context) {
    PacketRef packet = TakePrepared(context, 0);
    if (!packet) packet = InputPacket(context, 0);
    if (!packet) return false;
    // Other kinds pass through unchanged.
    const uint32_t kind = packet->GetKind();
    if ((kind == kHeightField || kind == kBitmap) && packet->samples) {
        const uint64_t rowFloats = RowFloats(*packet);
        float* samples = packet->samples;
        if (!RunRows(context, this, 0, packet->grid.height - 1, [&](int32_t first, int32_t last) {
                InvertSamples(samples + static_cast<uint64_t>(first) * rowFloats,
                              static_cast<uint64_t>(last - first + 1) * rowFloats);
            }))
            return false;
    }
    StoreOutput(context, packet, 0);
    return true;
}

}  // namespace basekit
