#include "framework/Parameter.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include "framework/Device.h"
#include "framework/Exceptions.h"
#include "framework/PortableMath.h"

namespace Orogen {

namespace {

char* HostCopy(const char* text) {
    if (!text) return nullptr;
    size_t size = std::strlen(text) + 1;
    auto* copy = static_cast<char*>(Services()->allocator->Allocate(size, 0));
    std::memcpy(copy, text, size);
    return copy;
}

void HostFree(char* text) {
    if (text) Services()->allocator->Free(text);
}

}  // namespace

ParamRecord::ParamRecord() {
    std::memset(&value, 0, sizeof value);
    minimum.i = 0;
    maximum.i = 0;
}

ParamRecord::ParamRecord(const ParamRecord& other)
    : value(other.value),
      minimum(other.minimum),
      maximum(other.maximum),
      kind(other.kind),
      options(other.options),
      flags(other.flags),
      labels(other.labels),
      description(HostCopy(other.description)) {
    std::memcpy(name, other.name, sizeof name);
}

ParamRecord::ParamRecord(ParamRecord&& other) noexcept
    : value(other.value),
      minimum(other.minimum),
      maximum(other.maximum),
      kind(other.kind),
      options(other.options),
      flags(other.flags),
      labels(std::move(other.labels)),
      description(std::exchange(other.description, nullptr)) {
    std::memcpy(name, other.name, sizeof name);
}

ParamRecord& ParamRecord::operator=(ParamRecord other) noexcept {
    value = other.value;
    minimum = other.minimum;
    maximum = other.maximum;
    kind = other.kind;
    options = other.options;
    std::memcpy(name, other.name, sizeof name);
    flags = other.flags;
    labels.swap(other.labels);
    std::swap(description, other.description);
    return *this;
}

ParamRecord::~ParamRecord() { HostFree(description); }

void ParamRecord::SetName(const char* text) {
    std::memset(name, 0, sizeof name);
    std::strncpy(name, text, sizeof name - 1);
}

void ParamRecord::SetDescription(const char* text) {
    char* copy = HostCopy(text);
    HostFree(description);
    description = copy;
}

void ParamRecord::AddLabel(const char* text) {
    ParamLabel label{};
    std::strncpy(label.data(), text, label.size() - 1);
    labels.push_back(label);
}

void AddParameter(Device* device, ParamRecord& record, uint32_t flags) {
    if (flags != 0) record.flags = flags;
    device->params.records.push_back(std::move(record));
    auto* port = new Port(device, 3);
    device->paramPorts.push_back(port);
    if (device->owner) device->owner->PortsChanged(device);
    record = ParamRecord();
}

int32_t FindParameter(const ParameterList& list, const char* name) {
    if (!name) return -1;
    for (size_t i = 0; i < list.records.size(); ++i)
        if (std::strncmp(list.records[i].name, name, sizeof list.records[i].name) == 0 &&
            std::strlen(name) < sizeof list.records[i].name)
            return static_cast<int32_t>(i);
    return -1;
}

float FoldPacketValue(const ParamRecord& record, float x) {
    if (record.options & kParamExponential)
        x = (static_cast<float>(Exp2((x - 0.5f) * 8.0f)) - 0.0625f) / 15.9375f;
    float low = record.IsFloat() ? record.minimum.f : static_cast<float>(record.minimum.i);
    float high = record.IsFloat() ? record.maximum.f : static_cast<float>(record.maximum.i);
    if (record.flags & kParamAbsolutePacket) {
        if (x > high) x = high;
        if (x < low) x = low;
        return x;
    }
    return low + (high - low) * x;
}

namespace {

// Folds one parameter packet into the record's value. A float kind keeps the
// float; the integer kinds keep the value truncated to an integer, since their
// cell is read as one.
void FoldPacket(ParamRecord& record, const PacketRef& packet) {
    if (!packet || packet->GetKind() != kParameterPacket || !packet->samples) return;
    float folded = FoldPacketValue(record, packet->samples[0]);
    if (record.IsFloat())
        record.value.f = folded;
    else
        record.value.i = static_cast<int32_t>(folded);
}

// The packets on parameter port `index`: a pushed one (used once), then the
// one the linked upstream output holds.
void FoldConnectedPackets(Device* device, size_t index) {
    if (!device->owner || index >= device->paramPorts.size()) return;
    BuildResultSet* results = device->owner->GetResultSet(device);
    if (!results) return;
    PacketRef pushed;
    PacketRef linked;
    {
        DeviceResult& result = doGetDevice(results, device);
        if (index < result.parameters.size()) pushed = std::move(result.parameters[index]);
    }
    Port* port = device->paramPorts[index];
    if (port && port->peer && port->peer->owner) {
        uint32_t upstreamIndex, where;
        Device* upstream = port->peer->owner;
        if (FindPort(upstream, port->peer, upstreamIndex, where) && where == kWhereOutput) {
            DeviceResult& source = doGetDevice(results, upstream);
            if (upstreamIndex < source.outputs.size()) linked = source.outputs[upstreamIndex];
        }
    }
    ParamRecord& record = device->params.records[index];
    FoldPacket(record, pushed);
    FoldPacket(record, linked);
}

}  // namespace

ParamValue* GetParameter(Device* device, const char* name) {
    int32_t index = FindParameter(device->params, name);
    if (index < 0 || static_cast<size_t>(index) >= device->params.records.size())
        throw ParameterException();
    FoldConnectedPackets(device, static_cast<size_t>(index));
    return &device->params.records[static_cast<size_t>(index)].value;
}

void DeclareParameters(Device* device, const ParamSpec* table, size_t count) {
    for (size_t n = 0; n < count; ++n) {
        const ParamSpec& row = table[n];
        ParamRecord record;
        record.SetName(row.name);
        record.kind = row.kind;
        record.options = row.options;
        if (row.kind == kParamReal) {
            record.value.f = static_cast<float>(row.value);
            record.minimum.f = static_cast<float>(row.minimum);
            record.maximum.f = static_cast<float>(row.maximum);
        } else {
            record.value.i = static_cast<int32_t>(row.value);
            record.minimum.i = static_cast<int32_t>(row.minimum);
            record.maximum.i = static_cast<int32_t>(row.maximum);
        }
        for (const char* label : row.labels) record.AddLabel(label);
        AddParameter(device, record, row.flags);
        device->params.records.back().SetDescription(row.description);
        if (row.enabledWhen.controller)
            device->enablingRules.push_back(
                {row.name, row.enabledWhen.controller, row.enabledWhen.value});
    }
}

bool ParameterEnabled(const Device* device, const char* name) {
    for (const EnablingRule& rule : device->enablingRules) {
        if (!name || std::strcmp(rule.parameter, name) != 0) continue;
        int32_t at = FindParameter(device->params, rule.controller);
        if (at < 0) continue;
        const ParamRecord& controller = device->params.records[static_cast<size_t>(at)];
        const bool holds = controller.IsFloat()
                               ? controller.value.f == static_cast<float>(rule.value)
                               : controller.value.i == rule.value;
        if (!holds) return false;
    }
    return true;
}

float ParamFloat(Device* device, const char* name) {
    const ParamValue* value = GetParameter(device, name);
    int32_t index = FindParameter(device->params, name);
    if (device->params.records[static_cast<size_t>(index)].IsFloat()) return value->f;
    return static_cast<float>(value->i);
}

int32_t ParamInt(Device* device, const char* name) {
    const ParamValue* value = GetParameter(device, name);
    int32_t index = FindParameter(device->params, name);
    if (device->params.records[static_cast<size_t>(index)].IsFloat())
        return static_cast<int32_t>(value->f);
    return value->i;
}

bool ParamBool(Device* device, const char* name) { return ParamInt(device, name) != 0; }

bool IsColourParameter(const ParamRecord& record) {
    return record.kind == kParamInteger && record.minimum.i == 0 &&
           record.maximum.i == kColourMaximum;
}

void ParamColour(Device* device, const char* name, float rgb[3]) {
    const auto colour = static_cast<uint32_t>(ParamInt(device, name));
    for (int c = 0; c < 3; ++c)
        rgb[c] = static_cast<float>((colour >> (16 - 8 * c)) & 0xFFu) / 255.0f;
}

}  // namespace Orogen
