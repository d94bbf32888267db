#include "devices/natural/CoastalErosion.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "devices/filters/blur/BlurKernels.h"
#include "framework/PortableMath.h"
#include "framework/Terrain.h"

namespace basekit {

// The level is set by hand only without the global one; the amount matters
// only while smoothing.
static const EnabledWhen kOwnLevel{"Use Global Water Level", 0};
static const EnabledWhen kSmoothing{"Smooth Underwater Features", 1};

static const ParamSpec kParameters[] = {
    {"Simulation Type", kParamChoice, 0, 0, 0, 0, nullptr, {"Simple (fast)"}},
    {"Use Global Water Level", kParamBoolean, 0, 0, 1, 0, nullptr},
    {"Water Level", kParamReal, 0.1, 0.0, 1.0, 256, nullptr, {}, 0, kOwnLevel},
    {"Beach Size", kParamReal, 0.075, 0.05, 0.5, 0, nullptr},
    {"Transition Zone", kParamChoice, kCoastSmooth, 0, 1, 0, nullptr, {"Smooth", "Cliffs"}},
    {"Transition Power", kParamReal, 0.5, 0.0, 1.0, 0, nullptr},
    {"Smooth Underwater Features", kParamBoolean, 1, 0, 1, 0, nullptr},
    {"Smoothing Amount", kParamInteger, 4, 1, 16, 0, nullptr, {}, 0, kSmoothing},
};

// The water line sits this far above the level set.
constexpr float kWaterLift = 0.0004f;

CoastalErosion::CoastalErosion() {
    SetPortCount(this, 2, 3, kHeightField);
    inputs[1]->SetName("Hardness Map");
    inputs[1]->role = kRoleOptional;
    outputs[1]->SetName("Water Map");
    outputs[1]->role = kRoleOptional;
    outputs[2]->SetName("Beach Map");
    outputs[2]->role = kRoleOptional;
    DeclareParameters(this, kParameters);
}

bool CoastalErosion::OptionQuery3(uint32_t globals) {
    return (globals & kGlobalWaterLevel) != 0 && ParamBool(this, "Use Global Water Level");
}

bool CoastalErosion::Build(const BuildContext& context) {
    PacketRef terrain = TakePrepared(context, 0);
    if (!terrain) terrain = InputPacket(context, 0);
    if (!terrain) return false;
    if (terrain->GetKind() != kHeightField) terrain = ConvertPacket(terrain, kHeightField);
    PacketRef hardness = InputPacket(context, 1);
    if (hardness) {
        hardness = ConvertPacket(hardness, kHeightField);
        CheckSameShape(*terrain, *hardness);
    }
    ReportPercent(context, this, 0);
    SetPacketName(*terrain, GetName());

    const bool smooth = ParamBool(this, "Smooth Underwater Features");
    const int32_t amount = ParamInt(this, "Smoothing Amount");
    const int32_t zone = ParamInt(this, "Transition Zone");
    float level = ParamFloat(this, "Water Level") + kWaterLift;
    const float beachSize = ParamFloat(this, "Beach Size");
    const float power = ParamFloat(this, "Transition Power");
    if (ParamBool(this, "Use Global Water Level")) {
        level = HostGlobals().waterLevel + kWaterLift;
        GetParameter(this, "Water Level")->f = level;  // the panel shows the level used
    }
    const CoastSetup setup = MakeCoastSetup(level, beachSize, zone, power);

    PacketRef water = NewPacketLike(*terrain, kHeightField);
    PacketRef beach = NewPacketLike(*terrain, kHeightField);
    const int32_t width = terrain->grid.width;
    const int32_t height = terrain->grid.height;
    const int32_t total = smooth ? 2 * height : height;
    for (int32_t y = 0; y < height; ++y) {
        const int64_t row = static_cast<int64_t>(y) * width;
        ErodeCoastRow(setup, terrain->samples + row, hardness ? hardness->samples + row : nullptr,
                      water->samples + row, beach->samples + row, width);
        ReportRow(context, this, y, total);
    }

    if (smooth) {
        float* heights = terrain->samples;
        int32_t radius = ScaleIndependent(amount, terrain->grid);
        // As the blur device: the width alone bounds the radius.
        if (radius >= width) radius = width - 1;
        // Blurred into a field of its own, so that the terrain stays as the
        // unblurred side of the blend; radius 0 blurs nothing.
        PacketRef blurred;
        if (radius > 0) {
            PacketRef scratch = NewPacketLike(*terrain, kHeightField);
            blurred = NewPacketLike(*terrain, kHeightField);
            const std::vector<float> weights = GaussianKernel(radius);
            for (int32_t pass = 0; pass < 2; ++pass) {
                const BlurPlane plane{pass == 0 ? heights : scratch->samples,
                                      pass == 0 ? scratch->samples : blurred->samples, width,
                                      height, 1};
                if (!RunRows(
                        context, this, 0, height - 1,
                        [&](int32_t first, int32_t last) {
                            GaussianBlurRows(plane, weights.data(), radius, pass, first, last);
                        },
                        kRowPieces, RowProgress::None))
                    return false;
            }
        }
        const float* smoothed = blurred ? blurred->samples : heights;
        const float* wet = water->samples;
        if (!RunRows(
                context, this, 0, height - 1,
                [&](int32_t first, int32_t last) {
                    const int64_t begin = static_cast<int64_t>(first) * width;
                    BlendUnderwater(heights + begin, smoothed + begin, wet + begin,
                                    static_cast<uint64_t>(last - first + 1) * width);
                },
                kRowPieces, RowProgress::None))
            return false;
        ReportRow(context, this, total, total);
    }

    StoreOutput(context, terrain, 0);
    StoreOutput(context, water, 1);
    StoreOutput(context, beach, 2);
    return true;
}

}  // namespace basekit
