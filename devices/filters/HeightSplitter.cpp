#include "devices/filters/HeightSplitter.h"

#include "devices/filters/shaping/ShapingPaths.h"
#include "devices/filters/shaping/ShapingRows.h"

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Split Height", kParamReal, 0.5, 0.0, 1.0, 0, "The height at which the terrain is split"},
    {"Transition", kParamReal, 0.05, 0.0, 0.5, 0, "The width of the soft edge of the split mask"},
};

HeightSplitter::HeightSplitter() {
    SetPortCount(this, 1, 3, kHeightField);
    outputs[0]->SetName("Lower Part");
    outputs[1]->SetName("Upper Part");
    outputs[2]->SetName("Split Mask");
    outputs[2]->role = kRoleOptional;
    DeclareParameters(this, kParameters);
}

namespace {
struct Plain {};
}  // namespace

void SplitSamples(float* heights, float* upper, float* mask, uint64_t count, float split,
                  float transition, VectorPath path) {
    if (shaping::UseAvx2(path))
        shaping::SplitRowsAvx2(heights, upper, mask, count, split, transition);
    else
        shaping::SplitRows<Plain>(heights, upper, mask, count, split, transition);
}

bool HeightSplitter::Build(const BuildContext& context) {
    PacketRef lower = WorkingInput(context, kHeightField);
    if (!lower) return false;
    PacketRef upper = NewPacketLike(*lower, kHeightField);
    PacketRef mask = NewPacketLike(*lower, kHeightField);
    const float split = ParamFloat(this, "Split Height");
    const float transition = ParamFloat(this, "Transition");
    ReportPercent(context, this, 0);
    if (lower->samples && lower->PointCount() > 0) {
        const int32_t width = lower->grid.width;
        float* lowerRows = lower->samples;
        float* upperRows = upper->samples;
        float* maskRows = mask->samples;
        if (!RunRows(
                context, this, 0, lower->grid.height - 1,
                [&](int32_t first, int32_t last) {
                    const int64_t at = static_cast<int64_t>(first) * width;
                    SplitSamples(lowerRows + at, upperRows + at, maskRows + at,
                                 static_cast<uint64_t>(last - first + 1) * width, split,
                                 transition);
                },
                kRowPieces, RowProgress::Rows))
            return false;
    }
    upper->maskFlag = lower->maskFlag;
    mask->maskFlag = 1;
    ReportPercent(context, this, 100);
    StoreOutput(context, lower, 0);
    StoreOutput(context, upper, 1);
    StoreOutput(context, mask, 2);
    return true;
}

}  // namespace basekit
