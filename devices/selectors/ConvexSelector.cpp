#include "devices/selectors/ConvexSelector.h"

#include "devices/selectors/SelectorKernels.h"
#include "framework/Terrain.h"

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Strength", kParamReal, 1.0, 0.0, 4.0, 0, nullptr},
};

ConvexSelector::ConvexSelector() {
    SetPortCount(this, 1, 1, kHeightField);
    DeclareParameters(this, kParameters);
}

bool ConvexSelector::Build(const BuildContext& context) {
    PacketRef terrain = InputPacket(context, 0);
    if (!terrain) return false;
    terrain = ConvertPacket(terrain, kHeightField);
    if (terrain->GetKind() != kHeightField) return false;
    PacketRef convexity = FreshOutput(context, 0, *terrain);
    const float gain =
        static_cast<float>(SamplesPerUnit(terrain->grid)) * ParamFloat(this, "Strength");
    ReportPercent(context, this, 0);
    const int32_t width = terrain->grid.width, height = terrain->grid.height;
    if (terrain->PointCount() > 0 &&
        !RunRows(context, this, 0, height - 1, [&](int32_t first, int32_t last) {
            ConvexRows(terrain->samples, width, height, gain, first, last, convexity->samples);
        }))
        return false;
    ClampHeights(convexity.get());
    convexity->maskFlag = 1;
    StoreOutput(context, convexity, 0);
    return true;
}

}  // namespace basekit
