// What the channel combiner and splitter share: the "Channel Type" choice and
// three channel ports named after it.
#pragma once

#include <iosfwd>
#include <vector>

#include "framework/DeviceOf.h"

namespace basekit {

// Choices of "Channel Type".
enum ChannelType : int32_t { kChannelsRgb = 0, kChannelsHsb = 1 };

// Names ports[0..2] "Red", "Green", "Blue", or "Hue", "Saturation",
// "Brightness" for kChannelsHsb.
void NameChannelPorts(const std::vector<Port*>& ports, int32_t type);

// Declares "Channel Type" and renames the channel ports (inputs or outputs,
// chosen by the device) after a load and after an accepted settings dialog,
// never while the choice is only being edited.
template <class Self>
class ChannelDevice : public DeviceOf<Self, Converter> {
  public:
    bool OptionQuery7() override { return false; }
    bool EditSettings() override {
        if (!Converter::EditSettings()) return false;
        Relabel();
        return true;
    }
    bool AfterLoad(uint8_t /*version*/) {
        Relabel();
        return true;
    }

  protected:
    ChannelDevice() {
        static const ParamSpec kParameters[] = {
            {"Channel Type",
             kParamChoice,
             0,
             0,
             1,
             0,
             nullptr,
             {"Red / Green / Blue", "Hue / Saturation / Brightness"}},
        };
        DeclareParameters(this, kParameters);
    }
    bool Hsb() { return ParamInt(this, "Channel Type") == kChannelsHsb; }

  private:
    void Relabel() {
        NameChannelPorts(static_cast<Self*>(this)->ChannelPorts(), ParamInt(this, "Channel Type"));
    }
};

}  // namespace basekit
