#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "LeanHost.h"
#include "framework/ThreadHelper.h"

namespace {

using namespace Orogen;

class ThreadTest : public ::testing::TestWithParam<int> {
protected:
    lean::Host host{GetParam()};
    lean::Installed installed{host};
};

TEST_P(ThreadTest, IndexHelperRunsEveryItemOnce) {
    for (uint32_t count : {0u, 1u, 2u, 7u, 500u}) {
        std::vector<std::atomic<int>> seen(count);
        auto work = [&](uint32_t i) {
            seen[i].fetch_add(1);
            return true;
        };
        ThreadHelperWrapper<decltype(work)> helper(count, work);
        EXPECT_TRUE(helper.Run()) << count;
        EXPECT_EQ(helper.doneCount.load(), count);
        for (uint32_t i = 0; i < count; ++i) EXPECT_EQ(seen[i].load(), 1) << i;
        EXPECT_EQ(helper.threadCount.load(), 0);
        EXPECT_EQ(helper.activeCount.load(), 0);
    }
}

TEST_P(ThreadTest, ZeroItemsStartNoWorkers) {
    auto work = [](uint32_t) { return true; };
    ThreadHelperWrapper<decltype(work)> helper(0, work);
    EXPECT_TRUE(helper.Run());
    EXPECT_EQ(host.pool.asked.load(), 0);
}

TEST_P(ThreadTest, FalseFromAnItemStopsAndFails) {
    std::atomic<int> ran{0};
    auto work = [&](uint32_t i) {
        ran.fetch_add(1);
        return i != 3;
    };
    ThreadHelperWrapper<decltype(work)> helper(50, work, GetParam() > 0);
    EXPECT_FALSE(helper.Run());
    EXPECT_TRUE(helper.stopped.load());
}

TEST_P(ThreadTest, QXExceptionInOneItemFailsTheRun) {
    auto work = [](uint32_t i) -> bool {
        if (i == 10) throw QXException("item failed");
        return true;
    };
    ThreadHelperWrapper<decltype(work)> helper(100, work);
    EXPECT_FALSE(helper.Run());
    EXPECT_TRUE(helper.failed.load());
    EXPECT_EQ(helper.threadCount.load(), 0);
}

TEST_P(ThreadTest, OtherExceptionsReachTheCaller) {
    auto work = [](uint32_t i) -> bool {
        if (i == 20) throw std::logic_error("not ours");
        return true;
    };
    ThreadHelperWrapper<decltype(work)> helper(40, work);
    EXPECT_THROW(helper.Run(), std::logic_error);
    EXPECT_EQ(helper.threadCount.load(), 0);
}

// Squares item indices; results delivered in order are appended to `order`.
class Squares : public DeviceThreadHelper {
public:
    struct Item : WorkItem {
        uint32_t value = 0;
        uint64_t square = 0;
    };
    Squares(BuildProgress* progress, uint32_t count, bool ordered)
        : DeviceThreadHelper(progress, this), count(count) {
        inOrder = ordered;
    }
    ~Squares() override { Clear(); }
    void FillQueue() override {
        for (uint32_t i = 0; i < count; ++i) {
            auto* item = new Item;
            item->value = i;
            Enqueue(item);
        }
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
        it->square = uint64_t(it->value) * it->value;
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

TEST_P(ThreadTest, InOrderDeliveryUnderRealThreads) {
    Squares helper(&host, 200, true);
    ASSERT_TRUE(helper.Run());
    ASSERT_EQ(helper.order.size(), 200u);
    for (uint32_t i = 0; i < 200; ++i) EXPECT_EQ(helper.order[i], i);
    EXPECT_EQ(helper.deleted.load(), 200);
    EXPECT_EQ(host.reports.size(), 200u);
    EXPECT_EQ(host.reports.back(), std::make_pair(200u, 200u));
}

TEST_P(ThreadTest, UnorderedDeliveryDeliversEverything) {
    Squares helper(&host, 120, false);
    ASSERT_TRUE(helper.Run());
    std::vector<uint32_t> sorted = helper.order;
    std::sort(sorted.begin(), sorted.end());
    for (uint32_t i = 0; i < 120; ++i) EXPECT_EQ(sorted[i], i);
}

TEST_P(ThreadTest, CancellationStopsTheRun) {
    host.cancelAfter = 5;
    Squares helper(&host, 300, true);
    EXPECT_FALSE(helper.Run());
    EXPECT_TRUE(helper.cancelled.load());
    EXPECT_LT(helper.order.size(), 300u);
    EXPECT_EQ(helper.deleted.load(), 300);  // every item freed, run or not
}

TEST_P(ThreadTest, ExceptionInOneItemIsCaptured) {
    Squares helper(&host, 100, true);
    helper.failAt = 30;
    EXPECT_FALSE(helper.Run());
    EXPECT_TRUE(helper.failed.load());
    EXPECT_EQ(helper.deleted.load(), 100);
}

TEST_P(ThreadTest, DroppedItemIsNotFatal) {
    Squares helper(&host, 10, false);
    helper.dropAt = 4;
    EXPECT_TRUE(helper.Run());
    EXPECT_EQ(helper.order.size(), 9u);
    EXPECT_EQ(helper.droppedCount.load(), 1u);
}

TEST_P(ThreadTest, WithoutThreadsItemsRunInQueueOrderOnTheCaller) {
    host.threadsAllowed = false;
    Squares helper(&host, 20, false);
    ASSERT_TRUE(helper.Run());
    EXPECT_EQ(host.pool.asked.load(), 0);
    for (uint32_t i = 0; i < 20; ++i) EXPECT_EQ(helper.order[i], i);
    EXPECT_EQ(helper.threads.size(), 1u);
    EXPECT_EQ(*helper.threads.begin(), std::this_thread::get_id());
}

// Records which rows each job covered.
class Rows : public ThreadHelperScanline {
public:
    Rows(BuildProgress* progress, int32_t first, int32_t last)
        : ThreadHelperScanline(progress, nullptr, first, last) {}
    bool ProcessRows(int32_t first, int32_t last) override {
        std::lock_guard<std::mutex> guard(mutex);
        for (int32_t y = first; y <= last; ++y) rows.push_back(y);
        return true;
    }
    std::mutex mutex;
    std::vector<int32_t> rows;
};

TEST_P(ThreadTest, ScanlinesCoverEveryRowOnce) {
    for (int32_t height : {1, 5, 47, 48, 49, 100, 1024, 1025}) {
        Rows helper(&host, 0, height - 1);
        ASSERT_TRUE(helper.Run()) << height;
        std::sort(helper.rows.begin(), helper.rows.end());
        ASSERT_EQ(helper.rows.size(), static_cast<size_t>(height)) << height;
        for (int32_t y = 0; y < height; ++y) EXPECT_EQ(helper.rows[y], y);
        EXPECT_LE(helper.total, 48u);
    }
}

TEST_P(ThreadTest, EmptyScanlineRangeDoesNothing) {
    Rows helper(&host, 0, -1);
    EXPECT_TRUE(helper.Run());
    EXPECT_TRUE(helper.rows.empty());
}

INSTANTIATE_TEST_SUITE_P(Workers, ThreadTest, ::testing::Values(0, 1, 2, 8),
                         [](const auto& info) { return std::to_string(info.param) + "Workers"; });

TEST(ThreadPoolRefusal, PoolThatRefusesRunsOnTheCaller) {
    lean::Host host(0);
    lean::Installed installed(host);
    std::set<std::thread::id> threads;
    auto work = [&](uint32_t) {
        threads.insert(std::this_thread::get_id());
        return true;
    };
    ThreadHelperWrapper<decltype(work)> helper(30, work);
    EXPECT_TRUE(helper.Run());
    EXPECT_GT(host.pool.asked.load(), 0);
    EXPECT_EQ(host.pool.granted.load(), 0);
    EXPECT_EQ(threads.size(), 1u);
}

TEST(PacketRefThreads, CountsStayExactUnderConcurrentCopies) {
    lean::Host host(0);
    lean::Installed installed(host);
    {
        PacketRef shared = NewHeightField(Grid{2, 2});
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&] {
                for (int i = 0; i < 20000; ++i) {
                    PacketRef copy = shared;
                    PacketRef other;
                    other = copy;
                }
            });
        for (auto& t : threads) t.join();
        EXPECT_EQ(shared->refCount.load(), 1u);
        EXPECT_EQ(host.livePackets.load(), 1);
    }
    EXPECT_EQ(host.livePackets.load(), 0);
}

}  // namespace
