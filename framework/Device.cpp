#include "framework/Device.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "framework/Fields.h"

namespace Orogen {

namespace {

Port* NewSpecialPort(Device* device, const char* name, uint32_t kind) {
    auto* port = new Port(device, kind);
    port->SetName(name);
    port->role = kRoleSpecial;
    return port;
}

}  // namespace

void DestroyDevice(Device* device) { delete device; }

GlobalSettings HostGlobals() {
    GlobalSettings settings;
    if (Services() && Services()->network) Services()->network->GetGlobalSettings(settings);
    return settings;
}

Device::Device() : params(this) {
    std::memset(&identity, 0, sizeof identity);
    std::memcpy(identity.tag, "SPRK", 4);
    maskInput = NewSpecialPort(this, "Mask Input", kHeightField);
    try {
        coordInput = NewSpecialPort(this, "Coordinate Input", kCoordinateData);
    } catch (...) {
        delete maskInput;
        throw;
    }
}

Device::~Device() {
    if (Services() && Services()->network) Services()->network->DeviceDestroyed(this);
    for (Port* port : inputs) delete port;
    for (OutputPort* port : outputs) delete port;
    for (Port* port : paramPorts) delete port;
    delete maskInput;
    delete coordInput;
}

void Device::SetIdentity(const char* tag, DeviceFactory create) {
    std::memcpy(identity.tag, tag, 4);
    identity.terminator = '\0';
    identity.create = create;
    identity.destroy = &DestroyDevice;
}

int32_t Device::GetNodeWidth() {
    return std::max(64, 7 * static_cast<int32_t>(params.records.size()) + 44);
}

int32_t Device::GetNodeHeight() {
    int32_t ports = static_cast<int32_t>(std::max(inputs.size(), outputs.size()));
    return std::max(12 * ports, 14) + 10;
}

void Device::SetName(const char* text) {
    std::strncpy(name, text ? text : "", sizeof name);
    name[sizeof name - 1] = '\0';
}

const char* Device::GetName() { return name[0] ? name : GetTypeName(); }

const char* Device::GetInputName(uint32_t index) {
    return index < inputs.size() ? inputs[index]->name : "Primary Input";
}

const char* Device::GetOutputName(uint32_t index) {
    return index < outputs.size() ? outputs[index]->name : "Primary Output";
}

int32_t Device::RefreshRandomSeed() {
    seed = Services()->seeds->NextSeed();
    return seed;
}

PacketRef& Device::GetInputPacket(PacketRef& out, uint32_t index) {
    BuildResultSet* results = owner ? owner->GetResultSet(this) : nullptr;
    out = results ? Orogen::GetInputPacket(this, index, results) : PacketRef();
    return out;
}

PacketRef& Device::GetInputPacketAs(PacketRef& out, uint32_t index, uint32_t kind) {
    GetInputPacket(out, index);
    if (out && kind != 0 && out->GetKind() != kind) out = ConvertPacket(out, kind);
    return out;
}

bool Device::EditSettings() {
    ParameterList snapshot = params;
    int32_t answer = Services()->dialogs->EditDevice(this);
    if (answer == 1) {
        SettingsChanged();
        return true;
    }
    if (answer == -1) {
        params.dynamic = snapshot.dynamic;
        params.records = std::move(snapshot.records);
        params.sideA = std::move(snapshot.sideA);
        params.sideB = std::move(snapshot.sideB);
        Services()->network->DeviceChanged(this);
    }
    return false;
}

void Device::ShowHostView(intptr_t a, intptr_t b) {
    Services()->dialogs->ShowDeviceView(this, a, b);
}

int32_t Device::Process(const BuildContext& context) {
    if (!enabled) return kProcessDisabled;
    try {
        if (bypassed) {
            if (!inputs.empty() && !outputs.empty())
                SetOutput(this, Orogen::GetInputPacket(this, 0, context), 0, context);
            return 1;
        }
        std::vector<PacketRef> list(outputs.size());
        BuildContext own = context;
        if (OptionQuery9() && PrepareOutputs(list, own)) own.prepared = &list;
        return Execute(own);
    } catch (const QXException& e) {
        // The host's log is the only place the reason can go.
        if (Services() && Services()->network) Services()->network->LogMessage(e.what());
        return kProcessException;
    }
}

int32_t Device::Execute(const BuildContext& context) {
    if (doGetDevice(context.results, this).status == kResultUnusable) return -1;
    return Build(context) ? 1 : 0;
}

void Device::SettingsChanged() {
    if (owner) owner->DeviceEdited(this);
}

uint32_t Device::EstimateMemory() {
    if (!owner) return 0;
    uint32_t total = 0;
    for (OutputPort* port : outputs)
        total += static_cast<uint32_t>(port->links.size() + 1) * owner->DataTypeSize(port->kind);
    return total;
}

void Device::CopyFrom(Device* other) {
    if (!other || other == this) return;
    std::memcpy(placement, other->placement, sizeof placement);
    std::memcpy(name, other->name, sizeof name);
    params.dynamic = other->params.dynamic;
    params.records = other->params.records;
    params.sideA = other->params.sideA;
    params.sideB = other->params.sideB;
    params.device = this;
    for (size_t i = 0; i < paramPorts.size() && i < other->paramPorts.size(); ++i) {
        Port* mine = paramPorts[i];
        const Port* theirs = other->paramPorts[i];
        mine->owner = this;
        mine->kind = theirs->kind;
        mine->role = theirs->role;
        mine->SetName(theirs->name);
    }
    owner = other->owner;
    enabled = other->enabled;
    bypassed = other->bypassed;
    outputMode = other->outputMode;
    mode = other->mode;
    anchor[0] = other->anchor[0];
    anchor[1] = other->anchor[1];
    seed = other->seed;
}

bool Device::PrepareOutputs(std::vector<PacketRef>& /*list*/, const BuildContext& /*context*/) {
    return false;
}

void Device::AddPort(uint32_t direction, uint32_t /*unused*/, uint32_t kind, uint32_t position) {
    if (direction == 0) {
        auto* port = new Port(this, kind);
        auto at = position == 0xFFFFFFFFu || position >= inputs.size()
                      ? inputs.end()
                      : inputs.begin() + position;
        inputs.insert(at, port);
    } else if (direction == 1) {
        auto* port = new OutputPort(this, kind);
        auto at = position == 0xFFFFFFFFu || position >= outputs.size()
                      ? outputs.end()
                      : outputs.begin() + position;
        outputs.insert(at, port);
    }
    if (owner) owner->PortsChanged(this);
}

void Device::RemovePort(uint32_t direction, uint32_t index) {
    if (direction == 0 && index < inputs.size()) {
        inputs[index]->Disconnect(nullptr);
        delete inputs[index];
        inputs.erase(inputs.begin() + index);
    } else if (direction == 1 && index < outputs.size()) {
        outputs[index]->Disconnect(nullptr);
        delete outputs[index];
        outputs.erase(outputs.begin() + index);
    }
    if (owner) owner->PortsChanged(this);
}

PacketRef Device::InputPacket(const BuildContext& context, uint32_t index) {
    return Orogen::GetInputPacket(this, index, context);
}

const DeviceAction* Device::FindAction(std::string_view label) const {
    for (const DeviceAction& action : actions)
        if (label == action.label) return &action;
    return nullptr;
}

void InputLinksChanged(Device& device) {
    if (device.inputLinksChanged) device.inputLinksChanged(device);
}

PacketRef Device::TakePrepared(const BuildContext& context, uint32_t index) {
    if (!context.prepared || index >= context.prepared->size()) return PacketRef();
    return std::move((*context.prepared)[index]);
}

PacketRef Device::WorkingInput(const BuildContext& context, uint32_t kinds) {
    PacketRef packet = TakePrepared(context, 0);
    if (!packet) packet = InputPacket(context, 0);
    if (!packet) return packet;
    if (kinds == kHeightField) packet = ConvertPacket(packet, kHeightField);
    if ((packet->GetKind() & kinds) == 0) return PacketRef();
    return packet;
}

bool Device::HeightFieldPair(const BuildContext& context, PacketRef& a, PacketRef& b) {
    a = InputPacket(context, 0);
    b = InputPacket(context, 1);
    if (!a || !b) return false;
    a = ConvertPacket(a, kHeightField);
    b = ConvertPacket(b, kHeightField);
    CheckSameShape(*a, *b);
    return true;
}

void Device::StoreOutput(const BuildContext& context, const PacketRef& packet, uint32_t index) {
    if (!packet) return;
    SetPacketName(*packet, GetName());
    SetOutput(this, packet, index, context);
}

// Category classes

namespace {

PacketRef FreshPacketFor(const Port* port, const BuildContext& context) {
    return NewPacket(port->kind & kBitmap && !(port->kind & kHeightField) ? kBitmap : kHeightField,
                     context.grid);
}

}  // namespace

bool Generator::PrepareOutputs(std::vector<PacketRef>& list, const BuildContext& context) {
    for (size_t i = 0; i < list.size() && i < outputs.size(); ++i)
        list[i] = FreshPacketFor(outputs[i], context);
    return true;
}

PacketRef Generator::FreshField(const BuildContext& context, uint32_t index) {
    PacketRef field = TakePrepared(context, index);
    return field ? field : NewHeightField(context.grid);
}

bool Selector::PrepareOutputs(std::vector<PacketRef>& list, const BuildContext& context) {
    for (size_t i = 0; i < list.size() && i < outputs.size(); ++i)
        list[i] = FreshPacketFor(outputs[i], context);
    return true;
}

PacketRef Selector::FreshOutput(const BuildContext& context, uint32_t index, const QXPacket& like) {
    PacketRef field = TakePrepared(context, index);
    const Grid& a = like.grid;
    if (field && field->GetKind() == kHeightField) {
        const Grid& b = field->grid;
        if (a.width == b.width && a.height == b.height && a.x0 == b.x0 && a.y0 == b.y0 &&
            a.x1 == b.x1 && a.y1 == b.y1 && a.verticalScale == b.verticalScale)
            return field;
    }
    field.Release();  // before the new one, so that the two are not held at once
    return NewPacketLike(like, kHeightField);
}

bool Filter::PrepareOutputs(std::vector<PacketRef>& list, const BuildContext& context) {
    if (list.empty()) return false;
    list[0] = Orogen::GetInputPacket(this, 0, context);
    return true;
}

bool NaturalFilter::PrepareOutputs(std::vector<PacketRef>& list, const BuildContext& context) {
    if (list.empty()) return false;
    list[0] = Orogen::GetInputPacket(this, 0, context);
    return true;
}

namespace {

bool HandViewToHost(Device* device, const PacketRef& view) {
    if (!view || !Services() || !Services()->network) return false;
    return Services()->network->WriteView(device, view);
}

}  // namespace

bool Output::WriteOutput(const BuildContext& context) {
    if (!context.results || outputs.empty()) return false;
    DeviceResult& result = doGetDevice(context.results, this);
    if (result.outputs.empty() || !result.outputs[0]) return false;
    return HandViewToHost(this, result.outputs[0]);
}

bool Output::ExportAction() {
    // Composed on the calling thread alone: the action runs outside builds.
    const BuildContext context = MakeBuildContext(Grid{}, nullptr, nullptr);
    return HandViewToHost(this, ComposeView(context));
}

const char* Output::GetExportLabel() { return "Write Output to Disk"; }

PacketRef Output::ComposeView(const BuildContext& /*context*/) { return PacketRef(); }

}  // namespace Orogen
