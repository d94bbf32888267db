// What the module asks of its host: the services object handed over by
// SetupGlobalAccess, the per-device owner, and what a build is given.
//
// Operation positions in each table are part of the interface. Positions the
// module does not use are kept as reserved slots so that the used ones stay
// where hosts expect them. Operations that a host must also provide but whose
// place the base interface leaves open (packet creation, the swap directory,
// global settings, logging, link notifications) sit in the network service's
// and the owner's free slots, documented below; this header is the one place
// that lists them. The Output family's own device operations (slots 54 to 57
// after the base table, framework/Device.h) ask the host for WriteView.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Orogen {

class Device;
class Port;
class PacketRef;
class BuildResultSet;

// Packet kinds, also used as bit masks in port kinds and `dataTypes`.
enum PacketKind : uint32_t {
    kParameterPacket = 1,
    kHeightField = 4,
    kBitmap = 8,
    kCoordinateData = 32,
};

// A packet's size record: resolution, then where the grid lies in the world.
// Sample (0, 0) sits at (x0, y0) and sample (width-1, height-1) at (x1, y1).
struct Grid {
    int32_t width = 0;
    int32_t height = 0;
    double x0 = 0.0, y0 = 0.0, x1 = 1.0, y1 = 1.0;
    // World height that a sample value of 1 stands for.
    double verticalScale = 1.0;
};

// Global settings a device may depend on (see the global-dependency bits).
struct GlobalSettings {
    float waterLevel = 0.0f;
    float lightDirection[3] = {0.0f, 0.0f, 1.0f};
};

// Slots 1-5 are the host operations the base interface leaves open.
class NetworkService {
public:
    // 1: a new, empty packet of `kind` (1, 4 or 8) held by `out`.
    virtual PacketRef& CreatePacket(PacketRef& out, uint32_t kind) = 0;
    // 2: folder of the host's swap files, prefixed as is to a swap file name.
    virtual const char* GetSwapDirectory() = 0;
    // 3: water level and light direction of the current project.
    virtual void GetGlobalSettings(GlobalSettings& out) = 0;
    // 4: a line for the host's log.
    virtual void LogMessage(const char* text) = 0;
    // 5: the host's answer where an output device's view goes. The host
    // writes `view` (the device's view, a bitmap) wherever it keeps that
    // device's results, under a file name of its choosing, and answers true;
    // false when it writes no views. Called on the host's thread by Output
    // devices after a build (Output::WriteOutput) and by their "Write Output
    // to Disk" action (Output::ExportAction).
    virtual bool WriteView(Device* device, const PacketRef& view) = 0;
    virtual void Reserved6() {}
    virtual void Reserved7() {}
    virtual void Reserved8() {}
    virtual void Reserved9() {}
    virtual void Reserved10() {}
    virtual void Reserved11() {}
    virtual void Reserved12() {}
    virtual void Reserved13() {}
    virtual void Reserved14() {}
    virtual void Reserved15() {}
    virtual void Reserved16() {}
    virtual void Reserved17() {}
    virtual void Reserved18() {}
    // 19: first thing in a device's destruction.
    virtual void DeviceDestroyed(Device* device) = 0;
    virtual void Reserved20() {}
    virtual void Reserved21() {}
    // 22: a settings edit was rolled back.
    virtual void DeviceChanged(Device* device) = 0;

protected:
    ~NetworkService() = default;
};

class HostAllocator {
public:
    // 1: never returns null; throws on failure. The module passes 0 for flags.
    virtual void* Allocate(size_t size, uint32_t flags) = 0;
    // 2
    virtual void Free(void* pointer) = 0;

protected:
    ~HostAllocator() = default;
};

class SeedService {
public:
    virtual void Reserved1() {}
    // 2
    virtual int32_t NextSeed() = 0;

protected:
    ~SeedService() = default;
};

class DialogService {
public:
    // 1: modal; 1 accepted, -1 cancelled, anything else closed.
    virtual int32_t EditDevice(Device* device) = 0;
    virtual void Reserved2() {}
    // 3
    virtual void ShowDeviceView(Device* device, intptr_t a, intptr_t b) = 0;

protected:
    ~DialogService() = default;
};

class WorkerPool {
public:
    virtual void Reserved1() {}
    virtual void Reserved2() {}
    // 3: queue `entry(argument)` on a worker thread; false when it cannot.
    virtual bool Submit(void (*entry)(void*), void* argument) = 0;

protected:
    ~WorkerPool() = default;
};

struct HostServices {
    NetworkService* network;
    HostAllocator* allocator;
    SeedService* seeds;
    DialogService* dialogs;
    WorkerPool* workers;
};

// The host's node object behind `Device::owner`. Slots 1 and 2 carry the link
// notifications of ports.
class DeviceOwner {
public:
    // 1: a port of `device` at (where, index) was linked (state 1) or unlinked (0).
    virtual void ConnectionChanged(Device* device, uint32_t where, uint32_t index,
                                   uint32_t state) = 0;
    // 2: the host's verdict on a link between two ports; also called after an unlink.
    virtual bool QueryLink(Port* from, Port* to) = 0;
    virtual void Reserved3() {}
    virtual void Reserved4() {}
    virtual void Reserved5() {}
    virtual void Reserved6() {}
    // 7
    virtual void DeviceEdited(Device* device) = 0;
    virtual void Reserved8() {}
    virtual void Reserved9() {}
    virtual void Reserved10() {}
    virtual void Reserved11() {}
    // 12: the result set of the build in progress, or null outside builds.
    virtual BuildResultSet* GetResultSet(Device* device) = 0;
    // 13
    virtual void PortsChanged(Device* device) = 0;
    virtual void Reserved14() {}
    // 15: bytes of one packet of a port data type.
    virtual uint32_t DataTypeSize(uint32_t type) = 0;

protected:
    ~DeviceOwner() = default;
};

// A build's progress calls. The first operation is the thread helpers' report.
class BuildProgress {
public:
    // Items of a threaded run: false cancels.
    virtual bool ReportItems(void* context, uint32_t done, uint32_t total) = 0;
    // Percentage before, during and after a build.
    virtual void ReportPercent(Device* device, int32_t percent) = 0;
    // Row-wise devices after each row: false cancels where the device honours it.
    virtual bool ReportRow(Device* device, int32_t row, int32_t total) = 0;

    // Whether the thread helpers may borrow workers for this build.
    bool threadsAllowed = true;

protected:
    ~BuildProgress() = default;
};

// The services object, set once by SetupGlobalAccess. Null before.
HostServices* Services();
void SetServices(HostServices* services);

}  // namespace Orogen
