#include "devices/natural/CoastalErosion.h"

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
// Depth below the water line at which the water mask reaches 1.
constexpr float kFullWater = 0.0175f;

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

CoastSetup MakeCoastSetup(float water, float beach, int32_t zone, float power) {
    const float g = 0.45f * power + 0.5f;
    const auto exponent = static_cast<float>(Orogen::Log(1.0 - g) / Orogen::Log(0.5));
    return {water, beach, zone, power, exponent};
}

float CoastGain(float u, float exponent) {
    if (u < 0.5f) return 0.5f * Orogen::Pow(2.0f * u, exponent);
    return 1.0f - 0.5f * Orogen::Pow(2.0f - 2.0f * u, exponent);
}

void ErodeCoastRow(const CoastSetup& s, float* heights, const float* hardness, float* water,
                   float* beach, int32_t count) {
    const float W = s.water;
    for (int32_t x = 0; x < count; ++x) {
        const float h = heights[x];
        const float d = h - W;
        const float b = hardness ? s.beach * hardness[x] : s.beach;
        float wet = 0.0f, shore = 0.0f;
        if (d > 0.0f && b >= d) {
            float u = d / b;
            if (s.zone == kCoastCliffs)
                u = u + (u * u * u - u) * s.power;
            else
                u = CoastGain(u, s.exponent);
            heights[x] = d * u + W;
            shore = 1.0f - u;
        } else if (d < 0.0f) {
            if (d >= -b) {
                const float q = d / b;
                const float f = q * q;
                heights[x] = d * f + W;
                shore = 1.0f - f;
            }
            wet = (W - heights[x]) / kFullWater;
            if (!(wet < 1.0f)) wet = 1.0f;
        }
        water[x] = wet;
        beach[x] = shore;
    }
}

void BlendUnderwater(float* heights, const float* before, const float* water, uint64_t count) {
    for (uint64_t i = 0; i < count; ++i)
        heights[i] = before[i] + (heights[i] - before[i]) * water[i];
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
        const uint64_t count = terrain->PointCount();
        float* heights = terrain->samples;
        PacketRef before = NewPacketLike(*terrain, kHeightField);
        if (count > 0) std::memcpy(before->samples, heights, count * sizeof(float));
        int32_t radius = ScaleIndependent(amount, terrain->grid);
        // As the blur device: the width alone bounds the radius.
        if (radius >= width) radius = width - 1;
        if (radius > 0) {
            PacketRef scratch = NewPacketLike(*terrain, kHeightField);
            const std::vector<float> weights = GaussianKernel(radius);
            for (int32_t pass = 0; pass < 2; ++pass) {
                const BlurPlane plane{pass == 0 ? heights : scratch->samples,
                                      pass == 0 ? scratch->samples : heights, width, height, 1};
                if (!RunRows(
                        context, this, 0, height - 1,
                        [&](int32_t first, int32_t last) {
                            GaussianBlurRows(plane, weights.data(), radius, pass, first, last);
                        },
                        kRowPieces, RowProgress::None))
                    return false;
            }
        }
        const float* unblurred = before->samples;
        const float* wet = water->samples;
        if (!RunRows(
                context, this, 0, height - 1,
                [&](int32_t first, int32_t last) {
                    const int64_t begin = static_cast<int64_t>(first) * width;
                    BlendUnderwater(heights + begin, unblurred + begin, wet + begin,
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
