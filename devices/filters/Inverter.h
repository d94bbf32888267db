#pragma once

#include <cstdint>

#include "framework/DeviceOf.h"

namespace basekit {

// 1 - v on every sample of a height field and every channel of a bitmap.
class Inverter : public DeviceOf<Inverter, Filter> {
  public:
    static constexpr DeviceInfo kInfo{"IVRT", "Inverter", "Inverts the heights of a terrain", 1};
    Inverter();
    bool OptionQuery7() override { return false; }
    bool Build(const BuildContext& context) override;
};

// v := 1 - v for `count` floats, unclamped: values outside 0..1 mirror about 0.5.
void InvertSamples(float* samples, uint64_t count);

}  // namespace basekit
