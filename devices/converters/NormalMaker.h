#pragma once

#include "framework/DeviceOf.h"

namespace basekit {

// Encodes a height field's surface normals as colours.
class NormalMaker : public DeviceOf<NormalMaker, Converter> {
  public:
    static constexpr DeviceInfo kInfo{"PRNO", "Normal-Map Maker",
                                      "Creates a bitmap containing normals from a heightfield", 1};
    NormalMaker();
    bool OptionQuery7() override { return false; }
    bool Build(const BuildContext& context) override;
};

}  // namespace basekit
