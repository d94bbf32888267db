#include "host/Network.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <limits>
#include <map>
#include <queue>
#include <set>

#include "framework/Exceptions.h"
#include "host/FileInput.h"
#include "host/HostPacket.h"

namespace basekit::host {

namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string Quoted(std::string_view text) {
    return "\"" + std::string(text) + "\"";
}

// A height field or bitmap read as one parameter value: its mean.
float ParameterValueOf(const Orogen::QXPacket& packet) {
    if (!packet.samples) return 0.0f;
    if (packet.GetKind() == Orogen::kParameterPacket) return packet.samples[0];
    uint64_t count = packet.PointCount() * FloatsPerPoint(packet.GetKind());
    if (count == 0) return 0.0f;
    double sum = 0.0;
    for (uint64_t i = 0; i < count; ++i) sum += packet.samples[i];
    return static_cast<float>(sum / static_cast<double>(count));
}

Orogen::PacketRef HandOver(Orogen::Port* /*port*/, void* data) {
    return *static_cast<Orogen::PacketRef*>(data);
}

}  // namespace

Orogen::Grid World::ToGrid() const {
    Orogen::Grid grid;
    grid.width = width;
    grid.height = height;
    grid.x0 = x0;
    grid.y0 = y0;
    grid.x1 = x1;
    grid.y1 = y1;
    grid.verticalScale = verticalScale;
    return grid;
}

const char* StatusName(BuildStatus status) {
    switch (status) {
        case BuildStatus::Built:
            return "built";
        case BuildStatus::Failed:
            return "failed";
        case BuildStatus::Disabled:
            return "disabled";
        case BuildStatus::Exception:
            return "exception";
        case BuildStatus::InputFailed:
            return "input failed";
        case BuildStatus::Unusable:
            return "unusable";
        case BuildStatus::Cancelled:
            return "cancelled";
        case BuildStatus::NotBuilt:
            break;
    }
    return "not built";
}

const DeviceReport* BuildReport::Find(std::string_view id) const {
    for (const DeviceReport& report : devices)
        if (report.id == id) return &report;
    return nullptr;
}

size_t BuildReport::Count(BuildStatus status) const {
    return static_cast<size_t>(std::count_if(
        devices.begin(), devices.end(), [&](const DeviceReport& r) { return r.status == status; }));
}

// The owner the host attaches to each device.
class Network::Node final : public Orogen::DeviceOwner {
  public:
    Node(Network& network, std::string id, const DeviceType& type, size_t serial)
        : network(network), id(std::move(id)), type(type), serial(serial) {}
    ~Node() { handle.Reset(); }

    void ConnectionChanged(Orogen::Device* /*device*/, uint32_t where, uint32_t index,
                           uint32_t state) override {
        OwnerEvent event{OwnerEvent::Connection};
        event.where = where;
        event.index = index;
        event.state = state;
        events.push_back(event);
    }
    bool QueryLink(Orogen::Port* from, Orogen::Port* to) override {
        OwnerEvent event{OwnerEvent::QueryLink};
        event.from = from;
        event.to = to;
        events.push_back(event);
        return true;
    }
    void DeviceEdited(Orogen::Device* /*device*/) override {
        events.push_back(OwnerEvent{OwnerEvent::Edited});
    }
    Orogen::BuildResultSet* GetResultSet(Orogen::Device* /*device*/) override {
        return network.building;
    }
    void PortsChanged(Orogen::Device* /*device*/) override {
        events.push_back(OwnerEvent{OwnerEvent::PortsChanged});
    }
    uint32_t DataTypeSize(uint32_t kind) override { return network.DataTypeSize(kind); }

    Orogen::Device* device() const { return handle.get(); }

    Network& network;
    std::string id;
    DeviceType type;
    size_t serial;
    DeviceHandle handle;
    std::vector<OwnerEvent> events;
    BuildStatus status = BuildStatus::NotBuilt;
};

// The build's progress calls, forwarded to the caller's callbacks.
class Network::Progress final : public Orogen::BuildProgress {
  public:
    Progress(Network& network, const BuildOptions& options) : network(network), options(options) {}

    bool ReportItems(void* context, uint32_t done, uint32_t total) override {
        return Forward(static_cast<Orogen::Device*>(context), done, total);
    }
    void ReportPercent(Orogen::Device* device, int32_t percent) override {
        if (options.onPercent) options.onPercent(IdFor(device), percent);
    }
    bool ReportRow(Orogen::Device* device, int32_t row, int32_t total) override {
        return Forward(device, static_cast<uint32_t>(std::max(row, 0)),
                       static_cast<uint32_t>(std::max(total, 0)));
    }

  private:
    bool Forward(Orogen::Device* device, uint32_t done, uint32_t total) {
        if (network.cancelRequested) return false;
        if (options.onProgress && !options.onProgress(IdFor(device), done, total)) {
            network.Cancel();
            return false;
        }
        return true;
    }
    // The context a device reports with is normally itself.
    std::string IdFor(const Orogen::Device* device) const {
        Node* node = network.NodeOf(device);
        if (!node) node = network.current;
        return node ? node->id : std::string();
    }

    Network& network;
    const BuildOptions& options;
};

Network::Network(Host& host) : host(host) {}

Network::~Network() {
    results.reset();
    while (!nodes.empty()) nodes.pop_back();
}

uint32_t Network::DataTypeSize(uint32_t kind) const {
    uint64_t points = static_cast<uint64_t>(std::max(world.width, 0)) *
                      static_cast<uint64_t>(std::max(world.height, 0));
    uint64_t bytes;
    if (kind == 0 || (kind & Orogen::kBitmap))
        bytes = points * 3 * sizeof(float);
    else if (kind & Orogen::kCoordinateData)
        bytes = points * 2 * sizeof(float);
    else if (kind & Orogen::kHeightField)
        bytes = points * sizeof(float);
    else
        bytes = 2 * sizeof(float);  // a parameter value and its type code
    return static_cast<uint32_t>(std::min<uint64_t>(bytes, std::numeric_limits<uint32_t>::max()));
}

// Devices

Orogen::Device& Network::AddDevice(const std::string& id, const DeviceType& type, bool freshSeed) {
    if (id.empty()) throw NetworkError("a device needs a non-empty id");
    if (Find(id)) throw NetworkError("duplicate device id " + Quoted(id));
    size_t serial = nodes.empty() ? 0 : nodes.back()->serial + 1;
    auto node = std::make_unique<Node>(*this, id, type, serial);
    node->handle = DeviceHandle(type);
    Orogen::Device* device = node->device();
    device->owner = node.get();
    if (freshSeed) device->RefreshRandomSeed();
    byDevice[device] = node.get();
    byId.emplace(id, node.get());
    nodes.push_back(std::move(node));
    return *device;
}

Orogen::Device& Network::AddDevice(const std::string& id, std::string_view typeNameOrTag) {
    const DeviceType* type = host.FindType(typeNameOrTag);
    if (!type) throw NetworkError("unknown device type " + Quoted(typeNameOrTag));
    return AddDevice(id, *type);
}

void Network::RemoveDevice(std::string_view id) {
    Node& node = NodeOf(id);
    Orogen::Device* device = node.device();
    for (Orogen::Port* port : device->inputs) port->Disconnect(nullptr);
    for (Orogen::Port* port : device->paramPorts) port->Disconnect(nullptr);
    if (device->maskInput) device->maskInput->Disconnect(nullptr);
    if (device->coordInput) device->coordInput->Disconnect(nullptr);
    for (Orogen::OutputPort* port : device->outputs) port->Disconnect(nullptr);
    if (results) {
        // The address may be reused by a later device: no stale entry may stay.
        results->results.erase(device);
        results->cachedDevice = nullptr;
        results->cachedResult = nullptr;
    }
    byDevice.erase(device);
    byId.erase(node.id);
    auto at = std::find_if(nodes.begin(), nodes.end(),
                           [&](const std::unique_ptr<Node>& n) { return n.get() == &node; });
    nodes.erase(at);
}

Orogen::Device* Network::Find(std::string_view id) const {
    auto found = byId.find(id);
    return found == byId.end() ? nullptr : found->second->device();
}

Orogen::Device& Network::Get(std::string_view id) const {
    return *NodeOf(id).device();
}

Network::Node& Network::NodeOf(std::string_view id) const {
    auto found = byId.find(id);
    if (found != byId.end()) return *found->second;
    throw NetworkError("no device " + Quoted(id));
}

Network::Node* Network::NodeOf(const Orogen::Device* device) const {
    auto found = byDevice.find(device);
    return found == byDevice.end() ? nullptr : found->second;
}

std::string Network::IdOf(const Orogen::Device* device) const {
    Node* node = NodeOf(device);
    return node ? node->id : std::string();
}

const DeviceType& Network::TypeOf(std::string_view id) const {
    return NodeOf(id).type;
}

std::vector<std::string> Network::Ids() const {
    std::vector<std::string> ids;
    for (const auto& node : nodes) ids.push_back(node->id);
    return ids;
}

// Links

std::vector<Network::Node*> Network::Successors(const Node& node) const {
    std::vector<Node*> next;
    for (Orogen::OutputPort* port : node.device()->outputs)
        for (Orogen::Port* input : port->links)
            if (Node* to = input ? NodeOf(input->owner) : nullptr) next.push_back(to);
    return next;
}

std::vector<Network::Node*> Network::Predecessors(const Node& node) const {
    std::vector<Node*> before;
    Orogen::Device* device = node.device();
    auto add = [&](Orogen::Port* port) {
        if (port && port->peer)
            if (Node* from = NodeOf(port->peer->owner)) before.push_back(from);
    };
    for (Orogen::Port* port : device->inputs) add(port);
    for (Orogen::Port* port : device->paramPorts) add(port);
    add(device->maskInput);
    add(device->coordInput);
    return before;
}

Network::Node* Network::Upstream(const Orogen::Port* input, uint32_t& output) const {
    Node* from = input && input->peer ? NodeOf(input->peer->owner) : nullptr;
    uint32_t where;
    if (!from || !Orogen::FindPort(from->device(), input->peer, output, where) ||
        where != Orogen::kWhereOutput)
        return nullptr;
    return from;
}

// Ids along a path of links from `start` to `goal`; empty when there is none.
std::vector<std::string> Network::PathBetween(const Node& start, const Node& goal) const {
    std::map<const Node*, const Node*> cameFrom{{&start, nullptr}};
    std::queue<const Node*> open;
    open.push(&start);
    while (!open.empty()) {
        const Node* at = open.front();
        open.pop();
        if (at == &goal) {
            std::vector<std::string> path;
            for (const Node* n = at; n; n = cameFrom[n]) path.push_back(n->id);
            std::reverse(path.begin(), path.end());
            return path;
        }
        for (Node* next : Successors(*at))
            if (cameFrom.emplace(next, at).second) open.push(next);
    }
    return {};
}

void Network::CheckNoCycle(const Node& from, const Node& to) const {
    std::vector<std::string> path = PathBetween(to, from);
    if (path.empty()) return;
    std::string text;
    for (const std::string& id : path) text += Quoted(id) + " -> ";
    text += Quoted(to.id);
    throw NetworkError("linking " + Quoted(from.id) + " to " + Quoted(to.id) +
                       " would make a cycle between devices: " + text);
}

void Network::LinkPorts(Node& from, uint32_t output, Node& to, Orogen::Port* input) {
    Orogen::Device* source = from.device();
    if (output >= source->outputs.size())
        throw NetworkError(Quoted(from.id) + " has no output " + std::to_string(output) +
                           " (it has " + std::to_string(source->outputs.size()) + ")");
    CheckNoCycle(from, to);
    source->outputs[output]->Connect(input);
}

void Network::Connect(std::string_view from, uint32_t output, std::string_view to, uint32_t input) {
    Node& source = NodeOf(from);
    Node& target = NodeOf(to);
    Orogen::Device* device = target.device();
    if (input >= device->inputs.size())
        throw NetworkError(Quoted(target.id) + " has no input " + std::to_string(input) +
                           " (it has " + std::to_string(device->inputs.size()) + ")");
    LinkPorts(source, output, target, device->inputs[input]);
}

namespace {

std::string ParameterNames(const Orogen::Device& device) {
    std::string names;
    for (const Orogen::ParamRecord& record : device.params.records)
        names += (names.empty() ? "" : ", ") + Quoted(record.name);
    return names.empty() ? "none" : names;
}

size_t ParameterIndex(const Orogen::Device& device, std::string_view id, std::string_view name) {
    int32_t index = Orogen::FindParameter(device.params, std::string(name).c_str());
    if (index < 0 || static_cast<size_t>(index) >= device.paramPorts.size())
        throw NetworkError(Quoted(id) + " has no parameter " + Quoted(name) +
                           "; valid: " + ParameterNames(device));
    return static_cast<size_t>(index);
}

}  // namespace

void Network::ConnectParameter(std::string_view from, uint32_t output, std::string_view to,
                               std::string_view parameter) {
    Node& source = NodeOf(from);
    Node& target = NodeOf(to);
    size_t index = ParameterIndex(*target.device(), target.id, parameter);
    LinkPorts(source, output, target, target.device()->paramPorts[index]);
}

void Network::Disconnect(std::string_view to, uint32_t input) {
    Node& target = NodeOf(to);
    Orogen::Device* device = target.device();
    if (input >= device->inputs.size())
        throw NetworkError(Quoted(target.id) + " has no input " + std::to_string(input));
    device->inputs[input]->Disconnect(nullptr);
}

void Network::DisconnectParameter(std::string_view to, std::string_view parameter) {
    Node& target = NodeOf(to);
    size_t index = ParameterIndex(*target.device(), target.id, parameter);
    target.device()->paramPorts[index]->Disconnect(nullptr);
}

std::vector<Link> Network::Links() const {
    std::vector<Link> links;
    auto source = [&](const Orogen::Port* port, Link& link) {
        Node* from = Upstream(port, link.output);
        if (from) link.from = from->id;
        return from != nullptr;
    };
    for (const auto& node : nodes) {
        Orogen::Device* device = node->device();
        for (size_t i = 0; i < device->inputs.size(); ++i) {
            Link link;
            if (!source(device->inputs[i], link)) continue;
            link.to = node->id;
            link.target = LinkTarget::Input;
            link.input = static_cast<uint32_t>(i);
            links.push_back(link);
        }
        for (size_t i = 0; i < device->paramPorts.size() && i < device->params.records.size();
             ++i) {
            Link link;
            if (!source(device->paramPorts[i], link)) continue;
            link.to = node->id;
            link.target = LinkTarget::Parameter;
            link.parameter = device->params.records[i].name;
            links.push_back(link);
        }
    }
    return links;
}

// Order

std::vector<Network::Node*> Network::Order() const {
    std::map<const Node*, size_t> waiting;
    for (const auto& node : nodes) waiting[node.get()] = Predecessors(*node).size();
    // Ready devices leave in the order they were added.
    auto later = [](const Node* a, const Node* b) { return a->serial > b->serial; };
    std::priority_queue<Node*, std::vector<Node*>, decltype(later)> ready(later);
    for (const auto& node : nodes)
        if (waiting[node.get()] == 0) ready.push(node.get());
    std::vector<Node*> order;
    while (!ready.empty()) {
        Node* node = ready.top();
        ready.pop();
        order.push_back(node);
        for (Node* next : Successors(*node))
            if (--waiting[next] == 0) ready.push(next);
    }
    if (order.size() == nodes.size()) return order;

    // Name one cycle among the devices left over.
    const Node* start = nullptr;
    for (const auto& node : nodes)
        if (waiting[node.get()] > 0) {
            start = node.get();
            break;
        }
    std::vector<std::string> rest;
    for (Node* next : Successors(*start)) {
        if (waiting[next] == 0) continue;
        rest = PathBetween(*next, *start);
        if (!rest.empty()) break;
    }
    std::string text = Quoted(start->id);
    for (const std::string& id : rest) text += " -> " + Quoted(id);
    throw NetworkError("cycle between devices: " + text);
}

std::vector<std::string> Network::BuildOrder() const {
    std::vector<std::string> ids;
    for (Node* node : Order()) ids.push_back(node->id);
    return ids;
}

// Builds

BuildReport Network::Build(const BuildOptions& options) {
    Clock::time_point buildStart = Clock::now();
    std::vector<Node*> order = Order();
    cancelRequested = false;
    std::string why;
    const uint32_t workers = host.Workers().Resize(options.workers, &why);
    host.Network().SetGlobals(globals);

    results.reset();
    auto set = std::make_unique<Orogen::BuildResultSet>();
    building = set.get();
    // Whatever happens, no device sees this set once the build is over.
    struct EndOfBuild {
        Network& network;
        ~EndOfBuild() {
            network.building = nullptr;
            network.current = nullptr;
        }
    } endOfBuild{*this};
    for (const auto& node : nodes) node->status = BuildStatus::NotBuilt;

    Progress progress(*this, options);
    progress.threadsAllowed = options.workers > 0;
    Orogen::BuildContext context = Orogen::MakeBuildContext(world.ToGrid(), building, &progress);

    // When streaming: the position of the last device reading each output,
    // and the outputs to drop after each position.
    std::map<std::pair<const Node*, uint32_t>, size_t> lastRead;
    std::vector<std::vector<std::pair<Node*, uint32_t>>> dropAfter(order.size());
    if (options.releaseOutputs) {
        std::map<const Node*, size_t> position;
        for (size_t i = 0; i < order.size(); ++i) position[order[i]] = i;
        for (size_t i = 0; i < order.size(); ++i) {
            Orogen::Device* device = order[i]->device();
            for (uint32_t k = 0; k < device->outputs.size(); ++k) {
                size_t last = i;
                for (Orogen::Port* input : device->outputs[k]->links)
                    if (Node* reader = input ? NodeOf(input->owner) : nullptr)
                        last = std::max(last, position[reader]);
                lastRead[{order[i], k}] = last;
                dropAfter[last].emplace_back(order[i], k);
            }
        }
    }

    BuildReport report;
    if (workers < options.workers)
        report.warnings.push_back(
            "only " + std::to_string(workers) + " of " + std::to_string(options.workers) +
            " worker threads could be started (" + why + "); building with fewer");
    for (size_t position = 0; position < order.size(); ++position) {
        Node& node = *order[position];
        Orogen::Device* device = node.device();
        DeviceReport entry;
        entry.id = node.id;
        Orogen::DeviceResult& result = Orogen::doGetDevice(building, device);

        if (cancelRequested) {
            entry.status = BuildStatus::Cancelled;
            entry.message = "the build was cancelled";
        } else {
            // An ordinary input or a parameter fed by a device that did not build.
            auto problem = [&](Orogen::Port* port, const std::string& what) -> std::string {
                Node* from = port && port->peer ? NodeOf(port->peer->owner) : nullptr;
                if (!from || from->status == BuildStatus::Built) return {};
                return what + " comes from " + Quoted(from->id) + ", which did not build (" +
                       StatusName(from->status) + ")";
            };
            std::string why;
            for (size_t i = 0; i < device->inputs.size() && why.empty(); ++i)
                if (device->inputs[i]->role == Orogen::kRoleOrdinary)
                    why = problem(device->inputs[i], "input " + std::to_string(i) + " (" +
                                                         Quoted(device->inputs[i]->name) + ")");
            for (size_t i = 0; i < device->paramPorts.size() && why.empty(); ++i)
                why = problem(device->paramPorts[i],
                              "parameter " + Quoted(i < device->params.records.size()
                                                        ? device->params.records[i].name
                                                        : "?"));
            if (!why.empty()) {
                entry.status = BuildStatus::InputFailed;
                entry.message = why;
                result.status = Orogen::kResultUnusable;
            }
        }

        if (entry.status == BuildStatus::NotBuilt) {
            if (options.onDeviceStart) options.onDeviceStart(node.id, position, order.size());
            current = &node;
            size_t logged = host.Network().LogLines().size();
            HostPacket::ResetPeak();
            Clock::time_point start = Clock::now();
            // Inputs whose device built but left nothing on the linked output
            // (a router sends its input to one output only).
            std::string starved;
            for (size_t i = 0; i < device->inputs.size() && starved.empty(); ++i) {
                uint32_t k;
                Node* from = Upstream(device->inputs[i], k);
                if (!from) continue;
                const Orogen::DeviceResult& source = Orogen::doGetDevice(building, from->device());
                if (k < source.outputs.size() && source.outputs[k]) continue;
                starved = "input " + std::to_string(i) + " (" + Quoted(device->inputs[i]->name) +
                          ") received nothing: output " + std::to_string(k) + " of " +
                          Quoted(from->id) + " holds no packet";
            }
            try {
                if (options.releaseOutputs) HandOverLastReads(node, position, lastRead);
                PushParameterValues(*device);
                entry.processResult = device->Process(context);
                switch (entry.processResult) {
                    case 1:
                        entry.status = BuildStatus::Built;
                        break;
                    case 0:
                        entry.status = BuildStatus::Failed;
                        break;
                    case -1:
                        entry.status = BuildStatus::Unusable;
                        entry.message = "its results were marked not to be used";
                        break;
                    case Orogen::kProcessDisabled:
                        entry.status = BuildStatus::Disabled;
                        entry.message = "the device is disabled";
                        break;
                    case Orogen::kProcessException:
                        entry.status = BuildStatus::Exception;
                        entry.message = "the build raised an error";
                        break;
                    default:
                        entry.status = BuildStatus::Failed;
                        entry.message =
                            "unexpected build result " + std::to_string(entry.processResult);
                }
            } catch (const std::bad_alloc&) {
                entry.status = BuildStatus::Exception;
                entry.message = "out of memory while it built, with " +
                                std::to_string(HostPacket::ResidentBytes()) +
                                " bytes of fields held; lower the resolution or give the build a "
                                "memory budget (orogen --memory) to page stored fields to disk";
            } catch (const std::exception& e) {
                entry.status = BuildStatus::Exception;
                entry.message = e.what();
            } catch (...) {
                entry.status = BuildStatus::Exception;
                entry.message = "the build threw an unknown exception";
            }
            entry.seconds = SecondsSince(start);
            entry.peakBytes = HostPacket::PeakResidentBytes();
            current = nullptr;
            // A framework error is caught inside the device; what it logged says more.
            std::vector<std::string> log = host.Network().LogLines();
            if (entry.processResult == Orogen::kProcessException && log.size() > logged)
                entry.message = log.back();

            if (entry.status == BuildStatus::Built)
                if (FileInput* input = AsFileInput(device)) entry.message = input->LastNote();
            if (entry.status == BuildStatus::Failed && entry.message.empty()) {
                if (FileInput* input = AsFileInput(device)) entry.message = input->LastError();
                if (entry.message.empty()) entry.message = starved;
                for (size_t i = 0; i < device->inputs.size() && entry.message.empty(); ++i) {
                    Orogen::Port* port = device->inputs[i];
                    if (port->role != Orogen::kRoleOrdinary) continue;
                    if (!port->peer)
                        entry.message = "input " + std::to_string(i) + " (" + Quoted(port->name) +
                                        ") is not connected";
                }
                if (entry.message.empty()) entry.message = "the device's build failed";
            }
            if (entry.status != BuildStatus::Built && cancelRequested) {
                entry.status = BuildStatus::Cancelled;
                entry.message = "the build was cancelled";
            }
            if (entry.status != BuildStatus::Built) {
                // Nothing a failed build left behind is passed on.
                for (Orogen::PacketRef& packet : result.outputs) packet.Release();
                result.status = Orogen::kResultUnusable;
            }
        }

        node.status = entry.status;
        if (options.onDeviceDone) options.onDeviceDone(entry);
        report.devices.push_back(std::move(entry));
        if (options.releaseOutputs) {
            for (Orogen::PacketRef& packet : result.pushedInputs) packet.Release();
            for (const auto& [producer, k] : dropAfter[position]) {
                Orogen::DeviceResult& stored = Orogen::doGetDevice(building, producer->device());
                if (k < stored.outputs.size()) stored.outputs[k].Release();
            }
        }
        if (options.memoryBudget > 0) EnforceBudget(order, position + 1, options.memoryBudget);
    }

    results = std::move(set);
    report.cancelled = cancelRequested;
    report.seconds = SecondsSince(buildStart);
    return report;
}

// Inputs this device is the last to read, from an output it alone reads and no
// one else holds, are handed over: the device may work on them in place.
void Network::HandOverLastReads(
    Node& node, size_t position,
    const std::map<std::pair<const Node*, uint32_t>, size_t>& lastRead) {
    Orogen::Device* device = node.device();
    for (Orogen::Port* port : device->inputs) {
        uint32_t index;
        Node* from = Upstream(port, index);
        if (!from) continue;
        auto last = lastRead.find({from, index});
        if (last == lastRead.end() || last->second != position) continue;
        const std::vector<Orogen::Port*>& readers = from->device()->outputs[index]->links;
        if (std::count_if(readers.begin(), readers.end(), [&](const Orogen::Port* reader) {
                return reader && reader->owner == device;
            }) != 1)
            continue;
        Orogen::DeviceResult& source = Orogen::doGetDevice(building, from->device());
        if (index >= source.outputs.size()) continue;
        Orogen::PacketRef& slot = source.outputs[index];
        if (!slot || !AsHostPacket(slot.get()) || slot->refCount.load() != 1) continue;
        if (slot->pagedOut) slot->PageIn();
        Orogen::PushInputs(building, {port}, &HandOver, &slot);
        slot.Release();
    }
}

void Network::PushParameterValues(Orogen::Device& device) {
    // A height field or bitmap on a parameter link counts by its mean value.
    for (Orogen::Port* port : device.paramPorts) {
        uint32_t index;
        Node* from = Upstream(port, index);
        if (!from) continue;
        Orogen::DeviceResult& source = Orogen::doGetDevice(building, from->device());
        if (index >= source.outputs.size() || !source.outputs[index]) continue;
        Orogen::PacketRef packet = source.outputs[index];
        if (packet->GetKind() == Orogen::kParameterPacket) continue;
        if (packet->pagedOut) packet->PageIn();
        Orogen::PacketRef value = HostPacket::Create(Orogen::kParameterPacket);
        Orogen::SetPacketValue(*value, ParameterValueOf(*packet), Orogen::kParamReal);
        Orogen::PushInputs(building, {port}, &HandOver, &value);
    }
}

void Network::EnforceBudget(const std::vector<Node*>& order, size_t done, uint64_t budget) {
    std::map<const Node*, size_t> position;
    for (size_t i = 0; i < order.size(); ++i) position[order[i]] = i;

    struct Candidate {
        size_t nextUse;
        size_t producer;
        HostPacket* packet;
    };
    std::vector<Candidate> candidates;
    std::set<HostPacket*> seen;
    uint64_t resident = 0;
    for (size_t p = 0; p < done; ++p) {
        Orogen::Device* device = order[p]->device();
        auto found = building->results.find(device);
        if (found == building->results.end()) continue;
        const auto& outputs = found->second.outputs;
        for (size_t k = 0; k < outputs.size(); ++k) {
            HostPacket* packet = outputs[k] ? AsHostPacket(outputs[k].get()) : nullptr;
            if (!packet || !seen.insert(packet).second || packet->pagedOut) continue;
            resident += packet->SampleBytes();
            // Held elsewhere too (an export reading it): it stays.
            if (packet->refCount.load() > 1) continue;
            // The soonest device still to build that reads this output.
            size_t nextUse = std::numeric_limits<size_t>::max();
            if (k < device->outputs.size())
                for (Orogen::Port* input : device->outputs[k]->links)
                    if (Node* reader = input ? NodeOf(input->owner) : nullptr) {
                        size_t at = position[reader];
                        if (at >= done) nextUse = std::min(nextUse, at);
                    }
            candidates.push_back({nextUse, p, packet});
        }
    }
    if (resident <= budget) return;
    // Needed latest first; among equals the oldest first.
    std::sort(candidates.begin(), candidates.end(), [](const Candidate& a, const Candidate& b) {
        return a.nextUse != b.nextUse ? a.nextUse > b.nextUse : a.producer < b.producer;
    });
    for (const Candidate& candidate : candidates) {
        if (resident <= budget) break;
        uint64_t bytes = candidate.packet->SampleBytes();
        try {
            if (candidate.packet->PageOut(host.Network().GetSwapDirectory())) resident -= bytes;
        } catch (const std::exception& e) {
            host.Network().LogMessage(e.what());
            return;
        }
    }
}

Orogen::PacketRef Network::Output(std::string_view id, uint32_t index) const {
    Node& node = NodeOf(id);
    const Orogen::BuildResultSet* set = building ? building : results.get();
    if (!set) return Orogen::PacketRef();
    auto found = set->results.find(node.device());
    if (found == set->results.end() || index >= found->second.outputs.size())
        return Orogen::PacketRef();
    Orogen::PacketRef packet = found->second.outputs[index];
    if (packet && packet->pagedOut) packet->PageIn();
    return packet;
}

Image Network::OutputImage(std::string_view id, uint32_t index) const {
    Orogen::PacketRef packet = Output(id, index);
    if (!packet)
        throw NetworkError("output " + std::to_string(index) + " of " + Quoted(id) +
                           " holds nothing");
    uint32_t kind = packet->GetKind();
    if (kind != Orogen::kHeightField && kind != Orogen::kBitmap)
        throw NetworkError("output " + std::to_string(index) + " of " + Quoted(id) +
                           " holds no height field or bitmap");
    Image image;
    image.width = packet->grid.width;
    image.height = packet->grid.height;
    image.channels = kind == Orogen::kBitmap ? 3 : 1;
    uint64_t count = packet->PointCount() * static_cast<uint64_t>(image.channels);
    if (packet->samples) image.samples.assign(packet->samples, packet->samples + count);
    return image;
}

std::vector<std::string> Network::GlobalUsers(uint32_t globals) const {
    std::vector<std::string> ids;
    for (const auto& node : nodes)
        if (node->device()->OptionQuery3(globals)) ids.push_back(node->id);
    return ids;
}

bool Network::EditSettings(std::string_view id) {
    return NodeOf(id).device()->EditSettings();
}

bool Network::RunAction(std::string_view id, std::string_view label) {
    Node& node = NodeOf(id);
    Orogen::Device* device = node.device();
    const Orogen::DeviceAction* action = device->FindAction(label);
    if (!action) {
        std::string valid;
        for (const Orogen::DeviceAction& a : device->actions)
            valid += (valid.empty() ? "" : ", ") + Quoted(a.label);
        throw NetworkError(Quoted(node.id) + " has no action " + Quoted(label) +
                           "; valid: " + (valid.empty() ? "none" : valid));
    }
    return action->run(*device);
}

const std::vector<OwnerEvent>& Network::Events(std::string_view id) const {
    return NodeOf(id).events;
}

void Network::ClearEvents() {
    for (const auto& node : nodes) node->events.clear();
}

}  // namespace basekit::host
