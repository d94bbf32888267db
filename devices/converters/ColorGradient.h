#pragma once

#include "framework/DeviceOf.h"

namespace basekit {

// Maps heights onto a straight gradient between two colours.
class ColorGradient : public DeviceOf<ColorGradient, Converter> {
  public:
    static constexpr DeviceInfo kInfo{"COGR", "Colorize", "Colorizes an input heightmap", 1};
    ColorGradient();
    bool Build(const BuildContext& context) override;
};

}  // namespace basekit
