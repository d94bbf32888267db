#include "framework/Fields.h"

#include <cstring>

namespace Orogen {

PacketRef NewPacketLike(const QXPacket& like, uint32_t kind) {
    return NewPacket(kind, like.grid);
}

PacketRef ConvertPacket(const PacketRef& packet, uint32_t kind) {
    const uint32_t have = packet->GetKind();
    const bool toBitmap = kind == kBitmap && have == kHeightField;
    const bool toField = kind == kHeightField && have == kBitmap;
    if (!toBitmap && !toField) return packet;
    PacketRef converted = NewPacketLike(*packet, kind);
    const uint64_t points = packet->PointCount();
    const float* in = packet->samples;
    float* out = converted->samples;
    if (in && out) {
        for (uint64_t i = 0; i < points; ++i) {
            if (toBitmap)
                out[3 * i] = out[3 * i + 1] = out[3 * i + 2] = in[i];
            else
                out[i] = (in[3 * i] + in[3 * i + 1] + in[3 * i + 2]) / 3.0f;
        }
    }
    converted->maskFlag = packet->maskFlag;
    std::memcpy(converted->name, packet->name, sizeof converted->name);
    return converted;
}

void CheckSameShape(const QXPacket& a, const QXPacket& b) {
    if (a.grid.width != b.grid.width || a.grid.height != b.grid.height)
        throw QXException("Size of packets don't match");
    if (a.GetKind() != b.GetKind()) throw QXException("Kinds of packets don't match");
}

}  // namespace Orogen
