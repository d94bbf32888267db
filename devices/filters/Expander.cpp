#include "devices/filters/Expander.h"

#include <vector>

#include "devices/filters/shaping/ShapingPaths.h"
#include "devices/filters/shaping/ShapingRows.h"

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Low", kParamReal, 0.0, 0.0, 1.0, 0,
     "The height that the lowest point of the terrain is moved to"},
    {"High", kParamReal, 1.0, 0.0, 1.0, 0,
     "The height that the highest point of the terrain is moved to"},
};

Expander::Expander() {
    SetPortCount(this, 1, 1, kHeightField);
    DeclareParameters(this, kParameters);
}

void HeightRange::Add(const HeightRange& other) {
    if (!other.Found()) return;
    if (!Found()) {
        *this = other;
        return;
    }
    if (other.lowest < lowest) lowest = other.lowest;
    if (other.highest > highest) highest = other.highest;
}

namespace {
struct Plain {};
}  // namespace

HeightRange FindHeightRange(const float* samples, uint64_t count, VectorPath path) {
    float lowest, highest;
    if (shaping::UseAvx2(path))
        shaping::RangeRowsAvx2(samples, count, lowest, highest);
    else
        shaping::RangeRows<Plain>(samples, count, lowest, highest);
    HeightRange range;
    if (lowest <= highest) range.lowest = lowest, range.highest = highest;
    return range;
}

void ExpandSamples(float* samples, uint64_t count, const HeightRange& range, float low, float high,
                   VectorPath path) {
    if (!range.Found() || !(range.highest > range.lowest)) {
        const float flat = ClampHeight(low);
        for (uint64_t i = 0; i < count; ++i) samples[i] = flat;
        return;
    }
    const float size = range.highest - range.lowest, span = high - low;
    if (shaping::UseAvx2(path))
        shaping::ExpandRowsAvx2(samples, count, range.lowest, size, low, span);
    else
        shaping::ExpandRows<Plain>(samples, count, range.lowest, size, low, span);
}

bool Expander::Build(const BuildContext& context) {
    PacketRef field = WorkingInput(context, kHeightField);
    if (!field) return false;
    const float low = ParamFloat(this, "Low");
    const float high = ParamFloat(this, "High");
    ReportPercent(context, this, 0);
    if (field->samples && field->PointCount() > 0) {
        const int32_t width = field->grid.width, height = field->grid.height;
        float* samples = field->samples;
        // One range per row, gathered in row order: the same at any thread count.
        std::vector<HeightRange> rows(static_cast<size_t>(height));
        if (!ForEachRow(
                context, this, 0, height - 1,
                [&](int32_t y) {
                    rows[static_cast<size_t>(y)] =
                        FindHeightRange(samples + static_cast<int64_t>(y) * width, width);
                },
                kRowPieces, RowProgress::None))
            return false;
        HeightRange range;
        for (const HeightRange& row : rows) range.Add(row);
        if (!RunRows(
                context, this, 0, height - 1,
                [&](int32_t first, int32_t last) {
                    ExpandSamples(samples + static_cast<int64_t>(first) * width,
                                  static_cast<uint64_t>(last - first + 1) * width, range, low,
                                  high);
                },
                kRowPieces, RowProgress::Rows))
            return false;
    }
    ReportPercent(context, this, 100);
    StoreOutput(context, field, 0);
    return true;
}

}  // namespace basekit
