#include "framework/Rows.h"

#include "framework/ThreadHelper.h"

namespace Orogen {

namespace {

class RowRun final : public ThreadHelperScanline {
  public:
    RowRun(const BuildContext& context, Device* device, int32_t first, int32_t last,
           uint32_t pieces, RowProgress mode, const std::function<bool(int32_t, int32_t)>& work)
        : ThreadHelperScanline(context.progress, device, first, last, pieces),
          device(device),
          mode(mode),
          work(work) {
        quiet = mode == RowProgress::None;
    }

    bool ProcessRows(int32_t first, int32_t last) override { return work(first, last); }

    // Under the helper's lock, before the report.
    void DeliverItem(WorkItem* item, void* /*threadData*/) override {
        const auto* job = static_cast<const RowJob*>(item);
        rowsDone += job->last - job->first + 1;
    }

    void ReportProgress() override {
        const int64_t rows = static_cast<int64_t>(lastRow) - firstRow + 1;
        switch (mode) {
            case RowProgress::Rows:
                if (progressSink && !progressSink->ReportRow(device, firstRow + rowsDone - 1,
                                                             static_cast<int32_t>(rows)))
                    cancelled = true;
                break;
            case RowProgress::Percent:
                if (progressSink)
                    progressSink->ReportPercent(device,
                                                static_cast<int32_t>(100 * rowsDone / rows));
                break;
            default:
                DeviceThreadHelper::ReportProgress();
        }
    }

  private:
    Device* device;
    RowProgress mode;
    const std::function<bool(int32_t, int32_t)>& work;
    int64_t rowsDone = 0;
};

}  // namespace

bool RunRows(const BuildContext& context, Device* device, int32_t first, int32_t last,
             const std::function<bool(int32_t, int32_t)>& work, uint32_t pieces,
             RowProgress progress) {
    if (first > last) return true;
    RowRun run(context, device, first, last, pieces, progress, work);
    return run.Run() && run.droppedCount.load() == 0;
}

void ReportPercent(const BuildContext& context, Device* device, int32_t percent) {
    if (context.progress) context.progress->ReportPercent(device, percent);
}

bool ReportRow(const BuildContext& context, Device* device, int32_t row, int32_t total) {
    return !context.progress || context.progress->ReportRow(device, row, total);
}

}  // namespace Orogen
