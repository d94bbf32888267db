#pragma once

#include "framework/DeviceOf.h"

namespace basekit {

// A flat plain at a given height.
class ConstantHeight : public DeviceOf<ConstantHeight, Generator> {
public:
    static constexpr DeviceInfo kInfo{"CHGT", "Constant", "Creates a simple plain at a given height",
                                      1};
    ConstantHeight();
    bool OptionQuery10() override { return false; }
    bool Build(const BuildContext& context) override;
};

// Fills `count` samples with `height`.
void FillConstant(float* samples, uint64_t count, float height);

}  // namespace basekit
