// A small in-process host for framework tests: counting allocator, scripted
// dialogs, a worker pool of real threads with a fixed capacity, packets, and
// an owner that records what devices tell it.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <istream>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "framework/Device.h"

namespace lean {

using namespace Orogen;

class Packet final : public QXPacket {
public:
    explicit Packet(uint32_t kind, std::atomic<int>* live) : kind(kind), live(live) {
        lock = &section;
        if (live) ++*live;
    }

    PacketRef& Duplicate(PacketRef& out) override {
        auto* copy = new Packet(kind, live);
        copy->AllocateSamples(grid);
        uint64_t n = PointCount() * Channels();
        if (n) std::memcpy(copy->samples, samples, n * sizeof(float));
        copy->maskFlag = maskFlag;
        out = PacketRef(copy);
        return out;
    }
    bool ReadFromStream(std::istream& in) override {
        uint64_t n = PointCount() * Channels();
        delete[] samples;
        samples = new float[n];
        in.read(reinterpret_cast<char*>(samples), static_cast<std::streamsize>(n * sizeof(float)));
        return static_cast<uint64_t>(in.gcount()) == n * sizeof(float);
    }
    void ReleasePacket() override { delete this; }
    void DiscardContents() override {
        delete[] samples;
        samples = nullptr;
    }
    bool AllowPagedOut(bool wanted) override { return wanted && allowStayOut; }
    void AllocateSamples(const Grid& size) override {
        grid = size;
        delete[] samples;
        uint64_t n = PointCount() * Channels();
        samples = n ? new float[n]() : nullptr;
    }
    uint32_t GetKind() const override { return kind; }

    bool allowStayOut = false;

private:
    ~Packet() {
        delete[] samples;
        if (live) --*live;
    }
    uint32_t kind;
    std::atomic<int>* live;
    CriticalSection section;
};

// A pool of `capacity` threads; Submit refuses once that many jobs are queued
// or running.
class Pool : public WorkerPool {
public:
    explicit Pool(int capacity) : capacity(capacity) {
        for (int i = 0; i < capacity; ++i) threads.emplace_back([this] { Loop(); });
    }
    ~Pool() {
        {
            std::lock_guard<std::mutex> guard(mutex);
            stopping = true;
        }
        wake.notify_all();
        for (auto& t : threads) t.join();
    }
    bool Submit(void (*entry)(void*), void* argument) override {
        std::lock_guard<std::mutex> guard(mutex);
        ++asked;
        if (busy + static_cast<int>(jobs.size()) >= capacity) return false;
        jobs.emplace_back(entry, argument);
        ++granted;
        wake.notify_one();
        return true;
    }
    std::atomic<int> asked{0};
    std::atomic<int> granted{0};

private:
    void Loop() {
        for (;;) {
            std::pair<void (*)(void*), void*> job;
            {
                std::unique_lock<std::mutex> lock(mutex);
                wake.wait(lock, [this] { return stopping || !jobs.empty(); });
                if (jobs.empty()) return;
                job = jobs.front();
                jobs.pop_front();
                ++busy;
            }
            job.first(job.second);
            std::lock_guard<std::mutex> guard(mutex);
            --busy;
        }
    }
    int capacity;
    int busy = 0;
    bool stopping = false;
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<std::pair<void (*)(void*), void*>> jobs;
    std::vector<std::thread> threads;
};

class Host : public NetworkService,
             public HostAllocator,
             public SeedService,
             public DialogService,
             public DeviceOwner,
             public BuildProgress {
public:
    explicit Host(int workers = 0) : pool(workers) {
        services = {this, this, this, this, &pool};
    }

    // NetworkService
    PacketRef& CreatePacket(PacketRef& out, uint32_t kind) override {
        out = PacketRef(new Packet(kind, &livePackets));
        return out;
    }
    const char* GetSwapDirectory() override { return swapDirectory.c_str(); }
    void GetGlobalSettings(GlobalSettings& out) override { out = globals; }
    void LogMessage(const char* text) override { log.push_back(text); }
    void DeviceDestroyed(Device* device) override { destroyed.push_back(device); }
    void DeviceChanged(Device* device) override { changed.push_back(device); }

    // HostAllocator
    void* Allocate(size_t size, uint32_t) override {
        ++outstanding;
        return std::malloc(size ? size : 1);
    }
    void Free(void* pointer) override {
        --outstanding;
        std::free(pointer);
    }

    // SeedService
    int32_t NextSeed() override {
        ++seedCalls;
        return nextSeed++;
    }

    // DialogService
    int32_t EditDevice(Device*) override { return dialogAnswer; }
    void ShowDeviceView(Device*, intptr_t, intptr_t) override {}

    // DeviceOwner
    void ConnectionChanged(Device* device, uint32_t where, uint32_t index,
                           uint32_t state) override {
        connections.emplace_back(device, where, index, state);
    }
    bool QueryLink(Port*, Port*) override {
        ++linkQueries;
        return true;
    }
    void DeviceEdited(Device* device) override { edited.push_back(device); }
    BuildResultSet* GetResultSet(Device*) override { return currentResults; }
    void PortsChanged(Device* device) override { portsChanged.push_back(device); }
    uint32_t DataTypeSize(uint32_t type) override { return type * 100; }

    // BuildProgress
    bool ReportItems(void*, uint32_t done, uint32_t total) override {
        std::lock_guard<std::mutex> guard(progressMutex);
        reports.emplace_back(done, total);
        return cancelAfter == 0 || done < cancelAfter;
    }
    void ReportPercent(Device*, int32_t) override {}
    bool ReportRow(Device*, int32_t, int32_t) override { return true; }

    HostServices services;
    Pool pool;
    std::atomic<int> livePackets{0};
    int outstanding = 0;
    int32_t nextSeed = 1000;
    int seedCalls = 0;
    int32_t dialogAnswer = 1;
    int linkQueries = 0;
    uint32_t cancelAfter = 0;
    std::string swapDirectory = "./";
    GlobalSettings globals;
    BuildResultSet* currentResults = nullptr;
    std::vector<std::string> log;
    std::vector<Device*> destroyed, changed, edited, portsChanged;
    std::vector<std::tuple<Device*, uint32_t, uint32_t, uint32_t>> connections;
    std::mutex progressMutex;
    std::vector<std::pair<uint32_t, uint32_t>> reports;
};

// Installs a host's services as the framework's for one test.
class Installed {
public:
    explicit Installed(Host& host) : previous(Services()) { SetServices(&host.services); }
    ~Installed() { SetServices(previous); }

private:
    HostServices* previous;
};

}  // namespace lean
