#include "devices/filters/Flipper.h"

#include <cstring>

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Flip Horizontally", kParamBoolean, 0, 0, 1, 0, nullptr},
    {"Flip Vertically", kParamBoolean, 0, 0, 1, 0, nullptr},
};

Flipper::Flipper() {
    SetPortCount(this, 1, 1, kHeightField | kBitmap);
    DeclareParameters(this, kParameters);
}

namespace {

// Columns of one row in reverse, `Channels` floats per point.
template <int Channels>
void ReverseRow(const float* in, float* out, int32_t width) {
    const float* from = in + static_cast<int64_t>(width - 1) * Channels;
    for (int32_t x = 0; x < width; ++x, out += Channels, from -= Channels)
        for (int c = 0; c < Channels; ++c) out[c] = from[c];
}

// Three floats a point, moved as 16-byte blocks whose fourth float the next
// point overwrites: one load and one store a point. The first and last points
// go alone, so nothing outside the row is read or written.
void ReverseRgbRow(const float* in, float* out, int32_t width) {
    if (width < 3) return ReverseRow<3>(in, out, width);
    const int32_t last = width - 1;
    ReverseRow<3>(in + 3 * static_cast<int64_t>(last), out, 1);
    for (int32_t x = 1; x < last; ++x) {
        float block[4];
        std::memcpy(block, in + 3 * static_cast<int64_t>(last - x), sizeof block);
        std::memcpy(out + 3 * static_cast<int64_t>(x), block, sizeof block);
    }
    ReverseRow<3>(in, out + 3 * static_cast<int64_t>(last), 1);
}

}  // namespace

void FlipRows(const FlipPlane& plane, bool horizontal, bool vertical, int32_t first, int32_t last) {
    const int64_t rowFloats = static_cast<int64_t>(plane.width) * plane.channels;
    if (rowFloats <= 0) return;
    for (int32_t y = first; y <= last; ++y) {
        const int32_t from = vertical ? plane.height - 1 - y : y;
        const float* in = plane.in + from * rowFloats;
        float* out = plane.out + y * rowFloats;
        if (!horizontal)
            std::memcpy(out, in, static_cast<size_t>(rowFloats) * sizeof(float));
        else if (plane.channels == 1)
            ReverseRow<1>(in, out, plane.width);
        else if (plane.channels == 3)
            ReverseRgbRow(in, out, plane.width);
        else
            for (int32_t x = 0; x < plane.width; ++x)
                std::memcpy(out + static_cast<int64_t>(x) * plane.channels,
                            in + static_cast<int64_t>(plane.width - 1 - x) * plane.channels,
                            static_cast<size_t>(plane.channels) * sizeof(float));
    }
}

bool Flipper::Build(const BuildContext& context) {
    PacketRef input = WorkingInput(context, kHeightField | kBitmap);
    if (!input) return false;

    const bool horizontal = ParamBool(this, "Flip Horizontally");
    const bool vertical = ParamBool(this, "Flip Vertically");
    // The input is already a private copy: with neither switch it is the result.
    if (!horizontal && !vertical) {
        StoreOutput(context, input, 0);
        return true;
    }
    // Every sample is written below, so a fresh packet stands for the copy.
    PacketRef result = NewPacketLike(*input);
    result->maskFlag = input->maskFlag;
    if (input->samples && result->samples) {
        const FlipPlane plane{input->samples, result->samples, input->grid.width,
                              input->grid.height, input->Channels()};
        if (!RunRows(context, this, 0, plane.height - 1, [&](int32_t first, int32_t last) {
                FlipRows(plane, horizontal, vertical, first, last);
            }))
            return false;
    }
    input.Release();
    StoreOutput(context, result, 0);
    return true;
}

}  // namespace basekit
