// The base block "SPRK" and the parameter block ("PAR2", or the older "PARM")
// that every device writes after its own tag, version and fields.
#include "framework/Serialization.h"

#include <algorithm>
#include <string>
#include <vector>

#include "framework/Device.h"

namespace Orogen {

namespace {

constexpr uint8_t kBaseVersion = 9;
constexpr uint8_t kParamBlockVersion = 1;
constexpr uint8_t kRecordVersion = 5;
// Descriptions are read in pieces, so a hostile length costs no more memory
// than the stream really holds.
constexpr size_t kReadPiece = 1 << 16;

void WriteRecord(StateWriter& w, const ParamRecord& record) {
    w.Bytes("P1", 2);
    w.U8(kRecordVersion);
    // An action's cell holds a callback: nothing a file should carry.
    if (record.kind == kParamAction)
        w.U32(0);
    else
        w.Bytes(record.value.bytes, 4);
    w.Bytes(&record.minimum, 4);
    w.Bytes(&record.maximum, 4);
    w.U32(record.kind);
    w.U32(record.options);
    w.Bytes(record.name, 32);
    if (record.description) {
        uint32_t length = static_cast<uint32_t>(std::strlen(record.description) + 1);
        w.U32(length);
        w.Bytes(record.description, length);
    } else {
        w.U32(0);
    }
    w.U32(record.flags);
    if (record.kind == kParamChoice) {
        w.U16(static_cast<uint16_t>(record.labels.size()));
        for (const ParamLabel& label : record.labels) w.Bytes(label.data(), label.size());
    }
}

bool ReadDescription(StateReader& r, uint32_t length, ParamRecord& record) {
    std::string text;
    while (text.size() < length) {
        size_t piece = std::min<size_t>(kReadPiece, length - text.size());
        size_t at = text.size();
        text.resize(at + piece);
        if (!r.Bytes(&text[at], piece)) return false;
    }
    auto* copy = static_cast<char*>(Services()->allocator->Allocate(length, 0));
    std::memcpy(copy, text.data(), length);
    copy[length - 1] = '\0';
    if (record.description) Services()->allocator->Free(record.description);
    record.description = copy;
    return true;
}

// After the "P1" tag.
bool ReadRecord(StateReader& r, ParamRecord& record) {
    uint8_t version;
    if (!r.U8(version)) return false;
    if (!r.Cell(record.value.bytes) || !r.Cell(&record.minimum) || !r.Cell(&record.maximum))
        return false;
    if (version < 4) {
        uint32_t discarded;
        if (!r.U32(discarded)) return false;
    }
    if (!r.U32(record.kind) || !r.U32(record.options) || !r.Bytes(record.name, 32))
        return false;
    record.name[31] = '\0';
    if (record.kind == kParamAction) std::memset(record.value.bytes, 0, sizeof record.value);
    if (version >= 5) {
        uint32_t length;
        if (!r.U32(length)) return false;
        if (length != 0 && !ReadDescription(r, length, record)) return false;
    }
    if (version >= 3 && !r.U32(record.flags)) return false;
    if (version >= 2 && record.kind == kParamChoice) {
        uint16_t raw;
        if (!r.U16(raw)) return false;
        int32_t count = static_cast<int16_t>(raw);
        // Label i is file position i + minimum: files only round-trip when the
        // minimum is 0, and the format keeps that.
        int64_t low = record.minimum.i;
        int64_t high = record.maximum.i;
        record.labels.assign(static_cast<size_t>(std::max(count, 0)), ParamLabel{});
        for (int32_t i = 0; i < count; ++i) {
            ParamLabel label{};
            if (!r.Bytes(label.data(), label.size())) return false;
            label[label.size() - 1] = '\0';
            int64_t slot = i - low;
            if (slot >= 0 && i <= high && slot < count) record.labels[static_cast<size_t>(slot)] = label;
        }
    }
    return true;
}

// Applies a record read from a file to a fixed list.
void ApplyToFixedList(ParameterList& list, const ParamRecord& scratch) {
    int32_t index = FindParameter(list, scratch.name);
    if (index < 0) return;  // parameters the device no longer has are ignored
    ParamRecord& declared = list.records[static_cast<size_t>(index)];
    if (declared.kind == kParamAction) return;
    if (declared.kind != kParamCustom && (declared.flags & kParamKeepOnLoad)) return;
    declared.value = scratch.value;
}

bool ReadParameterBlock(StateReader& r, ParameterList& list) {
    uint8_t first;
    if (!r.U8(first)) return false;
    char tag[4];
    if (first == 0xCE) {
        uint8_t rest;
        if (!r.U8(rest) || !r.Bytes(tag, 4)) return false;
    } else {
        // The older block has no marker: this byte begins its tag.
        tag[0] = static_cast<char>(first);
        if (!r.Bytes(tag + 1, 3)) return false;
    }
    if (std::memcmp(tag, "PAR2", 4) == 0) {
        uint8_t version;
        if (!r.U8(version)) return false;
    } else if (std::memcmp(tag, "PARM", 4) != 0) {
        return false;
    }
    if (list.dynamic) list.records.clear();
    int32_t count;
    if (!r.I32(count)) return false;
    // Room is made as records arrive: the count may be hostile.
    for (int32_t i = 0; i < count; ++i) {
        ParamRecord scratch;
        scratch.SetName("UNINIT-PARAM");
        if (!r.Tag("P1", 2) || !ReadRecord(r, scratch)) return false;
        if (list.dynamic)
            list.records.push_back(scratch);
        else
            ApplyToFixedList(list, scratch);
    }
    return true;
}

}  // namespace

void Device::SaveHeader(std::ostream& out, uint8_t version) {
    StateWriter w(out);
    w.Bytes(identity.tag, 4);
    w.U8(version);
}

bool Device::LoadHeader(std::istream& in, uint8_t& version) {
    StateReader r(in);
    return r.Tag(identity.tag, 4) && r.U8(version);
}

bool Device::SaveBaseState(std::ostream& out) {
    StateWriter w(out);
    w.Bytes("SPRK", 4);
    w.U8(kBaseVersion);
    w.Bytes(placement, 8);
    w.Bytes(name, 24);
    w.U8(static_cast<uint8_t>((enabled ? 1 : 0) | (bypassed ? 2 : 0)));
    w.U8(static_cast<uint8_t>(outputMode));
    w.U8(static_cast<uint8_t>(mode));
    w.F32(anchor[0]);
    w.F32(anchor[1]);
    w.U32(static_cast<uint32_t>(seed));
    w.U16(0xFFCE);  // bytes 0xCE 0xFF
    w.Bytes("PAR2", 4);
    w.U8(kParamBlockVersion);
    w.U32(static_cast<uint32_t>(params.records.size()));
    for (const ParamRecord& record : params.records) WriteRecord(w, record);
    return true;
}

bool Device::LoadBaseState(std::istream& in) {
    StateReader r(in);
    uint8_t version;
    if (!r.Tag("SPRK", 4) || !r.U8(version)) return false;
    if (!r.Bytes(placement, 8)) return false;
    mode = 0;
    anchor[0] = anchor[1] = 0.5f;
    if (version < 3) return true;
    if (!r.Bytes(name, 24)) return false;
    name[23] = '\0';
    if (version == 3) return true;
    if (version >= 5) {
        uint8_t flagBits;
        if (!r.U8(flagBits)) return false;
        enabled = flagBits & 1;
        if (version >= 7) bypassed = (flagBits >> 1) & 1;
        if (version >= 8) {
            uint8_t outputByte, modeByte;
            if (!r.U8(outputByte) || !r.U8(modeByte) || !r.Cell(&anchor[0]) ||
                !r.Cell(&anchor[1]))
                return false;
            outputMode = outputByte;
            mode = modeByte;
        }
        if (version >= 9) {
            int32_t saved;
            if (!r.I32(saved)) return false;
        }
        // The saved seed is read but never kept: each load draws a fresh one.
        seed = Services()->seeds->NextSeed();
    }
    return ReadParameterBlock(r, params);
}

}  // namespace Orogen
