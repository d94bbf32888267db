// Ports, links between them, and the per-build table of device results
// through which inputs are retrieved and outputs stored.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "framework/HostServices.h"
#include "framework/Packet.h"
#include "framework/Platform.h"

namespace Orogen {

class Device;

// Where a port sits on its device.
enum PortWhere : uint32_t {
    kWhereInput = 0,
    kWhereOutput = 1,
    kWhereParameter = 2,
    kWhereMask = 3,
    kWhereCoordinates = 4,
};

// `role` values.
constexpr uint32_t kRoleOrdinary = 0;
constexpr uint32_t kRoleOptional = 1;
constexpr uint32_t kRoleSpecial = 2;

class Port {
public:
    explicit Port(Device* owner, uint32_t kind = 0);
    // Unlinks silently: the device is going and its host knows.
    virtual ~Port();
    virtual Port* GetPeer();
    virtual Device* GetPeerDevice();
    // Links to `other` (null: unlinks); false when nothing was linked.
    virtual bool Connect(Port* other);
    // Breaks the link (an output port: the link to `which`, or all when null).
    virtual bool Disconnect(Port* which);
    virtual bool QueryLink();
    virtual void SetPeer(Port* newPeer, Port* oldPeer);

    Port(const Port&) = delete;
    Port& operator=(const Port&) = delete;

    // Copies at most 23 characters.
    void SetName(const char* text);

    char name[24] = {};
    uint32_t kind = 0;
    Port* peer = nullptr;
    Device* owner;
    uint32_t role = kRoleOrdinary;
};

class OutputPort : public Port {
public:
    explicit OutputPort(Device* owner, uint32_t kind = 0) : Port(owner, kind) {}
    ~OutputPort() override;
    Port* GetPeer() override;
    Device* GetPeerDevice() override;
    bool Connect(Port* input) override;
    bool Disconnect(Port* which) override;
    bool QueryLink() override;
    void SetPeer(Port* newPeer, Port* oldPeer) override;

    std::vector<Port*> links;
};

struct DeviceResult {
    uint32_t status = 0;  // 2: not to be used
    std::vector<PacketRef> outputs;
    std::vector<PacketRef> pushedInputs;
    std::vector<PacketRef> parameters;
    PacketRef mask;
    PacketRef coordinates;
};

// Status of a DeviceResult whose packets must not be used.
constexpr uint32_t kResultUnusable = 2;

// One per build: each device's result, keyed by the device's address (unique
// while the device lives), with a one-entry cache of the last look-up.
class BuildResultSet {
public:
    BuildResultSet() = default;
    BuildResultSet(const BuildResultSet&) = delete;
    BuildResultSet& operator=(const BuildResultSet&) = delete;

    std::map<const Device*, DeviceResult> results;
    CriticalSection lock;
    const Device* cachedDevice = nullptr;
    DeviceResult* cachedResult = nullptr;
};

// What a build is given.
struct BuildContext {
    Grid grid;           // resolution and world extent of the build
    double sx = 0.0;     // per-sample steps
    double sy = 0.0;
    int32_t coordinateMode = 0;  // 2: steps are world units, not fractions of the extent
    BuildResultSet* results = nullptr;
    BuildProgress* progress = nullptr;
    // Packets that PrepareOutputs made or handed on, one per output; a build
    // takes them with Device::TakePrepared.
    std::vector<PacketRef>* prepared = nullptr;
};

// A context for a grid in coordinate mode 0: steps 1/(W-1) and 1/(H-1), 0 for
// a side of one sample.
BuildContext MakeBuildContext(const Grid& grid, BuildResultSet* results,
                              BuildProgress* progress);

// The device's result in the set, created on first use.
DeviceResult& doGetDevice(BuildResultSet* results, const Device* device);

// A private copy of the packet on input `index`, or null when nothing usable
// is connected. A pushed packet is used once.
PacketRef GetInputPacket(Device* device, uint32_t index, const BuildContext& context);
PacketRef GetInputPacket(Device* device, uint32_t index, BuildResultSet* results);

// Names the packet after the device and slot and stores it on output `index`.
void SetOutput(Device* device, const PacketRef& packet, uint32_t index,
               const BuildContext& context);

// Hands packets to the devices at the far end of `ports` before they build.
// `visitor(port)` yields the packet for each. Returns how many were handed.
uint32_t PushInputs(BuildResultSet* results, const std::vector<Port*>& ports,
                    PacketRef (*visitor)(Port* port, void* data), void* data);

// Replaces all inputs and outputs with new ports named "Primary Input" and
// "Primary Output" carrying `kind`, and tells the owner.
void SetPortCount(Device* device, uint32_t inputs, uint32_t outputs, uint32_t kind);

// Keeps the first `inputs` input and `outputs` output ports with their links,
// unlinks and deletes the others, appends new "Primary Input" and "Primary
// Output" ports carrying `kind`, and tells the owner when anything changed.
void ResizePorts(Device* device, uint32_t inputs, uint32_t outputs, uint32_t kind);

// (index, where) of `port` on `device`; false when it is not the device's.
bool FindPort(const Device* device, const Port* port, uint32_t& index, uint32_t& where);

}  // namespace Orogen
