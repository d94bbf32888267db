#pragma once

#include <cstdint>

#include "framework/DeviceOf.h"

namespace basekit {

// Mirrors a height field or a bitmap left-right, top-bottom or both.
class Flipper : public DeviceOf<Flipper, Filter> {
  public:
    static constexpr DeviceInfo kInfo{"FLIP", "Flipper",
                                      "Flips the terrain horizontally or vertically", 1};
    Flipper();
    bool OptionQuery7() override { return false; }
    bool OptionQuery8() override { return false; }
    bool Build(const BuildContext& context) override;
};

// A flip from `in` to `out`, both width x height points of `channels` floats.
struct FlipPlane {
    const float* in;
    float* out;
    int32_t width;
    int32_t height;
    int channels;
};

// Output rows first..last: row y takes input row height-1-y when `vertical`,
// its columns reversed when `horizontal`; whole points move, channels in
// order. Neither switch copies.
void FlipRows(const FlipPlane& plane, bool horizontal, bool vertical, int32_t first, int32_t last);

}  // namespace basekit
