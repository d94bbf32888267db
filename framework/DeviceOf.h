// What every device class states once: its save tag, type name, description
// and state version, between its category class and itself. A device file
// includes this one header and gets the framework a build needs.
#pragma once

#include <cstdint>
#include <sstream>

#include "framework/Device.h"
#include "framework/Fields.h"
#include "framework/Rows.h"

namespace Orogen {

struct DeviceInfo {
    const char* tag;  // four characters
    const char* typeName;
    const char* description;
    uint8_t version;  // of the saved state
};

// Identity, names and saved state from Self::kInfo (a static constexpr
// DeviceInfo). The state is the tag, the version byte, the device's own
// fields and the base state; a device with fields or fix-ups of its own hides
// SaveFields, LoadFields or AfterLoad (resolved at compile time: no virtual
// operation is added).
template <class Self, class Category>
class DeviceOf : public Category {
  public:
    DeviceOf() { this->SetIdentity(Self::kInfo.tag, &CreateDevice<Self>); }

    const char* GetTypeName() override { return Self::kInfo.typeName; }
    const char* GetDescription() override { return Self::kInfo.description; }

    bool Save(std::ostream& out) override {
        this->SaveHeader(out, Self::kInfo.version);
        return static_cast<Self*>(this)->SaveFields(out) && this->SaveBaseState(out);
    }
    // A state cut short or refused leaves the device as it was: what it held
    // is saved first and read back on failure, its seed included.
    bool Load(std::istream& in) override {
        std::stringstream before;
        const int32_t seed = this->seed;
        Save(before);
        if (LoadSteps(in)) return true;
        LoadSteps(before);
        this->seed = seed;
        return false;
    }

  private:
    bool LoadSteps(std::istream& in) {
        Self* self = static_cast<Self*>(this);
        uint8_t version;
        return this->LoadHeader(in, version) && self->LoadFields(in, version) &&
               this->LoadBaseState(in) && self->AfterLoad(version);
    }

  public:
    // Fields written between the version byte and the base state.
    bool SaveFields(std::ostream& /*out*/) { return true; }
    bool LoadFields(std::istream& /*in*/, uint8_t /*version*/) { return true; }
    // Fix-ups once the whole state of `version` is read; false fails the load.
    bool AfterLoad(uint8_t /*version*/) { return true; }
};

}  // namespace Orogen

namespace basekit {
using namespace Orogen;
}
