#pragma once

#include "framework/Device.h"

namespace basekit {

// A flat plain at a given height.
class ConstantHeight : public Generator {
public:
    ConstantHeight();
    const char* GetTypeName() override { return "Constant"; }
    const char* GetDescription() override { return "Creates a simple plain at a given height"; }
    bool OptionQuery10() override { return false; }
    bool Build(const BuildContext& context) override;
    bool Save(std::ostream& out) override;
    bool Load(std::istream& in) override;
};

// Fills `count` samples with `height`.
void FillConstant(float* samples, uint64_t count, float height);

}  // namespace basekit
