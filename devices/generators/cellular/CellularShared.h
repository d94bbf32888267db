// What the plain search, the row driver and the vector widths of the cellular
// search share: the lattice's hash, the searched cubes, the box of points a
// tile of samples draws on, and the entry points of each vector width.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "devices/generators/cellular/CellularKernels.h"

namespace basekit::cellular {

constexpr uint32_t kHashX = 702395077u;
constexpr uint32_t kHashY = 915488749u;
constexpr uint32_t kHashZ = 2120969693u;
constexpr uint32_t kStepMul = 1402024253u;
constexpr uint32_t kStepAdd = 586950981u;
constexpr double kUnit = 2.3283064365386963e-10;  // 2^-32
constexpr double kFar = 999999.9;

// Feature points per cube, indexed by the top byte of the cube's hash.
constexpr char kCountDigits[] =
    "4311124222510212204321213224225123222223242532225335213344230422"
    "2132223331202112222532323221021121221342225424225432254333522222"
    "3114213343243334514243123532131333231554224134153353432211111245"
    "4542151123332523320211421321223255345524453222142334254242224532";
static_assert(sizeof(kCountDigits) == 257);

// 32-bit entries so the vector paths can gather them.
constexpr std::array<int32_t, 256> kPointCount = [] {
    std::array<int32_t, 256> table{};
    for (int i = 0; i < 256; ++i) table[i] = kCountDigits[i] - '0';
    return table;
}();

// The home cube, then the neighbours in the order they are searched: faces,
// edges, corners.
struct CubeOffset {
    int dx, dy, dz;
};
// clang-format off
constexpr CubeOffset kCubeOrder[27] = {
    {0, 0, 0},
    {-1, 0, 0},   {0, -1, 0},  {0, 0, -1},  {1, 0, 0},   {0, 1, 0},   {0, 0, 1},
    {-1, -1, 0},  {-1, 0, -1}, {0, -1, -1}, {1, 1, 0},   {1, 0, 1},   {0, 1, 1},
    {-1, 1, 0},   {-1, 0, 1},  {0, -1, 1},  {1, -1, 0},  {1, 0, -1},  {0, 1, -1},
    {-1, -1, -1}, {-1, -1, 1}, {-1, 1, -1}, {-1, 1, 1},  {1, -1, -1}, {1, -1, 1},
    {1, 1, -1},   {1, 1, 1},
};
// clang-format on

inline uint32_t Step(uint32_t r) {
    return kStepMul * r + kStepAdd;
}

// Truncation with the x86 conversion's answer for NaN and out-of-range values
// (INT32_MIN), so the plain and vector paths agree on every input.
inline int32_t Truncate(double v) {
    if (v > -2147483649.0 && v < 2147483648.0) return static_cast<int32_t>(v);
    return INT32_MIN;
}

// Floor as truncation then one down for a negative value that is not whole;
// wraps like the vector paths' 32-bit lanes.
inline int32_t FloorToCube(double v) {
    int32_t t = Truncate(v);
    if (v < static_cast<double>(t)) t = static_cast<int32_t>(static_cast<uint32_t>(t) - 1u);
    return t;
}

// ---------------------------------------------------------------------------
// The vector paths share the feature points of the cubes around a tile of
// samples: a dense box of cubes, each holding its count and its points'
// absolute coordinates (cube corner + offset, the same doubles the plain
// search forms), so a sample's distance is one subtraction per axis away.

constexpr int kMaxPoints = 5;
constexpr int kColumnBlock = 256;  // columns of a tile
constexpr int kBandRows = 16;      // rows of a tile
constexpr int64_t kMaxBoxCubes = 16384;

struct CubeBox {
    int32_t x0 = 0, y0 = 0, z0 = 0;  // lowest cube
    int nx = 0, ny = 0, nz = 0;
    std::vector<int32_t> count;
    std::vector<double> px, py, pz;  // [cube * kMaxPoints + point]
    std::vector<uint32_t> id;
    std::vector<double> ty, tz;  // one row's y and z distance terms, see FillRowTerms
    int32_t delta[27] = {};      // cube index offset of each searched neighbour

    int32_t Index(int32_t cx, int32_t cy, int32_t cz) const {
        return ((cx - x0) * ny + (cy - y0)) * nz + (cz - z0);
    }
};

// Runs: consecutive samples of an undistorted row that share their home cube,
// so they share y, z and every cube they may visit. The run is searched cube
// by cube; for each cube only the sets of lanes that must visit it do the
// work, and their state waits here in between. Compared with searching each
// set on its own, the data-dependent branches (whether a cube is visited at
// all) are taken once per run instead of once per set.
struct RunLanes {
    alignas(64) double x[kColumnBlock];
    // Squared distances to the home cube's low x face, 0, and its high x face,
    // so that tx[dx + 1] is the x term of a neighbour's bound.
    alignas(64) double tx[3][kColumnBlock];
    alignas(64) double f[4][kColumnBlock];
    alignas(64) uint32_t id32[4][kColumnBlock];  // identifiers of widths with 32-bit id lanes
    alignas(64) uint64_t id64[4][kColumnBlock];  // identifiers of widths with 64-bit id lanes
};

// The points of a run's 27 cubes in search order, for runs of one set of
// lanes: there a branch per cube (and a point loop of varying length per
// cube) costs more than the work it saves.
struct FlatPoints {
    alignas(64) double bound[27][8];  // each lane's squared distance to each cube
    // Box index, cube number and whether it is its cube's first point, for
    // each point. Each cube writes 8 entries and the next starts where its
    // points end, hence the spare room.
    alignas(32) int32_t at[27 * kMaxPoints + 8];
    uint8_t cube[27 * kMaxPoints + 8];
    uint8_t fresh[27 * kMaxPoints + 8];
};

// The entry points of one vector width for one distance function and one
// count of tracked identifiers (kIds: how many of the nearest identifiers the
// style needs; the others are not tracked and come back as 0). Each searches
// `width` samples at once and gives the plain search's bits.
struct LaneKernels {
    int width = 0;
    bool ids64 = false;  // the run's identifiers are in RunLanes::id64, else id32
    // Lanes with their own cubes, searched directly from the hash.
    void (*search)(const double* xs, const double* ys, double z, uint32_t seed,
                   CellularResult* out) = nullptr;
    // Lanes with their own x and y (distorted rows), through a filled box;
    // homes are the lanes' home cubes as box indices.
    void (*searchBox)(const CubeBox& box, const double* xs, const double* ys, double z,
                      const int32_t* ixs, const int32_t* iys, int32_t iz, const int32_t* homes,
                      CellularResult* out) = nullptr;
    // A run of `sets` sets of lanes in run.x sharing the home cube (ix, iy, iz),
    // box index `home`; the row's y and z terms are in the box.
    void (*searchRun)(const CubeBox& box, RunLanes& run, int sets, double y, double z, int32_t ix,
                      int32_t iy, int32_t iz, int32_t home) = nullptr;
    // Widths that have them: a run of one set searched through a flat point
    // list, and two such runs (lanes 0.. and width..) side by side.
    void (*searchShortRun)(const CubeBox& box, RunLanes& run, FlatPoints& flat, double y, double z,
                           int32_t ix, int32_t iy, int32_t iz, int32_t home) = nullptr;
    void (*searchShortRuns)(const CubeBox& box, RunLanes& run, FlatPoints flat[2], double y,
                            double z, const int32_t ix[2], int32_t iy, int32_t iz,
                            const int32_t home[2]) = nullptr;
};

// The table of one width for a distance and the identifiers a style reads
// (0, 1 or 4): `Width::Table<Dist, kIds>()` makes the width's own.
template <class Width, CellDistance Dist>
LaneKernels KernelsWithIds(int kIds) {
    if (kIds == 0) return Width::template Table<Dist, 0>();
    if (kIds == 1) return Width::template Table<Dist, 1>();
    return Width::template Table<Dist, 4>();
}

template <class Width>
LaneKernels KernelsFor(CellDistance distance, int kIds) {
    switch (distance) {
        case CellDistance::Euclidean:
            return KernelsWithIds<Width, CellDistance::Euclidean>(kIds);
        case CellDistance::Manhattan:
            return KernelsWithIds<Width, CellDistance::Manhattan>(kIds);
        case CellDistance::Alternate1:
            return KernelsWithIds<Width, CellDistance::Alternate1>(kIds);
        case CellDistance::Alternate2:
            return KernelsWithIds<Width, CellDistance::Alternate2>(kIds);
    }
    return {};
}

// kIds is 0, 1 or 4. Only to be called where the path is available.
LaneKernels Avx2Kernels(CellDistance distance, int kIds);
LaneKernels Avx512Kernels(CellDistance distance, int kIds);

}  // namespace basekit::cellular
