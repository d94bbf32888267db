#include "host/Services.h"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <new>
#include <string>
#include <system_error>

#include "framework/Device.h"
#include "host/HostPacket.h"

namespace basekit::host {

// CountingAllocator

CountingAllocator::~CountingAllocator() {
    // What a module never gave back is released here, still counted as a leak.
    for (auto& [pointer, size] : live) std::free(pointer);
}

void* CountingAllocator::Allocate(size_t size, uint32_t /*flags*/) {
    void* pointer = std::malloc(size > 0 ? size : 1);
    if (!pointer) throw std::bad_alloc();
    std::lock_guard<std::mutex> guard(mutex);
    live.emplace(pointer, size);
    bytes += size;
    ++total;
    return pointer;
}

void CountingAllocator::Free(void* pointer) {
    if (!pointer) return;
    {
        std::lock_guard<std::mutex> guard(mutex);
        auto found = live.find(pointer);
        if (found == live.end()) {
            ++badFrees;
            return;
        }
        bytes -= found->second;
        live.erase(found);
    }
    std::free(pointer);
}

uint64_t CountingAllocator::Outstanding() const {
    std::lock_guard<std::mutex> guard(mutex);
    return live.size();
}

uint64_t CountingAllocator::OutstandingBytes() const {
    std::lock_guard<std::mutex> guard(mutex);
    return bytes;
}

uint64_t CountingAllocator::TotalAllocations() const {
    std::lock_guard<std::mutex> guard(mutex);
    return total;
}

uint64_t CountingAllocator::BadFrees() const {
    std::lock_guard<std::mutex> guard(mutex);
    return badFrees;
}

// SeedSource

namespace {

// SplitMix64's finaliser: neighbouring inputs give unrelated seeds.
int32_t MixSeed(uint64_t z) {
    z += 0x9E3779B97F4A7C15ull;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    z ^= z >> 31;
    return static_cast<int32_t>(z & 0x7FFFFFFFu);
}

}  // namespace

int32_t SeedSource::NextSeed() {
    std::lock_guard<std::mutex> guard(mutex);
    return MixSeed(static_cast<uint64_t>(state.start) << 32 | state.calls++);
}

int32_t SeedSource::SeedFor(std::string_view key) const {
    // FNV-1a of the key, mixed twice with the start so that the key's hash
    // and the start cannot cancel.
    uint64_t hash = 0xCBF29CE484222325ull;
    for (char c : key) hash = (hash ^ static_cast<uint8_t>(c)) * 0x100000001B3ull;
    std::lock_guard<std::mutex> guard(mutex);
    return MixSeed(hash ^ static_cast<uint64_t>(MixSeed(state.start)) << 31);
}

void SeedSource::SetStart(uint32_t start) {
    std::lock_guard<std::mutex> guard(mutex);
    state = State{start, 0};
}

uint32_t SeedSource::Start() const {
    std::lock_guard<std::mutex> guard(mutex);
    return state.start;
}

uint64_t SeedSource::Calls() const {
    std::lock_guard<std::mutex> guard(mutex);
    return state.calls;
}

SeedSource::State SeedSource::Save() const {
    std::lock_guard<std::mutex> guard(mutex);
    return state;
}

void SeedSource::Restore(const State& saved) {
    std::lock_guard<std::mutex> guard(mutex);
    state = saved;
}

// ScriptedDialogs

int32_t ScriptedDialogs::EditDevice(Orogen::Device* device) {
    edited.push_back(device);
    std::vector<std::string> off;
    if (device)
        for (const Orogen::ParamRecord& record : device->params.records)
            if (!Orogen::ParameterEnabled(device, record.name)) off.push_back(record.name);
    greyed.push_back(std::move(off));
    if (script.empty()) return 0;
    Answer next = std::move(script.front());
    script.pop_front();
    if (next.edit && device) next.edit(*device);
    return next.answer;
}

void ScriptedDialogs::ShowDeviceView(Orogen::Device* device, intptr_t a, intptr_t b) {
    views.push_back({device, a, b});
}

void ScriptedDialogs::Script(int32_t answer, Edit edit) {
    script.push_back({answer, std::move(edit)});
}

// WorkerThreadPool

WorkerThreadPool::~WorkerThreadPool() {
    Stop();
}

bool WorkerThreadPool::Submit(void (*entry)(void*), void* argument) {
    {
        std::lock_guard<std::mutex> guard(mutex);
        if (!entry || stopping || busy >= size) {
            refused.fetch_add(1);
            return false;
        }
        queue.push_back({entry, argument});
        ++busy;
        if (busy > peakBusy.load()) peakBusy.store(busy);
    }
    accepted.fetch_add(1);
    wake.notify_one();
    return true;
}

void WorkerThreadPool::ParallelFor(size_t count, const std::function<void(size_t)>& body) {
    struct Shared {
        Shared(const std::function<void(size_t)>& body, size_t count) : body(body), count(count) {}
        const std::function<void(size_t)>& body;
        size_t count;
        std::atomic<size_t> next{0};
        std::mutex mutex;
        std::condition_variable done;
        size_t helpers = 0;
        std::exception_ptr error;

        void Run() {
            for (size_t i; (i = next.fetch_add(1)) < count;) {
                try {
                    body(i);
                } catch (...) {
                    std::lock_guard<std::mutex> guard(mutex);
                    if (!error) error = std::current_exception();
                }
            }
        }
        static void Help(void* argument) {
            auto* shared = static_cast<Shared*>(argument);
            shared->Run();
            std::lock_guard<std::mutex> guard(shared->mutex);
            if (--shared->helpers == 0) shared->done.notify_all();
        }
    } shared(body, count);
    // Helpers that start after the work is gone return at once.
    for (size_t i = 1; i < count; ++i) {
        {
            std::lock_guard<std::mutex> guard(shared.mutex);
            ++shared.helpers;
        }
        if (Submit(&Shared::Help, &shared)) continue;
        std::lock_guard<std::mutex> guard(shared.mutex);
        --shared.helpers;
        break;
    }
    shared.Run();
    std::unique_lock<std::mutex> lock(shared.mutex);
    shared.done.wait(lock, [&] { return shared.helpers == 0; });
    if (shared.error) std::rethrow_exception(shared.error);
}

void WorkerThreadPool::Worker() {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        wake.wait(lock, [this] { return stopping || !queue.empty(); });
        if (queue.empty()) return;  // stopping, and nothing left to run
        Task task = queue.front();
        queue.pop_front();
        used.insert(std::this_thread::get_id());
        lock.unlock();
        task.entry(task.argument);
        lock.lock();
        if (--busy == 0) idle.notify_all();
    }
}

void WorkerThreadPool::WaitIdle() {
    std::unique_lock<std::mutex> lock(mutex);
    idle.wait(lock, [this] { return busy == 0; });
}

void WorkerThreadPool::Stop() {
    WaitIdle();
    {
        std::lock_guard<std::mutex> guard(mutex);
        stopping = true;
    }
    wake.notify_all();
    for (std::thread& thread : threads) thread.join();
    threads.clear();
    std::lock_guard<std::mutex> guard(mutex);
    stopping = false;
    size = 0;
}

uint32_t WorkerThreadPool::Resize(uint32_t wanted, std::string* why) {
    Stop();
    {
        std::lock_guard<std::mutex> guard(mutex);
        used.clear();
        peakBusy.store(0);
    }
    threads.reserve(wanted);
    uint32_t made = 0;
    try {
        for (; made < wanted; ++made) threads.emplace_back([this] { Worker(); });
    } catch (const std::system_error& e) {
        // Out of threads ("Resource temporarily unavailable"): build with fewer.
        if (why) *why = e.what();
    }
    std::lock_guard<std::mutex> guard(mutex);
    size = made;
    return made;
}

uint32_t WorkerThreadPool::Size() const {
    std::lock_guard<std::mutex> guard(mutex);
    return size;
}

size_t WorkerThreadPool::ThreadsUsed() const {
    std::lock_guard<std::mutex> guard(mutex);
    return used.size();
}

// HostNetworkService

Orogen::PacketRef& HostNetworkService::CreatePacket(Orogen::PacketRef& out, uint32_t kind) {
    out = HostPacket::Create(kind);
    return out;
}

void HostNetworkService::GetGlobalSettings(Orogen::GlobalSettings& out) {
    std::lock_guard<std::mutex> guard(mutex);
    out = globals;
}

void HostNetworkService::LogMessage(const char* text) {
    std::lock_guard<std::mutex> guard(mutex);
    log.emplace_back(text ? text : "");
}

bool HostNetworkService::WriteView(Orogen::Device* device, const Orogen::PacketRef& view) {
    ViewWriter writer;
    {
        std::lock_guard<std::mutex> guard(mutex);
        writer = viewWriter;
    }
    return writer && view && writer(device, view);
}

void HostNetworkService::SetViewWriter(ViewWriter writer) {
    std::lock_guard<std::mutex> guard(mutex);
    viewWriter = std::move(writer);
}

void HostNetworkService::DeviceDestroyed(Orogen::Device* device) {
    std::lock_guard<std::mutex> guard(mutex);
    destroyed.push_back(device);
}

void HostNetworkService::DeviceChanged(Orogen::Device* device) {
    std::lock_guard<std::mutex> guard(mutex);
    changed.push_back(device);
}

void HostNetworkService::SetSwapDirectory(const std::filesystem::path& folder) {
    std::string text = folder.string();
    if (!text.empty() && text.back() != '/' && text.back() != '\\')
        text += static_cast<char>(std::filesystem::path::preferred_separator);
    std::lock_guard<std::mutex> guard(mutex);
    swapFolder = folder;
    swapText = text;
}

void HostNetworkService::SetGlobals(const Orogen::GlobalSettings& settings) {
    std::lock_guard<std::mutex> guard(mutex);
    globals = settings;
}

Orogen::GlobalSettings HostNetworkService::Globals() const {
    std::lock_guard<std::mutex> guard(mutex);
    return globals;
}

std::vector<std::string> HostNetworkService::LogLines() const {
    std::lock_guard<std::mutex> guard(mutex);
    return log;
}

void HostNetworkService::ClearLog() {
    std::lock_guard<std::mutex> guard(mutex);
    log.clear();
}

std::vector<const Orogen::Device*> HostNetworkService::Destroyed() const {
    std::lock_guard<std::mutex> guard(mutex);
    return destroyed;
}

std::vector<const Orogen::Device*> HostNetworkService::Changed() const {
    std::lock_guard<std::mutex> guard(mutex);
    return changed;
}

void HostNetworkService::ClearNotifications() {
    std::lock_guard<std::mutex> guard(mutex);
    destroyed.clear();
    changed.clear();
}

}  // namespace basekit::host
