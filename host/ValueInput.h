// "Value": a device of the host's own that sends one parameter packet, a
// number with its type code (0 and 4 integers, 1 real, 2 true/false), to what
// it is linked to: a device's parameter or an input that takes parameters
// (Integer Equals).
#pragma once

#include <cstdint>

#include "framework/Device.h"

namespace basekit::host {

class ValueInput : public Orogen::ParamDevice {
  public:
    static constexpr int32_t kCategory = 17;
    static constexpr int32_t kDataTypes = Orogen::kParameterPacket;
    // The largest type code a file may give.
    static constexpr uint32_t kMaxTypeCode = 65535;

    ValueInput();
    const char* GetTypeName() override { return "Value"; }
    const char* GetDescription() override {
        return "Sends a number and its type code along a parameter link";
    }
    bool Build(const Orogen::BuildContext& context) override;
    bool Save(std::ostream& out) override;
    bool Load(std::istream& in) override;

    void Set(float number, uint32_t code) {
        value = number;
        typeCode = code;
    }
    float Value() const { return value; }
    uint32_t TypeCode() const { return typeCode; }

  private:
    float value = 0.0f;
    uint32_t typeCode = 0;
};

// The device as a Value, or null. Told by its create pointer.
ValueInput* AsValueInput(Orogen::Device* device);

}  // namespace basekit::host
