// The host's side of the services object that modules receive: memory,
// seeds, dialogs, worker threads and the network service. Each service
// records what it was asked, so that tests can check the module's use of it.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "framework/HostServices.h"
#include "framework/Packet.h"

namespace basekit::host {

// Heap memory that counts what is outstanding. A pointer it never handed out,
// or handed back already, is counted as a bad free and left alone.
class CountingAllocator final : public Orogen::HostAllocator {
  public:
    CountingAllocator() = default;
    ~CountingAllocator();
    CountingAllocator(const CountingAllocator&) = delete;
    CountingAllocator& operator=(const CountingAllocator&) = delete;

    void* Allocate(size_t size, uint32_t flags) override;
    void Free(void* pointer) override;

    uint64_t Outstanding() const;
    uint64_t OutstandingBytes() const;
    uint64_t TotalAllocations() const;
    uint64_t BadFrees() const;

  private:
    mutable std::mutex mutex;
    std::unordered_map<void*, size_t> live;
    uint64_t bytes = 0;
    uint64_t total = 0;
    uint64_t badFrees = 0;
};

// A reproducible sequence of non-negative seeds from a settable start.
class SeedSource final : public Orogen::SeedService {
  public:
    int32_t NextSeed() override;

    // Restarts the sequence at `start`.
    void SetStart(uint32_t start);
    uint32_t Start() const;
    // Seeds handed out since the last start.
    uint64_t Calls() const;
    // A seed of the start and `key` alone (a device's id), in 0..2^31-1: the
    // same for the same pair whatever was handed out before. Counts no call.
    int32_t SeedFor(std::string_view key) const;

    struct State {
        uint32_t start = 0;
        uint64_t calls = 0;
    };
    State Save() const;
    void Restore(const State& state);

  private:
    mutable std::mutex mutex;
    State state;
};

// Answers settings dialogs as scripted: 1 accepted, -1 cancelled, anything
// else closed. An answer may come with an edit, run as if the user made it.
class ScriptedDialogs final : public Orogen::DialogService {
  public:
    using Edit = std::function<void(Orogen::Device&)>;

    int32_t EditDevice(Orogen::Device* device) override;
    void ShowDeviceView(Orogen::Device* device, intptr_t a, intptr_t b) override;

    // Queues the answer to the next dialog; with none queued a dialog is closed (0).
    void Script(int32_t answer, Edit edit = {});
    size_t Pending() const { return script.size(); }

    struct ViewCall {
        Orogen::Device* device;
        intptr_t a;
        intptr_t b;
    };
    std::vector<Orogen::Device*> edited;
    // For each dialog, the parameters it showed greyed out by their enabling
    // rules, as they stood when it opened.
    std::vector<std::vector<std::string>> greyed;
    std::vector<ViewCall> views;

  private:
    struct Answer {
        int32_t answer;
        Edit edit;
    };
    std::deque<Answer> script;
};

// Real worker threads. Submit refuses work beyond the pool's size: it answers
// false when every worker is busy or holds queued work.
class WorkerThreadPool final : public Orogen::WorkerPool {
  public:
    WorkerThreadPool() = default;
    ~WorkerThreadPool();
    WorkerThreadPool(const WorkerThreadPool&) = delete;
    WorkerThreadPool& operator=(const WorkerThreadPool&) = delete;

    bool Submit(void (*entry)(void*), void* argument) override;

    // Waits for the work in hand, then keeps `size` threads (0: none), or as
    // many as the system lets it start; returns how many, and says why in
    // `why` when fewer.
    uint32_t Resize(uint32_t size, std::string* why = nullptr);
    uint32_t Size() const;
    // Blocks until no work is queued or running.
    void WaitIdle();
    // Runs body(i) once for every i in [0, count): on the caller and on the
    // workers that take it (none need to); returns when all have run. The
    // first exception a body throws is thrown here once all are done.
    void ParallelFor(size_t count, const std::function<void(size_t)>& body);

    uint64_t Accepted() const { return accepted.load(); }
    uint64_t Refused() const { return refused.load(); }
    // Most calls queued or running at once since the last Resize.
    uint32_t PeakBusy() const { return peakBusy.load(); }
    // Distinct threads that ran work since the last Resize.
    size_t ThreadsUsed() const;

  private:
    void Worker();
    void Stop();

    struct Task {
        void (*entry)(void*);
        void* argument;
    };
    mutable std::mutex mutex;
    std::condition_variable wake;
    std::condition_variable idle;
    std::deque<Task> queue;
    std::vector<std::thread> threads;
    std::set<std::thread::id> used;
    uint32_t size = 0;
    uint32_t busy = 0;  // queued plus running
    bool stopping = false;
    std::atomic<uint64_t> accepted{0};
    std::atomic<uint64_t> refused{0};
    std::atomic<uint32_t> peakBusy{0};
};

// Packets, the swap folder, global settings, the log and device notifications.
class HostNetworkService final : public Orogen::NetworkService {
  public:
    Orogen::PacketRef& CreatePacket(Orogen::PacketRef& out, uint32_t kind) override;
    const char* GetSwapDirectory() override { return swapText.c_str(); }
    void GetGlobalSettings(Orogen::GlobalSettings& out) override;
    void LogMessage(const char* text) override;
    // Hands the view to the writer set, if any; false without one.
    bool WriteView(Orogen::Device* device, const Orogen::PacketRef& view) override;
    void DeviceDestroyed(Orogen::Device* device) override;
    void DeviceChanged(Orogen::Device* device) override;

    // The folder must exist; a separator is appended where it lacks one.
    void SetSwapDirectory(const std::filesystem::path& folder);
    const std::filesystem::path& SwapDirectory() const { return swapFolder; }
    void SetGlobals(const Orogen::GlobalSettings& settings);
    Orogen::GlobalSettings Globals() const;

    // Who writes output devices' views (null: no views are written). Called
    // on the host's thread with the device and its view.
    using ViewWriter = std::function<bool(Orogen::Device*, const Orogen::PacketRef&)>;
    void SetViewWriter(ViewWriter writer);

    std::vector<std::string> LogLines() const;
    void ClearLog();
    // Devices whose destruction was announced, in order.
    std::vector<const Orogen::Device*> Destroyed() const;
    std::vector<const Orogen::Device*> Changed() const;
    void ClearNotifications();

  private:
    mutable std::mutex mutex;
    std::filesystem::path swapFolder;
    std::string swapText;
    Orogen::GlobalSettings globals;
    std::vector<std::string> log;
    ViewWriter viewWriter;
    std::vector<const Orogen::Device*> destroyed;
    std::vector<const Orogen::Device*> changed;
};

}  // namespace basekit::host
