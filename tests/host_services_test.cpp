// The services handed to modules: memory, seeds, dialogs, workers and the
// network service, exercised directly and through module devices.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>
#include <tuple>

#include "host_test_support.h"

namespace basekit::host::testing {
namespace {

using HostServicesTest = HostTest;

TEST(HostServices, AllocatorCountsWhatIsOutstanding) {
    struct Step {
        enum { Allocate, Free, FreeForeign, FreeAgain } action;
        size_t size;  // Allocate: bytes; Free: which allocation
        uint64_t outstanding, bytes, badFrees;
    };
    const Step steps[] = {
        {Step::Allocate, 10, 1, 10, 0},   {Step::Allocate, 0, 2, 10, 0},
        {Step::Allocate, 100, 3, 110, 0}, {Step::Free, 0, 2, 100, 0},
        {Step::FreeAgain, 0, 2, 100, 1},  {Step::FreeForeign, 0, 2, 100, 2},
        {Step::Free, 2, 1, 0, 2},         {Step::Free, 1, 0, 0, 2},
    };
    CountingAllocator allocator;
    std::vector<void*> pointers;
    int foreign = 0;
    for (const Step& step : steps) {
        switch (step.action) {
            case Step::Allocate:
                pointers.push_back(allocator.Allocate(step.size, 0));
                ASSERT_NE(pointers.back(), nullptr);
                std::memset(pointers.back(), 0xAB, step.size);
                break;
            case Step::Free:
            case Step::FreeAgain:
                allocator.Free(pointers[step.size]);
                break;
            case Step::FreeForeign:
                allocator.Free(&foreign);
                break;
        }
        EXPECT_EQ(allocator.Outstanding(), step.outstanding);
        EXPECT_EQ(allocator.OutstandingBytes(), step.bytes);
        EXPECT_EQ(allocator.BadFrees(), step.badFrees);
    }
    allocator.Free(nullptr);
    EXPECT_EQ(allocator.BadFrees(), 2u);
    EXPECT_EQ(allocator.TotalAllocations(), 3u);
}

TEST(HostServices, SeedsAreReproducibleFromTheirStart) {
    SeedSource seeds;
    auto draw = [&](uint32_t start) {
        seeds.SetStart(start);
        std::vector<int32_t> values;
        for (int i = 0; i < 50; ++i) values.push_back(seeds.NextSeed());
        return values;
    };
    std::vector<int32_t> a = draw(7), b = draw(7), c = draw(8);
    EXPECT_EQ(a, b);
    EXPECT_NE(a, c);
    EXPECT_EQ(std::set<int32_t>(a.begin(), a.end()).size(), a.size());
    for (int32_t v : a) EXPECT_GE(v, 0);

    seeds.SetStart(7);
    seeds.NextSeed();
    SeedSource::State saved = seeds.Save();
    int32_t next = seeds.NextSeed();
    seeds.NextSeed();
    seeds.Restore(saved);
    EXPECT_EQ(seeds.NextSeed(), next);
    EXPECT_EQ(seeds.Calls(), 2u);
}

TEST_F(HostServicesTest, DialogAnswersDecideBetweenCommitAndRollback) {
    struct Case {
        int32_t answer;
        bool result;
        float heightAfter;
        size_t edited;   // owner notifications
        size_t changed;  // network service notifications
    };
    const Case cases[] = {{1, true, 0.5f, 1, 0}, {-1, false, 0.25f, 0, 1}, {0, false, 0.5f, 0, 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.answer);
        auto network = MakeNetwork();
        Orogen::Device& device = network->AddDevice("c", "Constant");
        Orogen::GetParameter(&device, "Height")->f = 0.25f;
        network->ClearEvents();
        host->Network().ClearNotifications();
        host->Dialogs().Script(
            c.answer, [](Orogen::Device& d) { Orogen::GetParameter(&d, "Height")->f = 0.5f; });
        EXPECT_EQ(network->EditSettings("c"), c.result);
        EXPECT_EQ(Orogen::GetParameter(&device, "Height")->f, c.heightAfter);
        EXPECT_STREQ(device.params.records[0].description,
                     "The height to set the terrain level at");
        size_t edited = 0;
        for (const OwnerEvent& e : network->Events("c")) edited += e.kind == OwnerEvent::Edited;
        EXPECT_EQ(edited, c.edited);
        EXPECT_EQ(host->Network().Changed().size(), c.changed);
        EXPECT_EQ(host->Dialogs().edited.back(), &device);
    }
    // With nothing scripted the dialog is closed.
    auto network = MakeNetwork();
    Orogen::Device& device = network->AddDevice("c", "Constant");
    EXPECT_FALSE(network->EditSettings("c"));
    EXPECT_EQ(host->Dialogs().Pending(), 0u);

    device.ShowHostView(3, -4);
    ASSERT_EQ(host->Dialogs().views.size(), 1u);
    const auto& view = host->Dialogs().views[0];
    EXPECT_EQ(std::make_tuple(view.device, view.a, view.b),
              std::make_tuple(&device, intptr_t{3}, intptr_t{-4}));
}

// A task that holds its worker until released.
struct Gate {
    std::mutex mutex;
    std::condition_variable changed;
    bool open = false;
    int started = 0;
    std::set<std::thread::id> threads;

    static void Run(void* argument) {
        auto* gate = static_cast<Gate*>(argument);
        std::unique_lock<std::mutex> lock(gate->mutex);
        ++gate->started;
        gate->threads.insert(std::this_thread::get_id());
        gate->changed.notify_all();
        gate->changed.wait(lock, [gate] { return gate->open; });
    }
    void WaitStarted(int count) {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return started >= count; });
    }
    void Open() {
        std::lock_guard<std::mutex> lock(mutex);
        open = true;
        changed.notify_all();
    }
};

TEST(HostServices, WorkerPoolRefusesWorkBeyondItsSize) {
    const uint32_t sizes[] = {0, 1, 3};
    for (uint32_t size : sizes) {
        SCOPED_TRACE(size);
        WorkerThreadPool pool;
        pool.Resize(size);
        Gate gate;
        for (uint32_t i = 0; i < size; ++i) EXPECT_TRUE(pool.Submit(&Gate::Run, &gate));
        // Busy and queued work fill the pool: one more is refused.
        EXPECT_FALSE(pool.Submit(&Gate::Run, &gate));
        gate.WaitStarted(static_cast<int>(size));
        EXPECT_FALSE(pool.Submit(&Gate::Run, &gate));
        gate.Open();
        pool.WaitIdle();
        EXPECT_EQ(gate.started, static_cast<int>(size));
        EXPECT_EQ(gate.threads.size(), size);  // real, distinct threads
        EXPECT_EQ(gate.threads.count(std::this_thread::get_id()), 0u);
        EXPECT_EQ(pool.Accepted(), size);
        EXPECT_EQ(pool.Refused(), 2u);
        EXPECT_EQ(pool.PeakBusy(), size);
        if (size > 0) {
            // Free again after the work is done.
            Gate again;
            again.Open();
            EXPECT_TRUE(pool.Submit(&Gate::Run, &again));
            pool.WaitIdle();
        }
    }
}

// The pool's own loop: every index once, also nested inside one of its
// bodies (an encoder's bands inside an export), and a body's error comes back.
TEST(HostServices, ParallelForRunsEveryIndexOnceAndReturnsErrors) {
    for (uint32_t size : {0u, 1u, 3u}) {
        SCOPED_TRACE(size);
        WorkerThreadPool pool;
        pool.Resize(size);
        std::vector<std::atomic<int>> hits(40 * 50);
        std::set<std::thread::id> threads;
        std::mutex mutex;
        pool.ParallelFor(40, [&](size_t outer) {
            pool.ParallelFor(50, [&](size_t inner) {
                hits[outer * 50 + inner].fetch_add(1);
                std::lock_guard<std::mutex> guard(mutex);
                threads.insert(std::this_thread::get_id());
            });
        });
        for (const auto& h : hits) ASSERT_EQ(h.load(), 1);
        EXPECT_LE(threads.size(), size + 1);
        EXPECT_THROW(pool.ParallelFor(8,
                                      [&](size_t i) {
                                          if (i == 5) throw std::runtime_error("band 5");
                                      }),
                     std::runtime_error);
        pool.WaitIdle();
    }
}

TEST(HostServices, NetworkServiceAnswersAndRecords) {
    Host host;
    HostNetworkService& service = host.Network();
    Orogen::GlobalSettings settings;
    settings.waterLevel = 0.3f;
    settings.lightDirection[0] = 1.0f;
    settings.lightDirection[2] = -0.5f;
    service.SetGlobals(settings);
    Orogen::GlobalSettings read;
    service.GetGlobalSettings(read);
    EXPECT_EQ(std::vector<float>({read.waterLevel, read.lightDirection[0], read.lightDirection[1],
                                  read.lightDirection[2]}),
              std::vector<float>({0.3f, 1.0f, 0.0f, -0.5f}));

    service.LogMessage("one");
    service.LogMessage(nullptr);
    EXPECT_EQ(service.LogLines(), (std::vector<std::string>{"one", ""}));

    // The swap directory is prefixed as is to a file name: it ends with a separator.
    const char separator = static_cast<char>(fs::path::preferred_separator);
    const std::pair<std::string, std::string> folders[] = {
        {"/tmp/swap", std::string("/tmp/swap") + separator}, {"/tmp/swap/", "/tmp/swap/"}};
    for (const auto& [given, text] : folders) {
        service.SetSwapDirectory(given);
        EXPECT_EQ(std::string(service.GetSwapDirectory()), text);
    }

    Orogen::PacketRef packet;
    const uint32_t kinds[] = {1, 4, 8, 32};
    for (uint32_t kind : kinds) {
        service.CreatePacket(packet, kind);
        ASSERT_TRUE(packet);
        EXPECT_EQ(packet->GetKind(), kind);
    }
    service.CreatePacket(packet, 2);
    EXPECT_FALSE(packet);
}

TEST(HostServices, ADefaultSwapFolderLivesAsLongAsItsHost) {
    fs::path folder;
    {
        Host host;
        folder = host.SwapDirectory();
        EXPECT_TRUE(fs::is_directory(folder));
        WriteBytes(folder / "left.swap", "x");
    }
    EXPECT_FALSE(fs::exists(folder));
    // A folder the caller names is the caller's, also when set later.
    TempDir dir, other;
    {
        Host host(HostOptions{dir.path()});
        EXPECT_EQ(fs::path(host.Network().GetSwapDirectory()), dir.path() / "");
    }
    EXPECT_TRUE(fs::is_directory(dir.path()));
    {
        Host host;
        folder = host.SwapDirectory();
        host.Network().SetSwapDirectory(other.path());
    }
    EXPECT_FALSE(fs::exists(folder));
    EXPECT_TRUE(fs::is_directory(other.path()));
}

// A module device draws its seeds from the host's service and asks its owner
// for packet sizes at the world's resolution. Loading a saved state draws
// again: the framework's own tests check that.
TEST_F(HostServicesTest, ModuleDevicesUseTheSeedsAndTheirOwner) {
    auto network = MakeNetwork(17, 13);
    Orogen::Device& constant = network->AddDevice("c", "Constant");
    SeedSource reference;
    reference.SetStart(99);
    host->Seeds().SetStart(99);
    const int32_t next = reference.NextSeed();
    EXPECT_EQ(constant.RefreshRandomSeed(), next);
    EXPECT_EQ(constant.seed, next);

    const std::pair<uint32_t, uint32_t> sizes[] = {{Orogen::kHeightField, 17 * 13 * 4},
                                                   {Orogen::kBitmap, 17 * 13 * 12},
                                                   {0, 17 * 13 * 12},
                                                   {Orogen::kCoordinateData, 17 * 13 * 8},
                                                   {3, 8}};
    for (const auto& [kind, bytes] : sizes)
        EXPECT_EQ(constant.owner->DataTypeSize(kind), bytes) << kind;
    // The module's own estimate: (links + 1) x the size of its output kind.
    EXPECT_EQ(constant.EstimateMemory(), 17u * 13 * 4);
}

}  // namespace
}  // namespace basekit::host::testing
