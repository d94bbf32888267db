// The tests' own devices, written as device classes are: an identity line,
// ports, a parameter table and Build, row work through RunRows and
// MapSamples. The host tests register them like File Input.
#pragma once

#include <cstdint>
#include <istream>
#include <ostream>
#include <sstream>
#include <new>
#include <string>
#include <stdexcept>

#include "framework/DeviceOf.h"
#include "framework/PortableMath.h"

namespace basekit::testing {

// A device's saved state; empty when the save fails.
inline std::string SavedBytes(Device& device) {
    std::ostringstream out;
    return device.Save(out) ? out.str() : std::string();
}

inline bool LoadBytes(Device& device, const std::string& bytes) {
    std::istringstream in(bytes);
    return device.Load(in);
}

// Category 0, no ports or parameters; Build answers `buildAnswer`.
class PlainDevice : public DeviceOf<PlainDevice, Device> {
public:
    static constexpr DeviceInfo kInfo{"TEST", "Plain", "A device for tests", 1};
    int32_t GetCategory() override { return 0; }
    bool Build(const BuildContext&) override { return buildAnswer; }
    bool buildAnswer = true;
};

// Offset + 0.5 u + 0.5 v over the build grid (u, v in 0..1 by the context's
// steps), with a ripple when "Waves" is on.
class TestRamp : public DeviceOf<TestRamp, Generator> {
public:
    static constexpr DeviceInfo kInfo{"TRMP", "Test Ramp", "A ramp for the host tests", 1};
    TestRamp() {
        SetPortCount(this, 0, 1, kHeightField);
        static const ParamSpec table[] = {
            {"Offset", kParamReal, 0.0, 0.0, 1.0, 0, "Added to every sample"},
            {"Waves", kParamBoolean, 0, 0, 1, 0, "Adds a ripple"},
        };
        DeclareParameters(this, table);
    }
    bool Build(const BuildContext& context) override {
        const float offset = ParamFloat(this, "Offset");
        const bool waves = ParamBool(this, "Waves");
        PacketRef field = NewHeightField(context.grid);
        const int32_t width = context.grid.width;
        bool ok = ForEachRow(context, this, 0, context.grid.height - 1, [&](int32_t y) {
            float* row = field->samples + static_cast<int64_t>(y) * width;
            for (int32_t x = 0; x < width; ++x) {
                double v = offset + 0.5 * (x * context.sx) + 0.5 * (y * context.sy);
                if (waves) v += 0.1 * Sin(x * 0.37f + y * 0.11f);
                row[x] = static_cast<float>(v);
            }
        });
        if (!ok) return false;
        ClampHeights(field.get());
        StoreOutput(context, field, 0);
        return true;
    }
};

// Input 0 + Amount (twice in mode 1, nothing in mode 2), clamped. With
// "Report rows" it runs rows in order on the caller, reporting each (from 1)
// and stopping when told to.
class TestAdd : public DeviceOf<TestAdd, Filter> {
public:
    static constexpr DeviceInfo kInfo{"TADD", "Test Add", "Adds a constant for the host tests", 1};
    TestAdd() {
        SetPortCount(this, 1, 1, kHeightField);
        static const ParamSpec table[] = {
            {"Amount", kParamReal, 0.1, -1.0, 1.0, 0, "Added to the input"},
            {"Report rows", kParamBoolean, 0, 0, 1, 0, "Reports progress per row"},
            {"Mode", kParamChoice, 0, 0, 2, 0, "How to add", {"Add", "Add twice", "Keep"}},
            {"Tint", kParamInteger, 0, 0, 0xFFFFFF, 0, "A colour"},
        };
        DeclareParameters(this, table);
    }
    bool Build(const BuildContext& context) override {
        PacketRef field = TakePrepared(context, 0);
        if (!field) return false;
        const int32_t mode = ParamInt(this, "Mode");
        const float add = mode == 0 ? ParamFloat(this, "Amount")
                          : mode == 1 ? 2 * ParamFloat(this, "Amount")
                                      : 0.0f;
        auto plus = [add](float v) { return v + add; };
        if (ParamBool(this, "Report rows")) {
            const int32_t width = field->grid.width, height = field->grid.height;
            for (int32_t y = 0; y < height; ++y) {
                float* row = field->samples + static_cast<int64_t>(y) * width;
                for (int32_t x = 0; x < width; ++x) row[x] = plus(row[x]);
                if (!ReportRow(context, this, y + 1, height)) return false;
            }
        } else if (!MapSamples(context, this, *field, plus)) {
            return false;
        }
        ClampHeights(field.get());
        StoreOutput(context, field, 0);
        return true;
    }
};

// Fails as "How" says: 0 answers false, 1 throws a framework exception, 2 a
// standard one.
class TestFail : public DeviceOf<TestFail, Generator> {
public:
    static constexpr DeviceInfo kInfo{"TFAL", "Test Fail", "Never builds", 1};
    TestFail() {
        SetPortCount(this, 0, 1, kHeightField);
        static const ParamSpec table[] = {
            {"How", kParamChoice, 0, 0, 3, 0, "How to fail",
             {"False", "Framework", "Standard", "Memory"}},
        };
        DeclareParameters(this, table);
    }
    bool Build(const BuildContext&) override {
        const int32_t how = ParamInt(this, "How");
        if (how == 1) throw QXException("framework failure");
        if (how == 2) throw std::runtime_error("standard failure");
        if (how == 3) throw std::bad_alloc();
        return false;
    }
};

// A colour pattern: a ramp, a ripple and a stripe, one per channel.
class TestColors : public DeviceOf<TestColors, Generator> {
public:
    static constexpr DeviceInfo kInfo{"TCOL", "Test Colors", "A bitmap for the device tests", 1};
    TestColors() { SetPortCount(this, 0, 1, kBitmap); }
    bool Build(const BuildContext& context) override {
        PacketRef image = NewBitmap(context.grid);
        const int32_t w = context.grid.width;
        const float across = static_cast<float>(w > 1 ? w - 1 : 1);
        bool ok = ForEachRow(context, this, 0, context.grid.height - 1, [&](int32_t y) {
            float* p = image->samples + static_cast<int64_t>(y) * w * 3;
            for (int32_t x = 0; x < w; ++x, p += 3) {
                p[0] = static_cast<float>(x) / across;
                p[1] = 0.5f + 0.4f * Sin(x * 0.7f + y * 0.3f);
                p[2] = static_cast<float>((x * 7 + y * 13) % 10) / 9.0f;
            }
        });
        if (!ok) return false;
        StoreOutput(context, image, 0);
        return true;
    }
};

// The light's z times "Strength" with "Use light" on, else 1: "Strength"
// is greyed out with the light off. Saves a stamp of its own from
// version 2; a version-1 state gets stamp 7.
class TestShade : public DeviceOf<TestShade, Generator> {
public:
    static constexpr DeviceInfo kInfo{"TSHD", "Test Shade", "Lit by the host's light", 2};
    TestShade() {
        SetPortCount(this, 0, 1, kHeightField);
        static const ParamSpec table[] = {
            {"Use light", kParamBoolean, 1, 0, 1, 0, "Follows the light direction"},
            {"Strength", kParamReal, 0.5, 0.0, 1.0, 0, "Scales the light", {}, 0, {"Use light", 1}},
        };
        DeclareParameters(this, table);
    }
    bool OptionQuery3(uint32_t globals) override {
        return (globals & kGlobalLightDirection) && ParamBool(this, "Use light");
    }
    bool Build(const BuildContext& context) override {
        const float strength = ParamFloat(this, "Strength");
        const float value =
            ParamBool(this, "Use light") ? HostGlobals().lightDirection[2] * strength : 1.0f;
        PacketRef field = TakePrepared(context, 0);
        if (!field || !MapSamples(context, this, *field, [value](float) { return value; }))
            return false;
        StoreOutput(context, field, 0);
        return true;
    }
    bool SaveFields(std::ostream& out) {
        return static_cast<bool>(out.write(reinterpret_cast<const char*>(&stamp), sizeof stamp));
    }
    bool LoadFields(std::istream& in, uint8_t version) {
        uint32_t value = 0;
        if (version < 2) return true;
        if (!in.read(reinterpret_cast<char*>(&value), sizeof value)) return false;
        stamp = value;
        return true;
    }
    bool AfterLoad(uint8_t version) {
        if (version < 2) stamp = 7;
        return version <= 2;
    }
    uint32_t stamp = 0;
};

}  // namespace basekit::testing
