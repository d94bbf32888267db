// A network of devices: creation, links, dependency order and builds.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "framework/Device.h"
#include "host/Host.h"
#include "host/ImageIO.h"

namespace basekit::host {

// Misuse of a network: unknown device or port, duplicate id, a cycle.
class NetworkError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// What a build covers: resolution, world extent and vertical scale.
struct World {
    double x0 = 0.0, y0 = 0.0, x1 = 1.0, y1 = 1.0;
    int32_t width = 1025;
    int32_t height = 1025;
    double verticalScale = 1.0;

    Orogen::Grid ToGrid() const;
};

enum class BuildStatus {
    NotBuilt,
    Built,
    Failed,  // the build answered false
    Disabled,
    Exception,    // the build threw
    InputFailed,  // skipped: a linked input's device did not build
    Unusable,     // its results were marked not to be used
    Cancelled,
};

// "built", "failed", "disabled", "exception", "input failed", "unusable",
// "cancelled" or "not built".
const char* StatusName(BuildStatus status);

struct DeviceReport {
    std::string id;
    BuildStatus status = BuildStatus::NotBuilt;
    int32_t processResult = 0;  // what Process answered; 0 when it was not called
    std::string message;        // why it did not build, or a note on how it did, for people
    double seconds = 0.0;
    // The most bytes of packet samples resident while it built: its own and
    // every output still stored.
    uint64_t peakBytes = 0;
};

struct BuildReport {
    std::vector<DeviceReport> devices;  // in build order
    bool cancelled = false;
    double seconds = 0.0;
    // What went less well than asked without failing a device (fewer threads).
    std::vector<std::string> warnings;

    const DeviceReport* Find(std::string_view id) const;
    size_t Count(BuildStatus status) const;
};

struct BuildOptions {
    // Worker threads lent to the devices; 0 runs everything on the caller.
    uint32_t workers = 0;
    // Bytes of stored outputs kept in memory; beyond it, outputs needed
    // latest are paged out. 0: no limit.
    uint64_t memoryBudget = 0;
    // Streams the results: an output is dropped from the result set once the
    // last device reading it has built (right after its own device, when
    // none reads it), and an output read by one device only, and held by no
    // one else, is handed to it instead of copied. Take what you keep in
    // onDeviceDone, through Output(); after the build Output() answers only
    // for what was not dropped.
    bool releaseOutputs = false;
    std::function<void(const std::string& id, size_t position, size_t count)> onDeviceStart;
    std::function<void(const DeviceReport& report)> onDeviceDone;
    // Item and row progress, from any thread; false cancels the build.
    std::function<bool(const std::string& id, uint32_t done, uint32_t total)> onProgress;
    std::function<void(const std::string& id, int32_t percent)> onPercent;
};

enum class LinkTarget { Input, Parameter };

struct Link {
    std::string from;
    uint32_t output = 0;
    std::string to;
    LinkTarget target = LinkTarget::Input;
    uint32_t input = 0;     // for an input
    std::string parameter;  // for a parameter
};

// A notification a device's owner received.
struct OwnerEvent {
    enum Kind { Connection, Edited, PortsChanged, QueryLink };
    Kind kind;
    uint32_t where = 0;  // Connection: where, index and state (1 linked, 0 unlinked)
    uint32_t index = 0;
    uint32_t state = 0;
    const Orogen::Port* from = nullptr;  // QueryLink
    const Orogen::Port* to = nullptr;
};

class Network {
  public:
    explicit Network(Host& host);
    // Drops the results, then destroys the devices through their types.
    ~Network();
    Network(const Network&) = delete;
    Network& operator=(const Network&) = delete;

    Host& GetHost() const { return host; }

    World world;
    Orogen::GlobalSettings globals;
    // The seed service's start for this project, when it has one.
    std::optional<uint32_t> seed;

    // Creates a device, makes this network its owner and, unless told not
    // to, gives it a fresh seed. Throws NetworkError for an empty or
    // duplicate id or an unknown type.
    Orogen::Device& AddDevice(const std::string& id, const DeviceType& type, bool freshSeed = true);
    Orogen::Device& AddDevice(const std::string& id, std::string_view typeNameOrTag);
    void RemoveDevice(std::string_view id);

    Orogen::Device* Find(std::string_view id) const;
    Orogen::Device& Get(std::string_view id) const;  // throws NetworkError
    // The id of a device of this network, or empty.
    std::string IdOf(const Orogen::Device* device) const;
    const DeviceType& TypeOf(std::string_view id) const;
    std::vector<std::string> Ids() const;  // in the order added
    size_t Size() const { return nodes.size(); }

    // Links through the ports; a link that would close a cycle is refused.
    void Connect(std::string_view from, uint32_t output, std::string_view to, uint32_t input);
    void ConnectParameter(std::string_view from, uint32_t output, std::string_view to,
                          std::string_view parameter);
    void Disconnect(std::string_view to, uint32_t input);
    void DisconnectParameter(std::string_view to, std::string_view parameter);
    // Every link, read from the ports, by receiving device and port.
    std::vector<Link> Links() const;

    // Ids in dependency order (ties in the order added). Throws NetworkError
    // naming the devices of a cycle.
    std::vector<std::string> BuildOrder() const;

    // Builds every device once, in dependency order, into a new result set.
    BuildReport Build(const BuildOptions& options = {});
    // Stops the build in progress after its current device; any thread.
    void Cancel() { cancelRequested = true; }

    // The packet stored on an output by the last build, or by the build in
    // progress while one runs (paged in), or null.
    Orogen::PacketRef Output(std::string_view id, uint32_t index) const;
    // The same as an image (1 or 3 channels). Throws NetworkError when the
    // output holds nothing or no height field or bitmap.
    Image OutputImage(std::string_view id, uint32_t index) const;
    const Orogen::BuildResultSet* Results() const { return results.get(); }

    // Ids of the devices that depend, with their settings now, on one of the
    // host's global settings of `globals` (Orogen::kGlobalLightDirection,
    // Orogen::kGlobalWaterLevel): what a change of those settings rebuilds.
    std::vector<std::string> GlobalUsers(uint32_t globals) const;

    // Opens the device's settings through the host's dialog service.
    bool EditSettings(std::string_view id);
    // Runs the device's action labelled `label` ("Swap inputs") and returns
    // its answer. Throws NetworkError for an unknown device or label.
    bool RunAction(std::string_view id, std::string_view label);

    const std::vector<OwnerEvent>& Events(std::string_view id) const;
    void ClearEvents();

  private:
    class Node;
    class Progress;
    friend class Node;
    friend class Progress;

    Node& NodeOf(std::string_view id) const;
    Node* NodeOf(const Orogen::Device* device) const;
    std::vector<Node*> Successors(const Node& node) const;
    std::vector<Node*> Predecessors(const Node& node) const;
    std::vector<std::string> PathBetween(const Node& start, const Node& goal) const;
    // The device and output index linked to `input`; null when nothing of
    // this network's outputs is.
    Node* Upstream(const Orogen::Port* input, uint32_t& output) const;
    void CheckNoCycle(const Node& from, const Node& to) const;
    void LinkPorts(Node& from, uint32_t output, Node& to, Orogen::Port* input);
    std::vector<Node*> Order() const;
    uint32_t DataTypeSize(uint32_t type) const;
    void PushParameterValues(Orogen::Device& device);
    void EnforceBudget(const std::vector<Node*>& order, size_t done, uint64_t budget);
    void HandOverLastReads(Node& node, size_t position,
                           const std::map<std::pair<const Node*, uint32_t>, size_t>& lastRead);

    // Ids looked up by a string_view without a copy.
    struct IdHash {
        using is_transparent = void;
        size_t operator()(std::string_view id) const { return std::hash<std::string_view>{}(id); }
    };

    Host& host;
    std::vector<std::unique_ptr<Node>> nodes;
    std::unordered_map<std::string, Node*, IdHash, std::equal_to<>> byId;
    std::unordered_map<const Orogen::Device*, Node*> byDevice;
    std::unique_ptr<Orogen::BuildResultSet> results;
    Orogen::BuildResultSet* building = nullptr;
    Node* current = nullptr;
    std::atomic<bool> cancelRequested{false};
};

}  // namespace basekit::host
