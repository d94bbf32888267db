// The base of every device, and the category classes. The order of the
// virtual operations and of the fields is shared with hosts: keep it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <new>
#include <span>
#include <string_view>
#include <vector>

#include "framework/Exceptions.h"
#include "framework/HostServices.h"
#include "framework/Packet.h"
#include "framework/Parameter.h"
#include "framework/Port.h"

namespace Orogen {

using DeviceFactory = Device* (*)();
using DeviceDeleter = void (*)(Device*);

// The first 24 bytes of every device and of the host's descriptor.
struct DeviceIdentity {
    char tag[4];
    char terminator;
    DeviceFactory create;
    DeviceDeleter destroy;
};
static_assert(sizeof(DeviceIdentity) == 24);

// The one deleter every catalogue entry carries.
void DestroyDevice(Device* device);

// An operation a user runs on a device by name, such as "Swap inputs"; true
// when it did what it says.
struct DeviceAction {
    const char* label;
    bool (*run)(Device& device);
};

template <class T>
Device* CreateDevice() {
    return new (std::nothrow) T();
}

class Device {
public:
    Device();
    virtual ~Device();                                             // 1
    virtual void* GetExtension() { return nullptr; }               // 2
    virtual bool Load(std::istream& in) = 0;                       // 3
    virtual bool Save(std::ostream& out) = 0;                      // 4
    virtual uint32_t GetColor() { return 0x7F7F7F; }               // 5
    virtual int32_t GetNodeWidth();                                // 6
    virtual int32_t GetNodeHeight();                               // 7
    virtual const char* GetDescription() = 0;                      // 8
    virtual void SetName(const char* text);                        // 9
    virtual const char* GetName();                                 // 10
    virtual const char* GetTypeName() = 0;                         // 11
    virtual const char* GetInputName(uint32_t index);              // 12
    virtual const char* GetOutputName(uint32_t index);             // 13
    virtual int32_t GetCategory() = 0;                             // 14
    virtual int32_t RefreshRandomSeed();                           // 15
    virtual void* GetExtension2() { return nullptr; }              // 16
    virtual PacketRef& GetInputPacket(PacketRef& out, uint32_t index);  // 17
    virtual Device* Self() { return this; }                        // 18
    virtual PacketRef& GetInputPacketAs(PacketRef& out, uint32_t index,
                                        uint32_t kind);            // 19
    virtual bool EditSettings();                                   // 20
    virtual void ShowHostView(intptr_t a, intptr_t b);             // 21
    virtual int32_t Process(const BuildContext& context);          // 22
    virtual int32_t Execute(const BuildContext& context);          // 23
    virtual bool Build(const BuildContext& context) = 0;           // 24
    virtual bool OptionQuery1() { return false; }                  // 25
    virtual void* GetExtension3() { return nullptr; }              // 26
    virtual void* GetExtension4() { return nullptr; }              // 27
    virtual bool OptionQuery2() { return false; }                  // 28
    virtual void SettingsChanged();                                // 29
    virtual void NotifyHook1() {}                                  // 30
    virtual void NotifyHook2() {}
    virtual void NotifyHook3() {}
    virtual void NotifyHook4() {}
    virtual void NotifyHook5() {}
    virtual void NotifyHook6() {}
    virtual void NotifyHook7() {}
    virtual void NotifyHook8() {}                                  // 37
    // The global-dependency query: whether the device depends on the host's
    // global settings of `globals` (kGlobalLightDirection, kGlobalWaterLevel).
    virtual bool OptionQuery3(uint32_t /*globals*/) { return false; }  // 38
    virtual bool OptionQuery4() { return false; }                  // 39
    virtual bool OptionQuery5() { return true; }                   // 40
    virtual bool OptionQuery6() { return false; }                  // 41
    virtual bool OptionQuery7() { return true; }                   // 42
    virtual bool OptionQuery8() { return true; }                   // 43
    virtual bool OptionQuery9() { return false; }                  // 44
    virtual bool OptionQuery10() { return false; }                 // 45
    virtual bool OptionQuery11() { return false; }                 // 46
    virtual bool OptionQuery12() { return false; }                 // 47
    virtual int32_t GetDisplayMode() { return 3; }                 // 48
    virtual uint32_t EstimateMemory();                             // 49
    virtual void CopyFrom(Device* other);                          // 50
    virtual bool PrepareOutputs(std::vector<PacketRef>& list,
                                const BuildContext& context);      // 51
    virtual void AddPort(uint32_t direction, uint32_t unused, uint32_t kind,
                         uint32_t position);                       // 52
    virtual void RemovePort(uint32_t direction, uint32_t index);   // 53

    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    // Helpers for device classes (not part of the host interface).

    // Sets the tag and the catalogue's create and destroy pointers.
    void SetIdentity(const char* tag, DeviceFactory create);
    // Base state: the "SPRK" block with the parameter block inside.
    bool SaveBaseState(std::ostream& out);
    bool LoadBaseState(std::istream& in);
    // Tag and version byte; Load fails without reading more on a wrong tag.
    void SaveHeader(std::ostream& out, uint8_t version);
    bool LoadHeader(std::istream& in, uint8_t& version);
    // The whole state of a device with no fields of its own: header, then base.
    bool SaveState(std::ostream& out, uint8_t version) {
        SaveHeader(out, version);
        return SaveBaseState(out);
    }
    bool LoadState(std::istream& in, uint8_t& version) {
        return LoadHeader(in, version) && LoadBaseState(in);
    }
    // The private copy of input `index` for this build.
    PacketRef InputPacket(const BuildContext& context, uint32_t index);
    // The action of this class labelled `label`, or null.
    const DeviceAction* FindAction(std::string_view label) const;
    // A packet PrepareOutputs left for slot `index`, or null.
    PacketRef TakePrepared(const BuildContext& context, uint32_t index);
    // What a filter works on in place: the packet left for output 0, else the
    // private copy of input 0. With `kinds` kHeightField alone a bitmap is read
    // as a height field; null when the input is missing or of another kind.
    PacketRef WorkingInput(const BuildContext& context, uint32_t kinds);
    // Private copies of inputs 0 and 1 as height fields of one shape (a
    // bitmap reads as grey); false when either is missing. Throws
    // QXException when their shapes differ.
    bool HeightFieldPair(const BuildContext& context, PacketRef& a, PacketRef& b);
    // Names `packet` after the instance and stores it on output `index`.
    void StoreOutput(const BuildContext& context, const PacketRef& packet, uint32_t index);

    DeviceIdentity identity;
    DeviceOwner* owner = nullptr;
    unsigned char placement[8] = {};
    uint8_t enabled = 1;
    uint8_t bypassed = 0;
    uint32_t outputMode = 0;
    ParameterList params;
    std::vector<Port*> inputs;
    std::vector<OutputPort*> outputs;
    std::vector<Port*> paramPorts;
    Port* maskInput = nullptr;
    Port* coordInput = nullptr;
    char name[24] = {};
    float anchor[2] = {0.5f, 0.5f};
    uint32_t mode = 0;
    int32_t seed = 0;
    // Not part of the host's field list, so kept behind it: the parameters'
    // enabling rules, the same for every device of a class.
    std::vector<EnablingRule> enablingRules;
    // Framework-only as well. Called once an input link of the device was
    // made or broken and the ports are settled (the owner is told as before),
    // so that a device can follow what feeds it; null for most devices.
    void (*inputLinksChanged)(Device& device) = nullptr;
    // The actions of the class: one static table shared by all its devices.
    std::span<const DeviceAction> actions;
};

// Runs the device's input-link handler, if it has one: what a change of its
// input links does, for operations that rearrange links themselves.
void InputLinksChanged(Device& device);

// Bits of the global-dependency query.
constexpr uint32_t kGlobalLightDirection = 2;
constexpr uint32_t kGlobalWaterLevel = 4;

// The host's global settings of the project being built.
GlobalSettings HostGlobals();

// Process results besides Execute's 1 (built), 0 (failed) and -1 (unusable).
constexpr int32_t kProcessDisabled = -2;
constexpr int32_t kProcessException = 2;

class Generator : public Device {
public:
    uint32_t GetColor() override { return 0x68B12C; }
    int32_t GetCategory() override { return 1; }
    bool OptionQuery8() override { return mode != 1; }
    bool OptionQuery9() override { return true; }
    bool OptionQuery10() override { return true; }
    bool OptionQuery11() override { return true; }
    // One fresh packet per output, sized like the build.
    bool PrepareOutputs(std::vector<PacketRef>& list, const BuildContext& context) override;

protected:
    // The packet PrepareOutputs made for output `index`, or a new height field
    // of the build's size.
    PacketRef FreshField(const BuildContext& context, uint32_t index = 0);

    // Projects from before the anchor was saved kept generators centred in
    // the world: the fix-up a version-1 state gets.
    void KeepCentred() {
        mode = 1;
        anchor[0] = 0.5f;
        anchor[1] = 0.5f;
    }
};

// Devices that show a network's result: each composes a view (a bitmap) of
// what reaches it and can hand that view to the host to be written
// (NetworkService::WriteView). Their own operations follow the base table.
class Output : public Device {
public:
    uint32_t GetColor() override { return 0x3030CC; }
    int32_t GetCategory() override { return 2; }
    // 54: after a build, hands the view stored on output 0 to the host to be
    // written; true when the host wrote it. Not writing fails no build.
    virtual bool WriteOutput(const BuildContext& context);
    // 55: the export action: composes the view of the last build's inputs
    // again and hands it to the host; false before a first build or when the
    // host writes no views.
    virtual bool ExportAction();
    // 56: the label of the export action, "Write Output to Disk".
    virtual const char* GetExportLabel();
    // 57: a new view packet, named "%s OutputView" after the instance, of
    // what the last build received; null when there is nothing to show (the
    // base shows nothing).
    virtual PacketRef ComposeView(const BuildContext& context);
};

class CombineFilter : public Device {
public:
    uint32_t GetColor() override { return 0xB0723D; }
    int32_t GetCategory() override { return 3; }
    int32_t GetDisplayMode() override { return 4; }
};

// Filters hand their first input on as output 0's packet.
class Filter : public Device {
public:
    uint32_t GetColor() override { return 0xD5935E; }
    int32_t GetCategory() override { return 4; }
    int32_t GetDisplayMode() override { return 4; }
    bool OptionQuery9() override { return true; }
    bool PrepareOutputs(std::vector<PacketRef>& list, const BuildContext& context) override;
};

class NaturalFilter : public Device {
public:
    uint32_t GetColor() override { return 0x456F9C; }
    int32_t GetCategory() override { return 5; }
    int32_t GetDisplayMode() override { return 0; }
    bool OptionQuery9() override { return true; }
    bool PrepareOutputs(std::vector<PacketRef>& list, const BuildContext& context) override;
};

class Selector : public Device {
public:
    uint32_t GetColor() override { return 0x965096; }
    int32_t GetCategory() override { return 6; }
    int32_t GetDisplayMode() override { return 5; }
    bool OptionQuery9() override { return true; }
    bool PrepareOutputs(std::vector<PacketRef>& list, const BuildContext& context) override;

protected:
    // A height field for output `index` with the size and placement of
    // `like`: the packet PrepareOutputs made when it matches, else a new one.
    PacketRef FreshOutput(const BuildContext& context, uint32_t index, const QXPacket& like);
};

class Utility : public Device {
public:
    uint32_t GetColor() override { return 0x6699FF; }
    int32_t GetCategory() override { return 7; }
    int32_t GetDisplayMode() override { return 5; }
};

class Converter : public Device {
public:
    uint32_t GetColor() override { return 0x4F6F4F; }
    int32_t GetCategory() override { return 9; }
};

class ParamDevice : public Device {
public:
    uint32_t GetColor() override { return 0xF4DDDD; }
    int32_t GetCategory() override { return 17; }
    int32_t GetDisplayMode() override { return 5; }
    bool OptionQuery5() override { return false; }
};

}  // namespace Orogen

// Device code sees the host interface's names.
namespace basekit {
using namespace Orogen;
}

namespace Orogen {

// What GetDevPlugin fills for the host: 168 bytes.
struct DeviceDescriptor {
    DeviceIdentity identity;
    char typeName[64];
    int32_t category;
    int32_t dataTypes;
    uint8_t flag;
    unsigned char reserved[71];
};
static_assert(sizeof(DeviceDescriptor) == 168);
static_assert(offsetof(DeviceDescriptor, category) == 88);
static_assert(offsetof(DeviceDescriptor, flag) == 96);

// The interface version the module is built against.
constexpr int32_t kHeaderVersion = 16;

// The three exports, as a host resolves them.
using GetHeaderVersionFunction = int32_t (*)();
using SetupGlobalAccessFunction = void (*)(HostServices*);
using GetDevPluginFunction = bool (*)(int32_t, DeviceDescriptor*);

}  // namespace Orogen
