// Per-sample work on whole fields: the shapes most devices are made of. The
// sample functions are inlined into row loops that RunRows spreads over the
// host's threads.
#pragma once

#include <cstdint>

#include "framework/Exceptions.h"
#include "framework/Packet.h"
#include "framework/Rows.h"

namespace Orogen {

// A new packet of `kind` from the host with the size and world placement of
// `like`: the output that matches an input.
PacketRef NewPacketLike(const QXPacket& like, uint32_t kind);
inline PacketRef NewPacketLike(const QXPacket& like) {
    return NewPacketLike(like, like.GetKind());
}

// A height field as a grey bitmap (three equal channels), a bitmap as a height
// field (the mean of its channels); the mask flag and name go along. Any other
// pair hands `packet` back.
PacketRef ConvertPacket(const PacketRef& packet, uint32_t kind);

// Floats in one row of a packet: width times its channels.
inline uint64_t RowFloats(const QXPacket& packet) {
    return packet.grid.width > 0 ? static_cast<uint64_t>(packet.grid.width) * packet.Channels() : 0;
}

// Throws QXException unless `a` and `b` have one size and one kind.
void CheckSameShape(const QXPacket& a, const QXPacket& b);

// v := f(v) for every float of `packet` (each channel of a bitmap), in place.
template <class SampleFunction>
bool MapSamples(const BuildContext& context, Device* device, QXPacket& packet, SampleFunction f) {
    const uint64_t rowFloats = RowFloats(packet);
    float* samples = packet.samples;
    if (!samples || packet.PointCount() == 0) return true;
    return RunRows(context, device, 0, packet.grid.height - 1, [&](int32_t first, int32_t last) {
        float* end = samples + (static_cast<uint64_t>(last) + 1) * rowFloats;
        for (float* s = samples + static_cast<uint64_t>(first) * rowFloats; s < end; ++s)
            *s = f(*s);
    });
}

// a := f(a, b) for every float of two packets of one size and kind, in place
// in `a`.
template <class SampleFunction>
bool ZipSamples(const BuildContext& context, Device* device, QXPacket& a, const QXPacket& b,
                SampleFunction f) {
    CheckSameShape(a, b);
    const uint64_t rowFloats = RowFloats(a);
    float* out = a.samples;
    const float* in = b.samples;
    if (!out || !in || a.PointCount() == 0) return true;
    return RunRows(context, device, 0, a.grid.height - 1, [&](int32_t first, int32_t last) {
        const uint64_t begin = static_cast<uint64_t>(first) * rowFloats;
        const uint64_t end = (static_cast<uint64_t>(last) + 1) * rowFloats;
        for (uint64_t i = begin; i < end; ++i) out[i] = f(out[i], in[i]);
    });
}

}  // namespace Orogen
