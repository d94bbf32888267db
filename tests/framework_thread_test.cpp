// Thread helpers and row runs on the host's worker pool, at 0, 1, 2 and 8
// workers: every item once, order, cancellation, failures, and the same bits
// as one thread.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <mutex>
#include <random>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "TestDevices.h"
#include "TestHost.h"
#include "framework/ThreadHelper.h"

namespace {

using namespace basekit::testing;

class ThreadTest : public FrameworkTest, public ::testing::WithParamInterface<uint32_t> {
  protected:
    void SetUp() override { host.Workers().Resize(GetParam()); }
    uint64_t Asked() { return host.Workers().Accepted() + host.Workers().Refused(); }
    PlainDevice device;
};

// How an item fails: 0 answers false, 1 throws a framework exception, 2 another.
bool FailAs(int how) {
    if (how == 1) throw QXException("bad item");
    if (how == 2) throw std::logic_error("not ours");
    return false;
}

// Every item once; a pool that refuses (0 workers) leaves the work to the
// caller.
TEST_P(ThreadTest, IndexHelperRunsEveryItemOnce) {
    std::mutex mutex;
    std::set<std::thread::id> threads;
    for (uint32_t count : {0u, 1u, 2u, 7u, 500u}) {
        std::vector<std::atomic<int>> seen(count);
        auto work = [&](uint32_t i) {
            std::lock_guard<std::mutex> guard(mutex);
            threads.insert(std::this_thread::get_id());
            return seen[i].fetch_add(1) >= 0;
        };
        ThreadHelperWrapper<decltype(work)> helper(count, work);
        EXPECT_TRUE(helper.Run()) << count;
        EXPECT_EQ(helper.doneCount.load(), count);
        for (uint32_t i = 0; i < count; ++i) EXPECT_EQ(seen[i].load(), 1) << i;
        EXPECT_EQ(helper.threadCount.load(), 0);
        EXPECT_EQ(helper.activeCount.load(), 0);
        if (count == 0) {
            EXPECT_EQ(Asked(), 0u);  // nothing to do starts no workers
        }
    }
    EXPECT_EQ(host.Workers().Accepted() > 0, GetParam() > 0);
    if (GetParam() == 0) {
        EXPECT_GT(host.Workers().Refused(), 0u);
        EXPECT_EQ(threads, std::set<std::thread::id>{std::this_thread::get_id()});
    }
}

// An item's false, framework exception or other exception ends an index run
// and a row run; a report's false cancels a row run, reporting pieces or rows.
TEST_P(ThreadTest, FailuresEndIndexAndRowRuns) {
    BuildResultSet results;
    BuildContext context = Context(Grid{1, 64}, &results);
    const int32_t badRows[] = {40, 63, 7};  // 63: in the last piece
    for (int how : {0, 1, 2}) {
        SCOPED_TRACE(how);
        auto item = [how](uint32_t i) { return i != 10u * (how + 1) || FailAs(how); };
        ThreadHelperWrapper<decltype(item)> helper(100, item, how != 0 || GetParam() > 0);
        const int32_t bad = badRows[how];
        auto rows = [&](int32_t from, int32_t to) { return bad < from || bad > to || FailAs(how); };
        if (how == 2) {
            EXPECT_THROW(helper.Run(), std::logic_error);
            EXPECT_THROW(RunRows(context, &device, 0, 63, rows, 16), std::logic_error);
        } else {
            EXPECT_FALSE(helper.Run());
            EXPECT_FALSE(RunRows(context, &device, 0, 63, rows, 16));
        }
        EXPECT_EQ(helper.stopped.load(), how == 0);
        EXPECT_EQ(helper.failed.load(), how != 0);
        EXPECT_EQ(helper.threadCount.load(), 0);
    }
    for (RowProgress mode : {RowProgress::Pieces, RowProgress::Rows}) {
        recorder.reports = 0;
        recorder.cancelAt = 3;
        EXPECT_FALSE(RunRows(
            context, &device, 0, 63, [](int32_t, int32_t) {}, 16, mode));
    }
}

// Squares item indices; results delivered in order are appended to `order`.
class Squares : public DeviceThreadHelper {
  public:
    struct Item : WorkItem {
        uint32_t value = 0;
    };
    Squares(BuildProgress* progress, uint32_t count, bool ordered)
        : DeviceThreadHelper(progress, this), count(count) {
        inOrder = ordered;
    }
    ~Squares() override { Clear(); }
    void FillQueue() override {
        for (uint32_t i = 0; i < count; ++i) Enqueue(new Item{{}, i});
        DeviceThreadHelper::FillQueue();
    }
    void DeleteItem(WorkItem* item) override {
        deleted.fetch_add(1);
        delete static_cast<Item*>(item);
    }
    bool ProcessItem(WorkItem* item, void*) override {
        auto* it = static_cast<Item*>(item);
        if (it->value == failAt) throw QXException("bad item");
        if (it->value == dropAt) return false;
        // Uneven work so that later items often finish first.
        volatile double sink = 0;
        for (uint32_t k = 0; k < (count - it->value) * 200; ++k) sink = sink + std::sqrt(k);
        std::lock_guard<std::mutex> guard(threadsMutex);
        threads.insert(std::this_thread::get_id());
        return true;
    }
    void DeliverItem(WorkItem* item, void*) override {
        order.push_back(static_cast<Item*>(item)->value);
    }
    uint32_t count;
    uint32_t failAt = ~0u;
    uint32_t dropAt = ~0u;
    std::vector<uint32_t> order;
    std::atomic<int> deleted{0};
    std::mutex threadsMutex;
    std::set<std::thread::id> threads;
};

// Order, cancellation, a failing and a dropped item; without threads allowed,
// items run in queue order on the caller.
TEST_P(ThreadTest, DeviceHelperOrderCancellationAndFailures) {
    const struct {
        const char* what;
        uint32_t count;
        bool ordered, threads;
        uint32_t failAt, dropAt, cancelAt;
        bool ok;
        uint32_t delivered;
    } cases[] = {
        {"in order", 200, true, true, ~0u, ~0u, 0, true, 200},
        {"any order", 120, false, true, ~0u, ~0u, 0, true, 120},
        {"no threads allowed", 20, false, false, ~0u, ~0u, 0, true, 20},
        {"nothing queued", 0, true, true, ~0u, ~0u, 0, true, 0},
        {"cancelled by the 5th report", 300, true, true, ~0u, ~0u, 5, false, 0},
        {"QXException in item 30", 100, true, true, 30, ~0u, 0, false, 0},
        {"item 4 dropped", 10, false, true, ~0u, 4, 0, true, 9},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        recorder.items.clear();
        recorder.reports = 0;
        recorder.cancelAt = c.cancelAt;
        recorder.threadsAllowed = c.threads;
        const uint64_t asked = Asked();
        Squares helper(&recorder, c.count, c.ordered);
        helper.failAt = c.failAt;
        helper.dropAt = c.dropAt;
        EXPECT_EQ(helper.Run(), c.ok);
        // Every item freed, run or not.
        EXPECT_EQ(helper.deleted.load(), static_cast<int>(c.count));
        std::vector<uint32_t> sorted = helper.order;
        std::sort(sorted.begin(), sorted.end());
        if (c.ordered || !c.threads) {
            EXPECT_EQ(helper.order, sorted);
        }
        if (c.ok) {
            EXPECT_EQ(helper.order.size(), c.delivered);
            EXPECT_EQ(std::adjacent_find(sorted.begin(), sorted.end()), sorted.end());
            // A dropped item is not reported.
            EXPECT_EQ(recorder.items.size(), c.delivered);
            if (c.delivered) {
                EXPECT_EQ(recorder.items.back(), std::make_pair(c.delivered, c.count));
            }
        }
        if (!c.threads) {
            EXPECT_EQ(Asked(), asked);
            EXPECT_EQ(helper.threads, std::set<std::thread::id>{std::this_thread::get_id()});
        }
        EXPECT_EQ(helper.cancelled.load(), c.cancelAt != 0);
        EXPECT_EQ(helper.failed.load(), c.failAt != ~0u);
        if (c.cancelAt) {
            EXPECT_LT(helper.order.size(), c.count);
        }
        EXPECT_EQ(helper.droppedCount.load(), c.dropAt != ~0u ? 1u : 0u);
    }
}

// Rows first..last in `pieces`, cut as ThreadHelperScanline cuts them: the
// pieces handed out, every row once, and the reports of each progress mode.
TEST_P(ThreadTest, RunRowsCoversEveryRowOnceAndReports) {
    const struct {
        int32_t first, last;
        uint32_t pieces, made;
    } cases[] = {
        {0, 99, 1, 1},   {0, 99, 16, 15},   {0, 99, 48, 34},   {1, 126, 16, 16},
        {0, 9, 48, 10},  {5, 5, 16, 1},     {0, 0, 1, 1},      {0, 47, 48, 48},
        {0, 48, 48, 25}, {0, 1023, 48, 47}, {0, 1024, 48, 47},
    };
    for (const auto& c : cases) {
        for (RowProgress mode : {RowProgress::Pieces, RowProgress::Rows, RowProgress::None}) {
            SCOPED_TRACE(::testing::Message() << c.first << ".." << c.last << " in " << c.pieces
                                              << ", mode " << static_cast<int>(mode));
            recorder.items.clear();
            recorder.rows.clear();
            BuildResultSet results;
            std::mutex mutex;
            std::vector<std::pair<int32_t, int32_t>> pieces;
            auto work = [&](int32_t from, int32_t to) {
                std::lock_guard<std::mutex> guard(mutex);
                pieces.emplace_back(from, to);
            };
            ASSERT_TRUE(RunRows(Context(Grid{1, c.last + 1}, &results), &device, c.first, c.last,
                                work, c.pieces, mode));
            std::sort(pieces.begin(), pieces.end());
            ASSERT_EQ(pieces.size(), c.made);
            int32_t next = c.first;
            for (const auto& [from, to] : pieces) {
                EXPECT_EQ(from, next);
                EXPECT_LE(from, to);
                next = to + 1;
            }
            EXPECT_EQ(next, c.last + 1);
            // Pieces: (pieces done, pieces). Rows: the last row of those done,
            // rising, ending at the last.
            std::vector<std::pair<uint32_t, uint32_t>> items;
            for (uint32_t k = 1; mode == RowProgress::Pieces && k <= c.made; ++k)
                items.emplace_back(k, c.made);
            EXPECT_EQ(recorder.items, items);
            ASSERT_EQ(recorder.rows.size(), mode == RowProgress::Rows ? c.made : 0u);
            for (size_t k = 0; k < recorder.rows.size(); ++k) {
                EXPECT_EQ(recorder.rows[k].second, c.last - c.first + 1);
                EXPECT_GT(recorder.rows[k].first, k ? recorder.rows[k - 1].first : c.first - 1);
            }
            if (!recorder.rows.empty()) {
                EXPECT_EQ(recorder.rows.back().first, c.last);
            }
        }
    }
    BuildResultSet results;
    EXPECT_TRUE(RunRows(Context(Grid{1, 1}, &results), &device, 3, 2,
                        [](int32_t, int32_t) -> bool { throw std::logic_error("ran"); }));
}
// A simulation of N passes over rows 1..H-2 in 16 pieces, each pass after
// the last; the caller reports between passes and stops when told to.
TEST_P(ThreadTest, RunRowsPassesCancelBetweenPasses) {
    const int32_t width = 9, height = 20, passes = 5;
    for (uint32_t cancelAt : {0u, 1u, 3u}) {
        SCOPED_TRACE(cancelAt);
        recorder.rows.clear();
        recorder.reports = 0;
        recorder.cancelAt = cancelAt;
        BuildResultSet results;
        BuildContext context = Context(Grid{width, height}, &results);
        std::vector<float> field(width * height, 0.0f);
        int32_t done = 0;
        while (done < passes) {
            // Each row takes its northern neighbour of the previous pass plus one.
            std::vector<float> before = field;
            ASSERT_TRUE(ForEachRow(
                context, &device, 1, height - 2,
                [&](int32_t y) {
                    for (int32_t x = 0; x < width; ++x)
                        field[y * width + x] = before[(y - 1) * width + x] + 1.0f;
                },
                16, RowProgress::None));
            if (!ReportRow(context, &device, ++done, passes)) break;
        }
        EXPECT_EQ(done, cancelAt ? static_cast<int32_t>(cancelAt) : passes);
        ASSERT_EQ(recorder.rows.size(), static_cast<size_t>(done));
        for (int32_t k = 0; k < done; ++k)
            EXPECT_EQ(recorder.rows[k], std::make_pair(k + 1, passes));
        for (int32_t y = 0; y < height; ++y) {
            const float expected = y == 0 || y == height - 1 ? 0.0f : std::min(y, done);
            for (int32_t x = 0; x < width; ++x) EXPECT_EQ(field[y * width + x], expected) << y;
        }
    }
}

// MapSamples and ZipSamples on fields and bitmaps against a plain loop.
TEST_P(ThreadTest, MapAndZipSamplesMatchAPlainLoop) {
    std::mt19937 random(7);
    std::uniform_real_distribution<float> unit(-1.0f, 2.0f);
    for (uint32_t kind : {kHeightField, kBitmap}) {
        for (Grid grid : {Grid{37, 23}, Grid{1, 1}, Grid{5, 200}, Grid{0, 4}}) {
            SCOPED_TRACE(::testing::Message() << kind << " " << grid.width << "x" << grid.height);
            PacketRef a = NewPacket(kind, grid), b = NewPacket(kind, grid);
            const uint64_t n = a->PointCount() * a->Channels();
            for (uint64_t i = 0; i < n; ++i) a->samples[i] = unit(random);
            for (uint64_t i = 0; i < n; ++i) b->samples[i] = unit(random);
            std::vector<float> expected(a->samples, a->samples + n);
            for (uint64_t i = 0; i < n; ++i) {
                expected[i] = expected[i] * 0.75f + 0.125f;
                expected[i] = expected[i] - b->samples[i] * 0.5f;
            }
            BuildResultSet results;
            BuildContext context = Context(grid, &results);
            ASSERT_TRUE(
                MapSamples(context, &device, *a, [](float v) { return v * 0.75f + 0.125f; }));
            ASSERT_TRUE(ZipSamples(context, &device, *a, *b,
                                   [](float x, float y) { return x - y * 0.5f; }));
            EXPECT_EQ(std::vector<float>(a->samples, a->samples + n), expected);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Workers, ThreadTest, ::testing::Values(0u, 1u, 2u, 8u),
                         [](const auto& info) { return std::to_string(info.param) + "Workers"; });

TEST_F(FrameworkTest, PacketRefThreadCountsStayExactUnderConcurrentCopies) {
    PacketRef shared = NewHeightField(Grid{2, 2});
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                PacketRef copy = shared, other;
                other = copy;
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(shared->refCount.load(), 1u);
    shared.Release();
    EXPECT_EQ(LivePackets(), 0);
}

}  // namespace
