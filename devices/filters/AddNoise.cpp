#include "devices/filters/AddNoise.h"

#include <cmath>

#include "devices/filters/shaping/ShapingPaths.h"
#include "devices/filters/shaping/ShapingRows.h"
#include "framework/PortableMath.h"
#include "framework/RandomSeed.h"
#include "framework/SampleHash.h"

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Amount", kParamReal, 0.05, 0.0, 1.0, 0,
     "The largest change that the noise makes to a height"},
    {"Noise Type", kParamChoice, 0, 0, 1, 0, nullptr, {"Uniform", "Gaussian"}},
    {"Random Seed", kParamInteger, 0, 0, 32767, 2, "Determines the features of the terrain"},
    {"Randomize", kParamAction, 0, 0, 0, 0, "Randomize the seed value"},
};

AddNoise::AddNoise() {
    SetPortCount(this, 1, 1, kHeightField);
    DeclareParameters(this, kParameters);
    GetParameter(this, "Random Seed")->i = DrawSeed();
    AttachRandomize(this);
}

bool AddNoise::OptionQuery2() {
    return RandomizeSeed(this);
}

bool AddNoise::AfterLoad(uint8_t /*version*/) {
    AttachRandomize(this);
    return true;
}

namespace {
struct Plain {};
}  // namespace

float SampleNoise(uint32_t seed, uint32_t x, uint32_t y, int32_t type) {
    const float u1 = SampleUniform(seed, x, y);
    if (type != kNoiseGaussian) return 2.0f * u1 - 1.0f;
    const float u2 = SampleUniform(seed ^ kSecondStream, x, y);
    const float n = std::sqrt(-2.0f * Log(1.0f - u1)) * Cos(6.2831855f * u2);
    return (n < -3.0f ? -3.0f : (n > 3.0f ? 3.0f : n)) / 3.0f;
}

void AddNoiseRow(float* row, int32_t width, int32_t y, uint32_t seed, float amount, int32_t type,
                 VectorPath path) {
    const auto rowY = static_cast<uint32_t>(y);
    if (type != kNoiseGaussian) {
        if (shaping::UseAvx2(path))
            shaping::UniformNoiseRowAvx2(row, width, rowY, seed, amount);
        else
            shaping::UniformNoiseRow<Plain>(row, width, rowY, seed, amount);
        return;
    }
    if (shaping::UseAvx2(path))
        shaping::GaussianNoiseRowAvx2(row, width, rowY, seed, amount);
    else
        shaping::GaussianNoiseRow<Plain>(row, width, rowY, seed, amount);
}

bool AddNoise::Build(const BuildContext& context) {
    PacketRef field = WorkingInput(context, kHeightField);
    if (!field) return false;
    const float amount = ParamFloat(this, "Amount");
    const int32_t type = ParamInt(this, "Noise Type");
    const auto seed = static_cast<uint32_t>(ParamInt(this, "Random Seed"));
    ReportPercent(context, this, 0);
    if (field->samples && field->PointCount() > 0) {
        const int32_t width = field->grid.width;
        float* samples = field->samples;
        if (!ForEachRow(
                context, this, 0, field->grid.height - 1,
                [&](int32_t y) {
                    AddNoiseRow(samples + static_cast<int64_t>(y) * width, width, y, seed, amount,
                                type);
                },
                kRowPieces, RowProgress::Rows))
            return false;
    }
    ReportPercent(context, this, 100);
    StoreOutput(context, field, 0);
    return true;
}

}  // namespace basekit
