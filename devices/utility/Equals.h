#pragma once

#include <cstdint>

#include "framework/DeviceOf.h"

namespace basekit {

// "Integer Equals": a true/false parameter packet telling whether the integer
// on its input equals "Comparison Value"; the last answer is also shown in
// "Current Evaluation".
class Equals : public DeviceOf<Equals, ParamDevice> {
  public:
    static constexpr DeviceInfo kInfo{"I_EQ", "Integer Equals",
                                      "Returns true if the input matches an integer value", 1};
    Equals();
    const char* GetInputName(uint32_t /*index*/) override { return "Parameter Input"; }
    const char* GetOutputName(uint32_t /*index*/) override { return "Parameter Output"; }
    bool OptionQuery7() override { return false; }
    bool Build(const BuildContext& context) override;
};

// Whether a parameter packet's value equals `comparison` as unsigned 32-bit
// numbers; false for a value that is no such number (negative, fractional,
// too large, NaN).
bool IntegerEquals(float value, uint32_t comparison);

}  // namespace basekit
