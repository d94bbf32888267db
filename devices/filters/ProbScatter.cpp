#include "devices/filters/ProbScatter.h"

#include <cmath>
#include <cstring>

#include "devices/filters/shaping/ShapingPaths.h"
#include "devices/filters/shaping/ShapingRows.h"
#include "framework/RandomSeed.h"
#include "framework/SampleHash.h"

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Density", kParamReal, 1.0, 0.0, 1.0, 0, "Scales the chance of a point everywhere"},
    {"Spacing", kParamReal, 0.0, 0.0, 1.0, 0,
     "The least distance between points, in world units; 0 allows a point at every sample"},
    {"Random Seed", kParamInteger, 0, 0, 32767, 2, "Determines the features of the terrain"},
    {"Randomize", kParamAction, 0, 0, 0, 0, "Randomize the seed value"},
};

ProbScatter::ProbScatter() {
    SetPortCount(this, 1, 1, kHeightField);
    DeclareParameters(this, kParameters);
    GetParameter(this, "Random Seed")->i = DrawSeed();
    AttachRandomize(this);
}

bool ProbScatter::AfterLoad(uint8_t /*version*/) {
    AttachRandomize(this);
    return true;
}

namespace {

struct Plain {};

// The chance in 0..1 (NaN counts as certain) times the density.
inline float Chance(float v, float density) {
    return ClampHeight(v) * density;
}

// Cells of 2d along a side of `extent`: those whose candidate can fall inside.
uint64_t CellsAlong(float extent, float d) {
    if (!(extent >= 0.0f)) return 0;
    // Capped at 2^31 a side, so that the product of two stays exact; a grid
    // anywhere near that fails the build's cell limit anyway.
    const double cells = std::floor(static_cast<double>(extent) / (2.0 * d)) + 1.0;
    return cells < 2147483648.0 ? static_cast<uint64_t>(cells) : uint64_t{1} << 31;
}

// Column or row of the sample nearest to world offset v on an axis of
// `samples` samples over `extent`: half-way rounds away from the corner.
inline int64_t NearestSample(float v, float extent, int32_t samples) {
    if (samples <= 1 || !(extent > 0.0f)) return 0;
    return std::llround(v / extent * static_cast<float>(samples - 1));
}

}  // namespace

void ScatterRow(const float* chance, float* out, int32_t width, int32_t y, uint32_t seed,
                float density, VectorPath path) {
    if (out != chance) std::memcpy(out, chance, static_cast<size_t>(width) * sizeof(float));
    const auto row = static_cast<uint32_t>(y);
    if (shaping::UseAvx2(path))
        shaping::ScatterRowAvx2(out, width, row, seed, density);
    else
        shaping::ScatterRow<Plain>(out, width, row, seed, density);
}

void ScatterCandidate(uint32_t seed, uint32_t i, uint32_t j, float d, float& x, float& y) {
    x = (static_cast<float>(2 * i) + 0.5f + SampleUniform(seed, i, j)) * d;
    y = (static_cast<float>(2 * j) + 0.5f + SampleUniform(seed ^ kSecondStream, i, j)) * d;
}

uint64_t ScatterCells(const ScatterField& field, float d) {
    return CellsAlong(field.extentX, d) * CellsAlong(field.extentY, d);
}

bool SpacedScatterFits(const ScatterField& field, float d) {
    // Beyond 64 candidates per sample the cells are far below a sample and
    // the spacing means nothing; the build refuses rather than run for ages.
    const uint64_t samples =
        static_cast<uint64_t>(field.width) * static_cast<uint64_t>(field.height);
    return d > 0.0f && ScatterCells(field, d) <= 64 * samples + 4096;
}

void ScatterSpaced(const ScatterField& field, float* out, float d, uint32_t seed, float density) {
    const uint64_t across = CellsAlong(field.extentX, d), down = CellsAlong(field.extentY, d);
    for (uint64_t j = 0; j < down; ++j) {
        for (uint64_t i = 0; i < across; ++i) {
            float x, y;
            const auto ci = static_cast<uint32_t>(i), cj = static_cast<uint32_t>(j);
            ScatterCandidate(seed, ci, cj, d, x, y);
            if (x > field.extentX || y > field.extentY) continue;
            const int64_t column = NearestSample(x, field.extentX, field.width);
            const int64_t row = NearestSample(y, field.extentY, field.height);
            const int64_t at = row * field.width + column;
            if (SampleUniform(seed ^ kThirdStream, ci, cj) < Chance(field.chance[at], density))
                out[at] = 1.0f;
        }
    }
}

bool ProbScatter::Build(const BuildContext& context) {
    PacketRef input = WorkingInput(context, kHeightField);
    if (!input) return false;
    const float density = ParamFloat(this, "Density");
    const float spacing = ParamFloat(this, "Spacing");
    const auto seed = static_cast<uint32_t>(ParamInt(this, "Random Seed"));
    const Grid& grid = input->grid;
    const ScatterField field{input->samples, grid.width, grid.height,
                             static_cast<float>(grid.x1 - grid.x0),
                             static_cast<float>(grid.y1 - grid.y0)};
    ReportPercent(context, this, 0);
    PacketRef points;
    if (!input->samples || input->PointCount() == 0) {
        points = input;
    } else if (spacing > 0.0f) {
        if (!SpacedScatterFits(field, spacing)) return false;
        points = NewPacketLike(*input, kHeightField);
        std::memset(points->samples, 0, input->PointCount() * sizeof(float));
        // One pass over the cells: cells smaller than a sample may share one,
        // so rows of cells cannot be split between threads.
        ScatterSpaced(field, points->samples, spacing, seed, density);
    } else {
        points = input;
        float* samples = input->samples;
        const int32_t width = grid.width;
        if (!ForEachRow(
                context, this, 0, grid.height - 1,
                [&](int32_t y) {
                    float* row = samples + static_cast<int64_t>(y) * width;
                    ScatterRow(row, row, width, y, seed, density);
                },
                kRowPieces, RowProgress::Rows))
            return false;
    }
    points->maskFlag = 1;
    ReportPercent(context, this, 100);
    StoreOutput(context, points, 0);
    return true;
}

}  // namespace basekit
