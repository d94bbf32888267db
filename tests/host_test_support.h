// Shared pieces of the host tests: a temporary folder, and a host with the
// module loaded and the tests' own devices registered like File Input, so
// that networks can be built whatever the module offers.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "framework/Device.h"
#include "host/Host.h"
#include "host/HostPacket.h"
#include "host/Network.h"

#include "TempDir.h"
#include "TestDevices.h"

namespace basekit::host::testing {

namespace fs = std::filesystem;

using basekit::testing::ReadBytes;
using basekit::testing::TempDir;
using basekit::testing::WriteBytes;

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

// Every output of every device of a built network, keyed "id#slot".
inline std::map<std::string, std::vector<float>> AllOutputs(const Network& network) {
    std::map<std::string, std::vector<float>> outputs;
    for (const std::string& id : network.Ids())
        for (uint32_t k = 0; k < network.Get(id).outputs.size(); ++k)
            outputs[id + "#" + std::to_string(k)] = SamplesOf(network.Output(id, k));
    return outputs;
}

// Two such maps hold the same outputs, bit for bit, none of them empty.
inline void ExpectSameOutputs(const std::map<std::string, std::vector<float>>& expected,
                              const std::map<std::string, std::vector<float>>& actual) {
    EXPECT_EQ(actual.size(), expected.size());
    for (const auto& [key, samples] : expected) {
        const auto found = actual.find(key);
        EXPECT_FALSE(samples.empty()) << key;
        EXPECT_TRUE(found != actual.end() && SameBits(samples, found->second)) << key;
    }
}

using basekit::testing::TestAdd;
using basekit::testing::TestColors;
using basekit::testing::TestFail;
using basekit::testing::TestRamp;

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

    // Builds alone and with 1, 2 and 7 workers; every output of `id` must keep
    // its bits. Returns them.
    std::vector<std::vector<float>> BuildEveryWay(Network& network, const std::string& id) {
        std::vector<std::vector<float>> first;
        for (uint32_t workers : {0u, 1u, 2u, 7u}) {
            BuildOptions options;
            options.workers = workers;
            const BuildReport report = network.Build(options);
            EXPECT_EQ(report.Find(id)->status, BuildStatus::Built) << report.Find(id)->message;
            std::vector<std::vector<float>> outputs;
            for (uint32_t k = 0; k < network.Get(id).outputs.size(); ++k)
                outputs.push_back(SamplesOf(network.Output(id, k)));
            if (first.empty()) first = outputs;
            EXPECT_EQ(outputs.size(), first.size());
            for (size_t k = 0; k < outputs.size(); ++k)
                EXPECT_TRUE(SameBits(outputs[k], first[k])) << id << "#" << k << " " << workers;
        }
        return first;
    }

    std::unique_ptr<Host> host;
};

}  // namespace basekit::host::testing
