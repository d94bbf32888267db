#pragma once

#include "framework/DeviceOf.h"

namespace basekit {

// Lights a terrain from a sun direction, a diffuse level and a sky level,
// with shadows traced toward the sun in the raytraced model; grey, or tinted
// by a sun colour and a sky colour.
class LightMapMaker : public DeviceOf<LightMapMaker, Converter> {
  public:
    static constexpr DeviceInfo kInfo{"PRLM", "Light-Map Maker",
                                      "Illuminate a lightmap for the input terrain", 1};
    LightMapMaker();
    bool OptionQuery3(uint32_t globals) override;
    bool Build(const BuildContext& context) override;
};

}  // namespace basekit
