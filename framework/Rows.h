// Row work on the host's threads: the one way a device runs rows in
// parallel. Pieces of consecutive rows go to the calling thread and the
// workers the host lends; every piece writes rows of its own, so results do
// not depend on how many threads ran them.
#pragma once

#include <cstdint>
#include <functional>
#include <type_traits>

#include "framework/Port.h"

namespace Orogen {

class Device;

// What a row run reports after each piece. A false answer cancels the run.
enum class RowProgress {
    Pieces,   // ReportItems(device, pieces done, pieces)
    Rows,     // ReportRow(device, the last row of those done, rows), as a row loop reports
              // the index of the row it just finished
    Percent,  // ReportPercent(device, share of the rows done), ending with 100
    None,     // nothing: one pass of several, whose caller reports between passes
};

// The pieces most row work is cut into: enough to keep 16 threads busy.
constexpr uint32_t kRowPieces = 48;

// Rows first..last (inclusive) cut into `pieces` runs of consecutive rows as
// ThreadHelperScanline cuts them, each handed to `work(firstRow, lastRow)`.
// False when the build was cancelled, a piece answered false or a piece threw
// a QXException; other exceptions reach the caller. An empty range is true.
bool RunRows(const BuildContext& context, Device* device, int32_t first, int32_t last,
             const std::function<bool(int32_t, int32_t)>& work, uint32_t pieces = kRowPieces,
             RowProgress progress = RowProgress::Pieces);

// The same for pieces that always succeed: `work(firstRow, lastRow)` returns nothing.
template <class PieceFunction>
requires std::is_void_v<std::invoke_result_t<PieceFunction&, int32_t, int32_t>>
bool RunRows(const BuildContext& context, Device* device, int32_t first, int32_t last,
             PieceFunction work, uint32_t pieces = kRowPieces,
             RowProgress progress = RowProgress::Pieces) {
    return RunRows(context, device, first, last,
                   std::function<bool(int32_t, int32_t)>([&](int32_t from, int32_t to) {
                       work(from, to);
                       return true;
                   }),
                   pieces, progress);
}

// The same, one row at a time: `row(y)`.
template <class RowFunction>
bool ForEachRow(const BuildContext& context, Device* device, int32_t first, int32_t last,
                RowFunction row, uint32_t pieces = kRowPieces,
                RowProgress progress = RowProgress::Pieces) {
    return RunRows(
        context, device, first, last,
        [&](int32_t from, int32_t to) {
            for (int32_t y = from; y <= to; ++y) row(y);
        },
        pieces, progress);
}

// Progress calls for devices; without a progress interface they do nothing
// and ReportRow answers true. ReportRow answers false when the build is to stop.
void ReportPercent(const BuildContext& context, Device* device, int32_t percent);
bool ReportRow(const BuildContext& context, Device* device, int32_t row, int32_t total);

}  // namespace Orogen
