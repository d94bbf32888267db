// Shared pieces of the host tests: a temporary folder, a host with the module
// loaded, and small devices of the tests' own that the host registers like
// File Input, so that networks can be built whatever the module offers.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "framework/Device.h"
#include "framework/ThreadHelper.h"
#include "host/Host.h"
#include "host/HostPacket.h"
#include "host/Network.h"

#include "TempDir.h"

namespace basekit::host::testing {

namespace fs = std::filesystem;

using basekit::testing::TempDir;

inline std::string ReadBytes(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void WriteBytes(const fs::path& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// The samples of a packet as a vector, for exact comparisons.
inline std::vector<float> SamplesOf(const Orogen::PacketRef& packet) {
    if (!packet || !packet->samples) return {};
    uint64_t count = packet->PointCount() * FloatsPerPoint(packet->GetKind());
    if (packet->GetKind() == Orogen::kParameterPacket) count = 2;
    return std::vector<float>(packet->samples, packet->samples + count);
}

// Bitwise equality, so that NaN and -0 count as they are.
inline bool SameBits(const std::vector<float>& a, const std::vector<float>& b) {
    return a.size() == b.size() &&
           (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0);
}

// Test devices

// value = Offset + 0.5 * u + 0.5 * v over the build grid (u, v in 0..1 by the
// context's steps), computed in row bands on lent threads.
class TestRamp : public Orogen::Generator {
  public:
    TestRamp() {
        SetIdentity("TRMP", &Orogen::CreateDevice<TestRamp>);
        Orogen::SetPortCount(this, 0, 1, Orogen::kHeightField);
        static const Orogen::ParamSpec table[] = {
            {"Offset", Orogen::kParamReal, 0.0, 0.0, 1.0, 0, "Added to every sample"},
            {"Waves", Orogen::kParamBoolean, 0, 0, 1, 0, "Adds a ripple"},
        };
        Orogen::DeclareParameters(this, table);
    }
    const char* GetTypeName() override { return "Test Ramp"; }
    const char* GetDescription() override { return "A ramp for the host tests"; }
    bool Build(const Orogen::BuildContext& context) override {
        float offset = Orogen::ParamFloat(this, "Offset");
        bool waves = Orogen::ParamBool(this, "Waves");
        Orogen::PacketRef field = Orogen::NewHeightField(context.grid);
        Orogen::PacketVisitor visitor(field.get());
        int32_t width = context.grid.width;
        bool ok = visitor.Visit(context.progress, this, [&](int32_t first, int32_t last) {
            for (int32_t y = first; y <= last; ++y) {
                float* row = visitor.Row(0, y);
                for (int32_t x = 0; x < width; ++x) {
                    double v = offset + 0.5 * (x * context.sx) + 0.5 * (y * context.sy);
                    if (waves) v += 0.1 * std::sin(x * 0.37 + y * 0.11);
                    row[x] = static_cast<float>(v);
                }
            }
            return true;
        });
        if (!ok) return false;
        Orogen::ClampHeights(field.get());
        StoreOutput(context, field, 0);
        return true;
    }
    bool Save(std::ostream& out) override {
        return SaveState(out, 1);
    }
    bool Load(std::istream& in) override {
        uint8_t version;
        return LoadState(in, version);
    }
};

// Output = input 0 + Amount, clamped; rows spread over lent threads. With
// "Report rows" it reports every row and stops when told to.
class TestAdd : public Orogen::Filter {
  public:
    TestAdd() {
        SetIdentity("TADD", &Orogen::CreateDevice<TestAdd>);
        Orogen::SetPortCount(this, 1, 1, Orogen::kHeightField);
        static const Orogen::ParamSpec table[] = {
            {"Amount", Orogen::kParamReal, 0.1, -1.0, 1.0, 0, "Added to the input"},
            {"Report rows", Orogen::kParamBoolean, 0, 0, 1, 0, "Reports progress per row"},
            {"Mode", Orogen::kParamChoice, 0, 0, 2, 0, "How to add", {"Add", "Add twice", "Keep"}},
            {"Tint", Orogen::kParamInteger, 0, 0, 0xFFFFFF, 0, "A colour"},
        };
        Orogen::DeclareParameters(this, table);
    }
    const char* GetTypeName() override { return "Test Add"; }
    const char* GetDescription() override { return "Adds a constant for the host tests"; }
    bool Build(const Orogen::BuildContext& context) override {
        float amount = Orogen::ParamFloat(this, "Amount");
        bool reportRows = Orogen::ParamBool(this, "Report rows");
        int32_t mode = Orogen::ParamInt(this, "Mode");
        Orogen::PacketRef field = TakePrepared(context, 0);
        if (!field) return false;
        int32_t width = field->grid.width, height = field->grid.height;
        float add = mode == 0 ? amount : mode == 1 ? 2 * amount : 0.0f;
        if (reportRows) {
            for (int32_t y = 0; y < height; ++y) {
                for (int32_t x = 0; x < width; ++x) field->samples[y * width + x] += add;
                if (!context.progress->ReportRow(this, y + 1, height)) return false;
            }
        } else {
            bool threads = context.progress && context.progress->threadsAllowed;
            auto rows = [&](uint32_t y) {
                for (int32_t x = 0; x < width; ++x) field->samples[y * width + x] += add;
                return true;
            };
            Orogen::ThreadHelperWrapper<decltype(rows)> helper(static_cast<uint32_t>(height), rows,
                                                               threads);
            if (!helper.Run()) return false;
        }
        Orogen::ClampHeights(field.get());
        StoreOutput(context, field, 0);
        return true;
    }
    bool Save(std::ostream& out) override {
        return SaveState(out, 1);
    }
    bool Load(std::istream& in) override {
        uint8_t version;
        return LoadState(in, version);
    }
};

// Fails as told: "How" 0 answers false, 1 throws a framework exception, 2 a
// standard one.
class TestFail : public Orogen::Generator {
  public:
    TestFail() {
        SetIdentity("TFAL", &Orogen::CreateDevice<TestFail>);
        Orogen::SetPortCount(this, 0, 1, Orogen::kHeightField);
        static const Orogen::ParamSpec table[] = {
            {"How",
             Orogen::kParamChoice,
             0,
             0,
             2,
             0,
             "How to fail",
             {"False", "Framework", "Standard"}},
        };
        Orogen::DeclareParameters(this, table);
    }
    const char* GetTypeName() override { return "Test Fail"; }
    const char* GetDescription() override { return "Never builds"; }
    bool Build(const Orogen::BuildContext&) override {
        int32_t how = Orogen::ParamInt(this, "How");
        if (how == 1) throw Orogen::QXException("framework failure");
        if (how == 2) throw std::runtime_error("standard failure");
        return false;
    }
    bool Save(std::ostream& out) override {
        return SaveState(out, 1);
    }
    bool Load(std::istream& in) override {
        uint8_t version;
        return LoadState(in, version);
    }
};

// A host with the module loaded and the test devices registered.
class HostTest : public ::testing::Test {
  protected:
    void SetUp() override {
        host = std::make_unique<Host>();
        host->LoadModule(BASEKIT64_MODULE_PATH);
        host->RegisterHostType(&Orogen::CreateDevice<TestRamp>, 1, 4);
        host->RegisterHostType(&Orogen::CreateDevice<TestAdd>, 4, 4);
        host->RegisterHostType(&Orogen::CreateDevice<TestFail>, 1, 4);
    }
    void TearDown() override { host.reset(); }

    std::unique_ptr<Network> MakeNetwork(int32_t width = 17, int32_t height = 13) {
        auto network = std::make_unique<Network>(*host);
        network->world.width = width;
        network->world.height = height;
        return network;
    }

    std::unique_ptr<Host> host;
};

}  // namespace basekit::host::testing
