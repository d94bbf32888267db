#include "framework/ThreadHelper.h"

#include <algorithm>

#include "framework/Exceptions.h"

namespace Orogen {

namespace {

// Asks the host's pool for one worker; `threadCount` is raised before the
// request so that a worker finishing at once can never drive it below zero.
bool SubmitWorker(void (*entry)(void*), void* helper, std::atomic<int32_t>& threadCount) {
    HostServices* services = Services();
    if (!services || !services->workers) return false;
    threadCount.fetch_add(1);
    bool started = false;
    try {
        started = services->workers->Submit(entry, helper);
    } catch (...) {
        started = false;
    }
    if (!started) threadCount.fetch_sub(1);
    return started;
}

// The calling thread polls rather than waiting on an event.
void WaitUntilIdle(const std::atomic<int32_t>& threadCount,
                   const std::atomic<int32_t>& activeCount) {
    while (threadCount.load() > 0 || activeCount.load() >= 1) SleepMilliseconds(5);
}

// Called from a catch-all in a worker loop: a QXException marks the run
// failed; any other exception is kept for the calling thread to re-throw.
void CaptureFailure(std::atomic<bool>& failed, CriticalSection& lock,
                    std::exception_ptr& foreignError) {
    try {
        throw;
    } catch (const QXException&) {
    } catch (...) {
        CriticalSectionGuard guard(lock);
        if (!foreignError) foreignError = std::current_exception();
    }
    failed = true;
}

// A worker leaves its loop. Other workers must not touch the helper after
// the decrements: the caller may be gone. The calling thread waits for them.
void LeaveWorker(std::atomic<int32_t>& threadCount, std::atomic<int32_t>& activeCount,
                 bool isMain) {
    activeCount.fetch_sub(1);
    threadCount.fetch_sub(1);
    if (isMain) WaitUntilIdle(threadCount, activeCount);
}

}  // namespace

// ThreadHelper

void ThreadHelper::WorkerEntry(void* helper) {
    static_cast<ThreadHelper*>(helper)->RunWorker(false, false);
}

bool ThreadHelper::StartWorker() { return SubmitWorker(&WorkerEntry, this, threadCount); }

void ThreadHelper::WaitForWorkers() { WaitUntilIdle(threadCount, activeCount); }

bool ThreadHelper::Run() {
    failed = false;
    stopped = false;
    threadCount = 0;
    activeCount = 0;
    nextIndex = 0;
    doneCount = 0;
    foreignError = nullptr;
    bool ok = false;
    try {
        if (useThreads) {
            for (uint32_t i = 0; i < count; ++i)
                if (!StartWorker()) break;
            threadCount.fetch_add(1);
            ok = RunWorker(true, true);
        } else {
            threadCount.fetch_add(1);
            ok = RunWorker(true, false);
        }
    } catch (const QXException&) {
        failed = true;
        WaitForWorkers();
    }
    if (foreignError) std::rethrow_exception(std::exchange(foreignError, nullptr));
    return ok && !failed && !stopped;
}

bool ThreadHelper::RunWorker(bool isMain, bool mayStartMore) {
    activeCount.fetch_add(1);
    bool stoppedHere = false;
    try {
        while (!failed) {
            uint32_t index;
            bool more;
            {
                CriticalSectionGuard guard(lock);
                if (nextIndex >= count) break;
                index = nextIndex++;
                more = nextIndex < count;
            }
            if (mayStartMore && more) StartWorker();
            if (!ProcessItem(index)) {
                stoppedHere = true;
                stopped = true;
                break;
            }
            doneCount.fetch_add(1);
        }
    } catch (...) {
        CaptureFailure(failed, lock, foreignError);
    }
    LeaveWorker(threadCount, activeCount, isMain);
    return !stoppedHere;
}

// DeviceThreadHelper

void DeviceThreadHelper::WorkerEntry(void* helper) {
    static_cast<DeviceThreadHelper*>(helper)->RunWorker(false, false);
}

bool DeviceThreadHelper::StartWorker() { return SubmitWorker(&WorkerEntry, this, threadCount); }

void DeviceThreadHelper::WaitForWorkers() { WaitUntilIdle(threadCount, activeCount); }

void DeviceThreadHelper::Enqueue(WorkItem* item) {
    item->sequence = enqueued++;
    queue.push_back(item);
}

bool DeviceThreadHelper::HasWork() {
    CriticalSectionGuard guard(lock);
    return !queue.empty();
}

void DeviceThreadHelper::ReportProgress() {
    if (progressSink && !progressSink->ReportItems(progressContext, doneCount, total))
        cancelled = true;
}

bool DeviceThreadHelper::Run() {
    failed = false;
    cancelled = false;
    nextSequence = 0;
    droppedCount = 0;
    foreignError = nullptr;
    try {
        FillQueue();
    } catch (const QXException&) {
        failed = true;
    }
    total = static_cast<uint32_t>(queue.size());
    doneCount = 0;
    threadCount = 0;
    activeCount = 0;
    bool ok = false;
    if (!failed) {
        try {
            bool threads = progressSink ? progressSink->threadsAllowed : true;
            if (threads && total > 1) {
                for (uint32_t i = 0; i + 1 < total; ++i)
                    if (!StartWorker()) break;
                threadCount.fetch_add(1);
                ok = RunWorker(true, true);
            } else {
                threadCount.fetch_add(1);
                ok = RunWorker(true, false);
            }
        } catch (const QXException&) {
            failed = true;
            WaitForWorkers();
        }
    }
    Clear();
    if (foreignError) std::rethrow_exception(std::exchange(foreignError, nullptr));
    return ok && !failed && !cancelled;
}

bool DeviceThreadHelper::RunWorker(bool isMain, bool mayStartMore) {
    activeCount.fetch_add(1);
    bool cancelledHere = false;
    void* data = nullptr;
    try {
        data = BeginThread(isMain, mayStartMore);
        while (!failed && !cancelled) {
            WorkItem* item;
            {
                CriticalSectionGuard guard(lock);
                if (queue.empty()) break;
                item = queue.front();
                queue.pop_front();
            }
            if (mayStartMore && HasWork()) StartWorker();
            bool processed;
            try {
                processed = ProcessItem(item, data);
            } catch (...) {
                DeleteItem(item);
                throw;
            }
            if (!processed) {
                DeleteItem(item);
                droppedCount.fetch_add(1);
                continue;
            }
            if (!Complete(item, data)) {
                cancelledHere = true;
                break;
            }
        }
        EndThread(data);
    } catch (...) {
        CaptureFailure(failed, lock, foreignError);
    }
    LeaveWorker(threadCount, activeCount, isMain);
    return !cancelledHere;
}

bool DeviceThreadHelper::Complete(WorkItem* item, void* threadData) {
    CriticalSectionGuard guard(lock);
    if (inOrder) {
        waiting.push_back(item);
        for (;;) {
            auto next = std::find_if(waiting.begin(), waiting.end(), [this](WorkItem* w) {
                return w->sequence == nextSequence;
            });
            if (next == waiting.end()) break;
            WorkItem* ready = *next;
            waiting.erase(next);
            DeliverItem(ready, threadData);
            DeleteItem(ready);
            ++nextSequence;
        }
    } else {
        DeliverItem(item, threadData);
        DeleteItem(item);
    }
    ++doneCount;
    if (quiet) return true;
    ReportProgress();
    return !cancelled;
}

void DeviceThreadHelper::Clear() {
    for (WorkItem* item : waiting) DeleteItem(item);
    waiting.clear();
    for (WorkItem* item : queue) DeleteItem(item);
    queue.clear();
    enqueued = 0;
}

// ThreadHelperScanline

void ThreadHelperScanline::FillQueue() {
    // Jobs of chunk + 1 rows; with few rows the later jobs would reach past
    // the last row, so they are cut there and empty ones are not queued.
    int32_t chunk = jobs > 0 ? (lastRow - firstRow) / static_cast<int32_t>(jobs) : 0;
    int32_t start = firstRow;
    for (uint32_t k = 0; k + 1 < jobs && start <= lastRow; ++k) {
        auto* job = new RowJob;
        job->first = start;
        job->last = std::min(start + chunk, lastRow);
        Enqueue(job);
        start = job->last + 1;
    }
    if (start <= lastRow) {
        auto* job = new RowJob;
        job->first = start;
        job->last = lastRow;
        Enqueue(job);
    }
    DeviceThreadHelper::FillQueue();
}

void ThreadHelperScanline::DeleteItem(WorkItem* item) { delete static_cast<RowJob*>(item); }

bool ThreadHelperScanline::ProcessItem(WorkItem* item, void* /*threadData*/) {
    auto* job = static_cast<RowJob*>(item);
    return ProcessRows(job->first, job->last);
}

}  // namespace Orogen
