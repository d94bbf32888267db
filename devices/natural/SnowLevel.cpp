#include "devices/natural/SnowLevel.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "framework/PortableMath.h"
#include "framework/Terrain.h"

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Intensity", kParamReal, 0.5, 0.0, 1.0, 0, nullptr},
    {"Evaporative Balance", kParamReal, 1.0, 0.0, 2.0, 0, nullptr},
    {"Snow Amount", kParamInteger, 15, 0, 100, 0, nullptr},
    {"Snow Line", kParamReal, 0.01, 0.0, 1.0, 0, nullptr},
    {"Linear Depthmask", kParamBoolean, 0, 0, 1, 0, nullptr},
    {"Depthmask Cutoff", kParamReal, 30.0, 1.0, 500.0, 0, nullptr},
    {"Taper Snowfall", kParamBoolean, 0, 0, 1, 0, nullptr},
};

// The passes are cut into this many pieces of rows.
constexpr uint32_t kSnowPieces = 16;

SnowLevel::SnowLevel() {
    SetPortCount(this, 3, 2, kHeightField);
    inputs[1]->SetName("Snowfall Intensity");
    inputs[1]->role = kRoleOptional;
    inputs[2]->SetName("Evaporation Intensity");
    inputs[2]->role = kRoleOptional;
    outputs[1]->SetName("Snow Depth Mask");
    outputs[1]->role = kRoleOptional;
    DeclareParameters(this, kParameters);
}

SnowScale ScaleSnow(const Grid& grid, float intensity, float balance, int32_t amount) {
    const double perUnit = SamplesPerUnit(grid);
    SnowScale s;
    // A zero extent divides by zero: an infinite fall that the clamps bound.
    s.fall = intensity * 0.64f / static_cast<float>(perUnit);
    s.evaporation = s.fall * balance;
    const double passes = amount * perUnit * 0.015625;
    s.passes = passes > 0.0 ? static_cast<int32_t>(std::min(passes, double{kMaxSnowPasses})) : 0;
    return s;
}

void AddSnow(float* terrain, const float* snow, uint64_t count, float evaporation) {
    for (uint64_t i = 0; i < count; ++i)
        terrain[i] = terrain[i] + std::clamp(snow[i] - evaporation, 0.0f, 1.0f);
}

void LogDepthMask(float* snow, uint64_t count, float cutoff) {
    const float k = 4.0f / Log10(cutoff + 1.0f);
    ClampHeights(snow, count);
    for (uint64_t i = 0; i < count; ++i) snow[i] = k * Log10(cutoff * snow[i] + 1.0f);
    ClampHeights(snow, count);
}

bool SnowLevel::Build(const BuildContext& context) {
    PacketRef terrain = TakePrepared(context, 0);
    if (!terrain) terrain = InputPacket(context, 0);
    if (!terrain) return false;
    if (terrain->GetKind() != kHeightField) terrain = ConvertPacket(terrain, kHeightField);
    PacketRef fallMap = InputPacket(context, 1);
    PacketRef evaporationMap = InputPacket(context, 2);
    if (fallMap) {
        fallMap = ConvertPacket(fallMap, kHeightField);
        CheckSameShape(*terrain, *fallMap);
    }
    if (evaporationMap) {
        evaporationMap = ConvertPacket(evaporationMap, kHeightField);
        CheckSameShape(*terrain, *evaporationMap);
    }

    const float intensity = ParamFloat(this, "Intensity");
    const float balance = ParamFloat(this, "Evaporative Balance");
    const int32_t amount = ParamInt(this, "Snow Amount");
    const float snowLine = ParamFloat(this, "Snow Line");
    const bool linearMask = ParamBool(this, "Linear Depthmask");
    const float cutoff = ParamFloat(this, "Depthmask Cutoff");
    const bool taper = ParamBool(this, "Taper Snowfall");
    const SnowScale scale = ScaleSnow(terrain->grid, intensity, balance, amount);

    const Grid& grid = terrain->grid;
    const uint64_t count = terrain->PointCount();
    SnowPass pass;
    pass.terrain = terrain->samples;
    pass.width = grid.width;
    pass.height = grid.height;
    pass.fall = {fallMap ? fallMap->samples : nullptr, scale.fall};
    pass.evaporation = {evaporationMap ? evaporationMap->samples : nullptr, scale.evaporation};
    pass.snowLine = snowLine;

    // The first snowfall, in both buffers of the ping-pong pair: the border
    // is never written and keeps it.
    PacketRef snow = NewPacketLike(*terrain, kHeightField);
    PacketRef next = NewPacketLike(*terrain, kHeightField);
    for (uint64_t i = 0; i < count; ++i) snow->samples[i] = pass.fall.At(i);
    if (count > 0) std::memcpy(next->samples, snow->samples, count * sizeof(float));

    for (int32_t k = 0; k < scale.passes; ++k) {
        pass.taper = taper ? 1.0f - static_cast<float>(k) / static_cast<float>(scale.passes) : 0.0f;
        pass.snow = snow->samples;
        pass.next = next->samples;
        if (!RunRows(
                context, this, 1, grid.height - 2,
                [&pass](int32_t first, int32_t last) { SnowPassRows(pass, first, last); },
                kSnowPieces, RowProgress::None))
            return false;
        std::swap(snow, next);
        if (!ReportRow(context, this, k, scale.passes)) return false;
    }
    next.Release();

    float* heights = terrain->samples;
    float* depth = snow->samples;
    const int32_t width = grid.width;
    const auto rows = [&](int32_t first, int32_t last) {
        const uint64_t begin = static_cast<uint64_t>(first) * width;
        const uint64_t n = static_cast<uint64_t>(last - first + 1) * width;
        AddSnow(heights + begin, depth + begin, n, scale.evaporation);
        ClampHeights(heights + begin, n);
        if (linearMask)
            ClampHeights(depth + begin, n);
        else
            LogDepthMask(depth + begin, n, cutoff);
    };
    if (!RunRows(context, this, 0, grid.height - 1, rows, kRowPieces, RowProgress::None))
        return false;

    StoreOutput(context, terrain, 0);
    StoreOutput(context, snow, 1);
    return true;
}

}  // namespace basekit
