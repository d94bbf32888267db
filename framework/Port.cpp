#include "framework/Port.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "framework/Device.h"
#include "framework/Exceptions.h"

namespace Orogen {

namespace {

// Tells the port's device (through its owner) that a link changed.
void NotifyLink(Port* port, uint32_t state) {
    if (!port || !port->owner || !port->owner->owner) return;
    uint32_t index, where;
    if (FindPort(port->owner, port, index, where))
        port->owner->owner->ConnectionChanged(port->owner, where, index, state);
}

// Once a link is in its final state: the handler of the device whose input
// it was. Owners hear of a change before the ports are updated, handlers after.
void InputLinkSettled(Port* port) {
    uint32_t index, where;
    if (port && port->owner && FindPort(port->owner, port, index, where) && where == kWhereInput)
        InputLinksChanged(*port->owner);
}

bool AskNetwork(Port* from, Port* to) {
    if (!from || !to || !from->owner || !from->owner->owner) return false;
    return from->owner->owner->QueryLink(from, to);
}

}  // namespace

// Port

Port::Port(Device* owner, uint32_t kind) : kind(kind), owner(owner) { SetName("Default"); }

Port::~Port() {
    if (peer) peer->SetPeer(nullptr, this);
    peer = nullptr;
}

void Port::SetName(const char* text) {
    std::strncpy(name, text ? text : "", sizeof name);
    name[sizeof name - 1] = '\0';
}

Port* Port::GetPeer() { return peer; }

Device* Port::GetPeerDevice() { return peer ? peer->owner : nullptr; }

bool Port::Connect(Port* other) {
    if (!other) {
        Port* old = peer;
        NotifyLink(this, 0);
        if (old) {
            NotifyLink(old, 0);
            old->SetPeer(nullptr, this);
        }
        SetPeer(nullptr, old);
        InputLinkSettled(this);
        InputLinkSettled(old);
        return false;
    }
    Port* old = peer;
    if (old) {
        NotifyLink(this, 0);
        NotifyLink(old, 0);
        old->SetPeer(nullptr, this);
    }
    NotifyLink(this, 1);
    NotifyLink(other, 1);
    SetPeer(other, peer);
    other->SetPeer(this, nullptr);
    InputLinkSettled(this);
    InputLinkSettled(old);
    InputLinkSettled(other);
    return true;
}

bool Port::Disconnect(Port* /*which*/) {
    Port* old = peer;
    SetPeer(nullptr, old);
    if (old) {
        NotifyLink(this, 0);
        NotifyLink(old, 0);
        old->SetPeer(nullptr, this);
        AskNetwork(old, this);
        InputLinkSettled(this);
        InputLinkSettled(old);
    }
    return true;
}

bool Port::QueryLink() { return peer ? AskNetwork(peer, this) : false; }

void Port::SetPeer(Port* newPeer, Port* /*oldPeer*/) { peer = newPeer; }

// OutputPort

OutputPort::~OutputPort() {
    for (Port* input : links)
        if (input->peer == this) input->peer = nullptr;
    links.clear();
}

Port* OutputPort::GetPeer() { return links.empty() ? nullptr : links.front(); }

Device* OutputPort::GetPeerDevice() { return links.empty() ? nullptr : links.front()->owner; }

bool OutputPort::Connect(Port* input) {
    if (!input || std::find(links.begin(), links.end(), input) != links.end()) return false;
    // An input has one peer: leave the output it was fed by.
    if (input->peer) input->Disconnect(nullptr);
    links.push_back(input);
    input->peer = this;
    NotifyLink(this, 1);
    NotifyLink(input, 1);
    InputLinkSettled(input);
    return true;
}

bool OutputPort::Disconnect(Port* which) {
    std::vector<Port*> gone;
    if (which) {
        if (std::find(links.begin(), links.end(), which) != links.end()) gone.push_back(which);
    } else {
        gone = links;
    }
    for (Port* input : gone) {
        SetPeer(nullptr, input);
        input->SetPeer(nullptr, this);
        NotifyLink(this, 0);
        NotifyLink(input, 0);
        AskNetwork(this, input);
        InputLinkSettled(input);
    }
    return true;
}

bool OutputPort::QueryLink() {
    bool any = false;
    for (Port* input : links) any = AskNetwork(this, input) || any;
    return any;
}

void OutputPort::SetPeer(Port* newPeer, Port* oldPeer) {
    if (!oldPeer) {
        links.clear();
        if (newPeer) links.push_back(newPeer);
        return;
    }
    auto at = std::find(links.begin(), links.end(), oldPeer);
    if (at == links.end()) return;
    if (newPeer)
        *at = newPeer;
    else
        links.erase(at);
}

// Build results

BuildContext MakeBuildContext(const Grid& grid, BuildResultSet* results,
                              BuildProgress* progress) {
    BuildContext context;
    context.grid = grid;
    context.sx = grid.width > 1 ? 1.0 / (grid.width - 1) : 0.0;
    context.sy = grid.height > 1 ? 1.0 / (grid.height - 1) : 0.0;
    context.coordinateMode = 0;
    context.results = results;
    context.progress = progress;
    return context;
}

DeviceResult& doGetDevice(BuildResultSet* results, const Device* device) {
    if (!device) throw QXException("Null device pointer to doGetDevice()!");
    if (!results)
        throw QXException(
            "doGetDevice:: no device results resided within the given build result set.");
    CriticalSectionGuard guard(results->lock);
    if (results->cachedResult && results->cachedDevice == device) return *results->cachedResult;
    auto found = results->results.find(device);
    if (found != results->results.end()) {
        results->cachedDevice = device;
        results->cachedResult = &found->second;
        return found->second;
    }
    DeviceResult fresh;
    fresh.outputs.resize(device->outputs.size());
    fresh.pushedInputs.resize(device->inputs.size());
    fresh.parameters.resize(device->paramPorts.size());
    return results->results.emplace(device, std::move(fresh)).first->second;
}

PacketRef GetInputPacket(Device* device, uint32_t index, BuildResultSet* results) {
    if (!device || index >= device->inputs.size()) return PacketRef();
    Port* port = device->inputs[index];
    if (!port || !port->peer) return PacketRef();
    PacketRef packet;
    {
        DeviceResult& own = doGetDevice(results, device);
        if (index < own.pushedInputs.size()) packet = std::move(own.pushedInputs[index]);
    }
    if (packet) {
        SetPagingHint(*packet, packet->stayPagedOut != 0);
    } else {
        Device* upstream = port->peer->owner;
        uint32_t upstreamIndex, where;
        if (!upstream || !FindPort(upstream, port->peer, upstreamIndex, where) ||
            where != kWhereOutput)
            return PacketRef();
        PacketRef source;
        {
            DeviceResult& theirs = doGetDevice(results, upstream);
            if (upstreamIndex < theirs.outputs.size()) source = theirs.outputs[upstreamIndex];
        }
        if (!source) return PacketRef();
        SetPagingHint(*source, false);
        source->Duplicate(packet);
    }
    if (!packet) return PacketRef();
    SetPacketName(*packet, "RetrievedData");
    SetPagingHint(*packet, false);
    return packet;
}

PacketRef GetInputPacket(Device* device, uint32_t index, const BuildContext& context) {
    return GetInputPacket(device, index, context.results);
}

namespace {

// The store steps shared by every slot.
void Store(PacketRef& slot, const PacketRef& packet, const char* slotName, bool mayStayOut) {
    slot = packet;
    if (!slot) return;
    SetPacketName(*slot, slotName);
    SetPagingHint(*slot, mayStayOut);
}

}  // namespace

void SetOutput(Device* device, const PacketRef& packet, uint32_t index,
               const BuildContext& context) {
    if (!packet) return;
    char slotName[64];
    std::snprintf(slotName, sizeof slotName, "%s: slot %d", device->GetName(),
                  static_cast<int>(index));
    SetPacketName(*packet, slotName);
    if (index >= device->outputs.size()) return;
    if (device->outputMode == 1) packet->maskFlag = 1;
    if (device->outputMode == 2) packet->maskFlag = 0;
    DeviceResult& result = doGetDevice(context.results, device);
    if (result.outputs.size() < device->outputs.size()) result.outputs.resize(device->outputs.size());
    Store(result.outputs[index], packet, slotName, true);
}

uint32_t PushInputs(BuildResultSet* results, const std::vector<Port*>& ports,
                    PacketRef (*visitor)(Port* port, void* data), void* data) {
    uint32_t handed = 0;
    for (Port* port : ports) {
        Device* device = port ? port->owner : nullptr;
        if (!device) continue;
        DeviceResult& result = doGetDevice(results, device);
        if (result.status == kResultUnusable) continue;
        ++handed;
        uint32_t index, where;
        if (!FindPort(device, port, index, where)) continue;
        PacketRef packet = visitor(port, data);
        if (!packet) continue;
        char text[64];
        switch (where) {
            case kWhereInput:
                std::snprintf(text, sizeof text, "%s packet input %d", device->name,
                              static_cast<int>(index));
                SetPacketName(*packet, text);
                if (result.pushedInputs.size() <= index) result.pushedInputs.resize(index + 1);
                Store(result.pushedInputs[index], packet, text, true);
                break;
            case kWhereParameter:
                std::snprintf(text, sizeof text, "%s parampacket %d ", device->name,
                              static_cast<int>(index));
                SetPacketName(*packet, text);
                if (result.parameters.size() <= index) result.parameters.resize(index + 1);
                Store(result.parameters[index], packet, "Parameter Packet", false);
                break;
            case kWhereMask:
                std::snprintf(text, sizeof text, "%s mask %d ", device->name,
                              static_cast<int>(index));
                SetPacketName(*packet, text);
                Store(result.mask, packet, "Mask Packet", true);
                break;
            case kWhereCoordinates:
                std::snprintf(text, sizeof text, "%s coord input %d", device->name,
                              static_cast<int>(index));
                Store(result.coordinates, packet, text, true);
                break;
            default:
                break;  // an output port takes nothing
        }
    }
    return handed;
}

void SetPortCount(Device* device, uint32_t inputs, uint32_t outputs, uint32_t kind) {
    for (Port* port : device->inputs) {
        port->Disconnect(nullptr);
        delete port;
    }
    device->inputs.clear();
    for (OutputPort* port : device->outputs) {
        port->Disconnect(nullptr);
        delete port;
    }
    device->outputs.clear();
    for (uint32_t i = 0; i < inputs; ++i) {
        auto* port = new Port(device, kind);
        port->SetName("Primary Input");
        device->inputs.push_back(port);
    }
    for (uint32_t i = 0; i < outputs; ++i) {
        auto* port = new OutputPort(device, kind);
        port->SetName("Primary Output");
        device->outputs.push_back(port);
    }
    if (device->owner) device->owner->PortsChanged(device);
}

void ResizePorts(Device* device, uint32_t inputs, uint32_t outputs, uint32_t kind) {
    if (device->inputs.size() == inputs && device->outputs.size() == outputs) return;
    while (device->inputs.size() > inputs) {
        device->inputs.back()->Disconnect(nullptr);
        delete device->inputs.back();
        device->inputs.pop_back();
    }
    while (device->outputs.size() > outputs) {
        device->outputs.back()->Disconnect(nullptr);
        delete device->outputs.back();
        device->outputs.pop_back();
    }
    while (device->inputs.size() < inputs) {
        auto* port = new Port(device, kind);
        port->SetName("Primary Input");
        device->inputs.push_back(port);
    }
    while (device->outputs.size() < outputs) {
        auto* port = new OutputPort(device, kind);
        port->SetName("Primary Output");
        device->outputs.push_back(port);
    }
    if (device->owner) device->owner->PortsChanged(device);
}

bool FindPort(const Device* device, const Port* port, uint32_t& index, uint32_t& where) {
    if (!device || !port) return false;
    for (size_t i = 0; i < device->inputs.size(); ++i)
        if (device->inputs[i] == port) {
            index = static_cast<uint32_t>(i);
            where = kWhereInput;
            return true;
        }
    for (size_t i = 0; i < device->outputs.size(); ++i)
        if (device->outputs[i] == port) {
            index = static_cast<uint32_t>(i);
            where = kWhereOutput;
            return true;
        }
    for (size_t i = 0; i < device->paramPorts.size(); ++i)
        if (device->paramPorts[i] == port) {
            index = static_cast<uint32_t>(i);
            where = kWhereParameter;
            return true;
        }
    index = 0;
    if (device->maskInput == port) {
        where = kWhereMask;
        return true;
    }
    if (device->coordInput == port) {
        where = kWhereCoordinates;
        return true;
    }
    return false;
}

}  // namespace Orogen
