// A device's editable settings: named records with a value, a range, a kind,
// option bits, choice labels and a description from the host allocator.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Orogen {

class Device;

enum ParamKind : uint32_t {
    kParamInteger = 0,
    kParamReal = 1,
    kParamBoolean = 2,
    kParamAction = 3,  // never restored from a file
    kParamChoice = 4,  // labelled integers minimum..maximum
    kParamCustom = 5,  // restored through its own copy
};

// `flags` bits.
constexpr uint32_t kParamKeepOnLoad = 2;       // not taken from a file into a fixed list
constexpr uint32_t kParamAbsolutePacket = 4;  // a packet gives a clamped absolute value
// `options` bit 0: a packet drives the value through the exponential curve.
constexpr uint32_t kParamExponential = 1;

// Float, integer or (for actions) callback, by `kind`, in the first bytes.
union ParamValue {
    float f;
    int32_t i;
    void* p;
    unsigned char bytes[8];
};
static_assert(sizeof(ParamValue) == 8);

union ParamBound {
    float f;
    int32_t i;
};

using ParamLabel = std::array<char, 32>;

struct ParamRecord {
    ParamRecord();
    ParamRecord(const ParamRecord& other);
    ParamRecord(ParamRecord&& other) noexcept;
    ParamRecord& operator=(ParamRecord other) noexcept;
    ~ParamRecord();

    void SetName(const char* text);
    // Replaces the description with a copy from the host allocator (null clears).
    void SetDescription(const char* text);
    void AddLabel(const char* text);

    bool IsFloat() const { return kind == kParamReal; }

    ParamValue value;
    ParamBound minimum;
    ParamBound maximum;
    uint32_t kind = kParamInteger;
    uint32_t options = 0;
    char name[32] = {};
    uint32_t flags = 0;
    std::vector<ParamLabel> labels;
    char* description = nullptr;
};

struct ParameterList {
    explicit ParameterList(Device* device) : device(device) {}

    uint8_t dynamic = 0;
    Device* device;
    std::vector<ParamRecord> records;
    std::vector<int32_t> sideA;
    std::vector<int32_t> sideB;
};

// Appends `record` (taken over, the caller's is emptied), gives it a parameter
// input port and tells the owner. Non-zero `flags` replace the record's.
void AddParameter(Device* device, ParamRecord& record, uint32_t flags);

// Index of the first record named exactly `name`, or -1.
int32_t FindParameter(const ParameterList& list, const char* name);

// The value cell of the named parameter, after folding in a packet on its
// parameter port. Throws ParameterException for an unknown name.
ParamValue* GetParameter(Device* device, const char* name);

// Maps a parameter packet's value `x` into the record's range as a connected
// port does; returns the new value (not yet stored).
float FoldPacketValue(const ParamRecord& record, float x);

// A parameter that is active only while another one, its controller, holds
// a value; the host's settings dialog greys it out otherwise. Every rule of a
// parameter must hold.
struct EnablingRule {
    const char* parameter;
    const char* controller;
    int32_t value;
};

// The controller and value of a parameter table row's rule; none by default.
struct EnabledWhen {
    const char* controller = nullptr;
    int32_t value = 0;
};

// Whether `name` is active: its rules hold for the values the device holds
// now. A name without rules is always active.
bool ParameterEnabled(const Device* device, const char* name);

// One row of a device's parameter table.
struct ParamSpec {
    const char* name;
    uint32_t kind;
    double value;
    double minimum;
    double maximum;
    uint32_t options;
    const char* description;
    std::vector<const char*> labels = {};
    uint32_t flags = 0;
    EnabledWhen enabledWhen = {};
};

// Declares the parameters of a table in order, descriptions and enabling
// rules included.
void DeclareParameters(Device* device, const ParamSpec* table, size_t count);
template <size_t N>
void DeclareParameters(Device* device, const ParamSpec (&table)[N]) {
    DeclareParameters(device, table, N);
}

// Typed reads for builds.
float ParamFloat(Device* device, const char* name);
int32_t ParamInt(Device* device, const char* name);
bool ParamBool(Device* device, const char* name);

// Colours are integer parameters holding 0xRRGGBB. Their range is exactly
// 0..kColourMaximum, which is how a host tells one from a plain integer.
constexpr int32_t kColourMaximum = 0xFFFFFF;
bool IsColourParameter(const ParamRecord& record);

// Red, green and blue of a colour parameter, each channel / 255.
void ParamColour(Device* device, const char* name, float rgb[3]);

}  // namespace Orogen
