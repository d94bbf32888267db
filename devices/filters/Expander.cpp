#include "devices/filters/Expander.h"

#include <limits>
#include <vector>

#include "framework/Ramps.h"

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

HeightRange FindHeightRange(const float* samples, uint64_t count) {
    // Eight running extremes side by side: element-wise selects, which
    // vectorise where one running pair would not. +-inf start values keep
    // the loop free of a first-sample branch; NaN fails both comparisons and
    // is left out.
    constexpr int kLanes = 8;
    constexpr float kInfinity = std::numeric_limits<float>::infinity();
    float low[kLanes], high[kLanes];
    for (int k = 0; k < kLanes; ++k) low[k] = kInfinity, high[k] = -kInfinity;
    uint64_t i = 0;
    for (; i + kLanes <= count; i += kLanes) {
        for (int k = 0; k < kLanes; ++k) {
            const float v = samples[i + k];
            low[k] = v < low[k] ? v : low[k];
            high[k] = v > high[k] ? v : high[k];
        }
    }
    for (; i < count; ++i) {
        const float v = samples[i];
        low[0] = v < low[0] ? v : low[0];
        high[0] = v > high[0] ? v : high[0];
    }
    float lowest = low[0], highest = high[0];
    for (int k = 1; k < kLanes; ++k) {
        lowest = low[k] < lowest ? low[k] : lowest;
        highest = high[k] > highest ? high[k] : highest;
    }
    HeightRange range;
    if (lowest <= highest) range.lowest = lowest, range.highest = highest;
    return range;
}

void ExpandSamples(float* samples, uint64_t count, const HeightRange& range, float low,
                   float high) {
    const float m = range.lowest, size = range.highest - range.lowest, span = high - low;
    if (!range.Found() || !(range.highest > range.lowest)) {
        const float flat = ClampHeight(low);
        for (uint64_t i = 0; i < count; ++i) samples[i] = flat;
        return;
    }
    for (uint64_t i = 0; i < count; ++i)
        samples[i] = ClampHeight(low + ((samples[i] - m) / size) * span);
}

bool Expander::Build(const BuildContext& context) {
    PacketRef field = TakePrepared(context, 0);
    if (!field) field = InputPacket(context, 0);
    if (!field) return false;
    field = ConvertPacket(field, kHeightField);
    if (field->GetKind() != kHeightField) return false;
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
