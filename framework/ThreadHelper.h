// Work spread over threads that the host lends. The calling thread always
// works too, and returns only after every worker it started has finished.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <exception>
#include <utility>
#include <vector>

#include "framework/HostServices.h"
#include "framework/Platform.h"

namespace Orogen {

// Item indices 0..count-1, taken one at a time by the workers.
class ThreadHelper {
public:
    explicit ThreadHelper(uint32_t count, bool useThreads = true)
        : useThreads(useThreads), count(count) {}
    virtual ~ThreadHelper() = default;

    // False stops the worker that got it.
    virtual bool ProcessItem(uint32_t index) = 0;
    virtual bool RunWorker(bool isMain, bool mayStartMore);

    // True when every item ran and none failed or stopped.
    bool Run();

    bool useThreads;
    std::atomic<bool> stopped{false};
    std::atomic<bool> failed{false};
    uint32_t count;
    uint32_t nextIndex = 0;
    std::atomic<uint32_t> doneCount{0};
    std::atomic<int32_t> threadCount{0};
    std::atomic<int32_t> activeCount{0};
    CriticalSection lock;

private:
    static void WorkerEntry(void* helper);
    bool StartWorker();
    void WaitForWorkers();
    // An exception other than QXException thrown on a worker, re-thrown by Run.
    std::exception_ptr foreignError;
};

// A ThreadHelper over a callable taking the item index and returning bool.
template <class Lambda>
class ThreadHelperWrapper : public ThreadHelper {
public:
    ThreadHelperWrapper(uint32_t count, Lambda lambda, bool useThreads = true)
        : ThreadHelper(count, useThreads), lambda(std::move(lambda)) {}
    bool ProcessItem(uint32_t index) override { return lambda(index); }

private:
    Lambda lambda;
};

// A queued work item; the device's own items extend it.
struct WorkItem {
    uint32_t sequence = 0;
};

// A queue of work items processed by the workers, optionally delivered in
// queue order, with progress reports after each item.
class DeviceThreadHelper {
public:
    DeviceThreadHelper(BuildProgress* progressSink, void* progressContext)
        : progressSink(progressSink), progressContext(progressContext) {}
    // Run empties the queue; a helper that queued items and never ran must
    // call Clear from its own destructor, where DeleteItem is still its own.
    virtual ~DeviceThreadHelper() = default;

    // The device queues its items here (with Enqueue).
    virtual void FillQueue() { total = static_cast<uint32_t>(queue.size()); }
    virtual void DeleteItem(WorkItem* item) { delete item; }
    virtual bool HasWork();
    // Runs outside the lock, in parallel; false drops the item.
    virtual bool ProcessItem(WorkItem* item, void* threadData) = 0;
    // Runs under the lock, in queue order when `inOrder` is set.
    virtual void DeliverItem(WorkItem* /*item*/, void* /*threadData*/) {}
    virtual void* BeginThread(bool /*isMain*/, bool /*mayStartMore*/) { return nullptr; }
    virtual void EndThread(void* /*threadData*/) {}
    virtual void ReportProgress();
    virtual bool RunWorker(bool isMain, bool mayStartMore);

    // True when every item ran, none failed and nothing was cancelled.
    bool Run();

    // Appends an item with the next sequence number.
    void Enqueue(WorkItem* item);

    BuildProgress* progressSink;
    void* progressContext;
    bool quiet = false;
    uint32_t total = 0;
    std::atomic<bool> cancelled{false};
    std::atomic<bool> failed{false};
    uint32_t doneCount = 0;
    std::deque<WorkItem*> queue;
    bool inOrder = false;
    std::atomic<int32_t> threadCount{0};
    std::atomic<int32_t> activeCount{0};
    CriticalSection lock;
    std::vector<WorkItem*> waiting;
    uint32_t nextSequence = 0;
    // Items whose ProcessItem answered false.
    std::atomic<uint32_t> droppedCount{0};

protected:
    // Deletes every item still queued or waiting.
    void Clear();

private:
    static void WorkerEntry(void* helper);
    bool StartWorker();
    bool Complete(WorkItem* item, void* threadData);
    void WaitForWorkers();
    uint32_t enqueued = 0;
    std::exception_ptr foreignError;
};

// Rows [firstRow, lastRow] cut into `jobs` pieces of consecutive rows.
class ThreadHelperScanline : public DeviceThreadHelper {
public:
    ThreadHelperScanline(BuildProgress* progressSink, void* progressContext, int32_t firstRow,
                         int32_t lastRow, uint32_t jobs = 48)
        : DeviceThreadHelper(progressSink, progressContext),
          jobs(jobs),
          firstRow(firstRow),
          lastRow(lastRow) {}
    ~ThreadHelperScanline() override { Clear(); }

    // Rows first..last inclusive; false drops the job.
    virtual bool ProcessRows(int32_t first, int32_t last) = 0;

    void FillQueue() override;
    void DeleteItem(WorkItem* item) override;
    bool ProcessItem(WorkItem* item, void* threadData) override;

    uint32_t jobs;
    int32_t firstRow;
    int32_t lastRow;

    struct RowJob : WorkItem {
        int32_t first = 0;
        int32_t last = 0;
    };
};

}  // namespace Orogen
