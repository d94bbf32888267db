// Framework tests run on the reference host's services (memory, seeds,
// dialogs, worker threads, packets with paging); devices' owner and a build's
// progress are a recorder of what devices tell them.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "framework/Device.h"
#include "host/Host.h"
#include "host/HostPacket.h"

namespace basekit::testing {

using namespace Orogen;

class Recorder : public DeviceOwner, public BuildProgress {
public:
    void ConnectionChanged(Device* device, uint32_t where, uint32_t index,
                           uint32_t state) override {
        connections.emplace_back(device, where, index, state);
    }
    bool QueryLink(Port*, Port*) override {
        ++linkQueries;
        return true;
    }
    void DeviceEdited(Device* device) override { edited.push_back(device); }
    BuildResultSet* GetResultSet(Device*) override { return results; }
    void PortsChanged(Device* device) override { portsChanged.push_back(device); }
    uint32_t DataTypeSize(uint32_t type) override { return type * 100; }

    // Progress: the report numbered `cancelAt` (from 1, items and rows
    // together) answers false.
    bool ReportItems(void*, uint32_t done, uint32_t total) override {
        std::lock_guard<std::mutex> guard(mutex);
        items.emplace_back(done, total);
        return ++reports != cancelAt;
    }
    void ReportPercent(Device*, int32_t percent) override {
        std::lock_guard<std::mutex> guard(mutex);
        percents.push_back(percent);
    }
    bool ReportRow(Device*, int32_t row, int32_t total) override {
        std::lock_guard<std::mutex> guard(mutex);
        rows.emplace_back(row, total);
        return ++reports != cancelAt;
    }

    BuildResultSet* results = nullptr;
    int linkQueries = 0;
    uint32_t cancelAt = 0;
    uint32_t reports = 0;
    std::vector<Device*> edited, portsChanged;
    std::vector<std::tuple<Device*, uint32_t, uint32_t, uint32_t>> connections;
    std::mutex mutex;
    std::vector<std::pair<uint32_t, uint32_t>> items;
    std::vector<std::pair<int32_t, int32_t>> rows;
    std::vector<int32_t> percents;
};

// What `f` throws as an exception of type E; "no exception" when it returns.
template <class E = QXException>
std::string ThrownMessage(const std::function<void()>& f) {
    try {
        f();
    } catch (const E& e) {
        return e.what();
    }
    return "no exception";
}

// A reference host whose services are the framework's for one test, and a
// recorder as owner and progress.
class FrameworkTest : public ::testing::Test {
protected:
    BuildContext Context(const Grid& grid, BuildResultSet* results) {
        return MakeBuildContext(grid, results, &recorder);
    }
    // Host allocations and packets made since the test began.
    int64_t Outstanding() {
        return static_cast<int64_t>(host.Allocator().Outstanding()) - allocationsBefore;
    }
    int64_t LivePackets() {
        return static_cast<int64_t>(basekit::host::HostPacket::Live()) - packetsBefore;
    }
    std::string SwapFolder() { return host.Network().GetSwapDirectory(); }

    basekit::host::Host host;
    Recorder recorder;
    int64_t allocationsBefore = static_cast<int64_t>(host.Allocator().Outstanding());
    int64_t packetsBefore = static_cast<int64_t>(basekit::host::HostPacket::Live());
};

}  // namespace basekit::testing
