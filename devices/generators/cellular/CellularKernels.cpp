// The plain cellular search, its output styles, and the row kernel: the plain
// rows, and the tiles of samples the vector widths search through a shared
// box of cubes.

#include "devices/generators/cellular/CellularKernels.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "devices/generators/cellular/CellularShared.h"

namespace basekit {
namespace cellular {
namespace {

template <CellDistance M>
inline double Distance(double x, double y, double z) {
    if constexpr (M == CellDistance::Euclidean) {
        return x * x + y * y + z * z;
    } else if constexpr (M == CellDistance::Manhattan) {
        return std::fabs(x) + std::fabs(y) + std::fabs(z);
    } else if constexpr (M == CellDistance::Alternate1) {
        double ax = std::fabs(x), ay = std::fabs(y), az = std::fabs(z);
        double m = ax > ay ? ax : ay;
        return m > az ? m : az;
    } else {
        double ax = std::fabs(x), ay = std::fabs(y), az = std::fabs(z);
        if (ax >= ay && ax >= az) return ax + std::sqrt(y * y + z * z);
        if (ay >= az) return ay + std::sqrt(x * x + z * z);
        return az + std::sqrt(x * x + y * y);
    }
}

// Strict insertion: an equal distance goes after the one already held.
inline void Insert(CellularResult& r, double d, uint32_t id) {
    if (!(d < r.f[3])) return;
    int k = 3;
    while (k > 0 && d < r.f[k - 1]) {
        r.f[k] = r.f[k - 1];
        r.id[k] = r.id[k - 1];
        --k;
    }
    r.f[k] = d;
    r.id[k] = id;
}

template <CellDistance M>
void SearchCube(int32_t cx, int32_t cy, int32_t cz, double x, double y, double z, uint32_t seed,
                CellularResult& r) {
    uint32_t h = kHashX * static_cast<uint32_t>(cx) + kHashY * static_cast<uint32_t>(cy) +
                 kHashZ * static_cast<uint32_t>(cz) + seed;
    int n = kPointCount[h >> 24];
    if (n < 1) return;
    uint32_t s = kStepMul * h + kStepAdd;
    const double bx = cx, by = cy, bz = cz;
    for (int i = 0; i < n; ++i) {
        uint32_t s1 = Step(s), s2 = Step(s1), s3 = Step(s2);
        double px = bx + (static_cast<double>(s1) + 0.5) * kUnit - x;
        double py = by + (static_cast<double>(s2) + 0.5) * kUnit - y;
        double pz = bz + (static_cast<double>(s3) + 0.5) * kUnit - z;
        Insert(r, Distance<M>(px, py, pz), s);
        s = Step(s3);
    }
}

template <CellDistance M>
CellularResult SearchPlain(double x, double y, double z, uint32_t seed) {
    CellularResult r{{kFar, kFar, kFar, kFar}, {0, 0, 0, 0}};
    const int32_t ix = FloorToCube(x), iy = FloorToCube(y), iz = FloorToCube(z);
    const double fx = x - ix, fy = y - iy, fz = z - iz;
    // Squared distances to the low and high faces of the home cube, per axis;
    // index 0 low, 2 high, 1 (same cube along that axis) contributes nothing.
    const double tx[3] = {fx * fx, 0.0, (1.0 - fx) * (1.0 - fx)};
    const double ty[3] = {fy * fy, 0.0, (1.0 - fy) * (1.0 - fy)};
    const double tz[3] = {fz * fz, 0.0, (1.0 - fz) * (1.0 - fz)};
    SearchCube<M>(ix, iy, iz, x, y, z, seed, r);
    for (int c = 1; c < 27; ++c) {
        const CubeOffset& o = kCubeOrder[c];
        // Adding the zero terms of unused axes changes no bits.
        double bound = tx[o.dx + 1] + ty[o.dy + 1] + tz[o.dz + 1];
        if (r.f[3] > bound) {
            SearchCube<M>(static_cast<int32_t>(static_cast<uint32_t>(ix) + o.dx),
                          static_cast<int32_t>(static_cast<uint32_t>(iy) + o.dy),
                          static_cast<int32_t>(static_cast<uint32_t>(iz) + o.dz), x, y, z, seed, r);
        }
    }
    return r;
}

// Fills `box` with every cube next to a home cube in loX..hiX, loY..hiY, iz.
// Returns false when the box would be too large or would reach the ends of
// the 32-bit cube range (where neighbour coordinates wrap); the caller then
// searches without it.
bool FillCubeBox(int64_t loX, int64_t hiX, int64_t loY, int64_t hiY, int32_t iz, uint32_t seed,
                 CubeBox& box) {
    loX -= 1, hiX += 1, loY -= 1, hiY += 1;
    const int64_t loZ = static_cast<int64_t>(iz) - 1, hiZ = static_cast<int64_t>(iz) + 1;
    if (loX <= INT32_MIN || loY <= INT32_MIN || loZ <= INT32_MIN || hiX >= INT32_MAX ||
        hiY >= INT32_MAX || hiZ >= INT32_MAX)
        return false;
    const int64_t nx = hiX - loX + 1, ny = hiY - loY + 1, nz = hiZ - loZ + 1;
    if (nx * ny * nz > kMaxBoxCubes) return false;

    box.x0 = static_cast<int32_t>(loX);
    box.y0 = static_cast<int32_t>(loY);
    box.z0 = static_cast<int32_t>(loZ);
    box.nx = static_cast<int>(nx);
    box.ny = static_cast<int>(ny);
    box.nz = static_cast<int>(nz);
    const size_t cubes = static_cast<size_t>(nx * ny * nz);
    box.count.resize(cubes);
    box.px.resize(cubes * kMaxPoints);
    box.py.resize(cubes * kMaxPoints);
    box.pz.resize(cubes * kMaxPoints);
    box.id.resize(cubes * kMaxPoints);
    box.ty.resize(cubes * kMaxPoints);
    box.tz.resize(cubes * kMaxPoints);
    for (int c = 0; c < 27; ++c) {
        const CubeOffset& o = kCubeOrder[c];
        box.delta[c] = (o.dx * box.ny + o.dy) * box.nz + o.dz;
    }

    size_t cube = 0;
    for (int64_t cx = loX; cx <= hiX; ++cx) {
        for (int64_t cy = loY; cy <= hiY; ++cy) {
            for (int64_t cz = loZ; cz <= hiZ; ++cz, ++cube) {
                const uint32_t h = kHashX * static_cast<uint32_t>(cx) +
                                   kHashY * static_cast<uint32_t>(cy) +
                                   kHashZ * static_cast<uint32_t>(cz) + seed;
                const int points = kPointCount[h >> 24];
                box.count[cube] = points;
                uint32_t r = kStepMul * h + kStepAdd;
                const double bx = static_cast<double>(cx), by = static_cast<double>(cy),
                             bz = static_cast<double>(cz);
                for (int k = 0; k < points; ++k) {
                    const uint32_t r1 = Step(r), r2 = Step(r1), r3 = Step(r2);
                    const size_t at = cube * kMaxPoints + k;
                    box.px[at] = bx + (static_cast<double>(r1) + 0.5) * kUnit;
                    box.py[at] = by + (static_cast<double>(r2) + 0.5) * kUnit;
                    box.pz[at] = bz + (static_cast<double>(r3) + 0.5) * kUnit;
                    box.id[at] = r;
                    r = Step(r3);
                }
            }
        }
    }
    return true;
}

// For a row at (y, z) whose home cubes lie in layer iy: each point's y and z
// terms of the distance, as the plain distance forms them, for the cubes of
// layers iy - 1 .. iy + 1.
template <CellDistance M>
void FillRowTerms(CubeBox& box, double y, double z, int32_t iy) {
    for (int cx = 0; cx < box.nx; ++cx) {
        for (int cy = iy - 1 - box.y0; cy <= iy + 1 - box.y0; ++cy) {
            for (int cz = 0; cz < box.nz; ++cz) {
                const size_t cube = (static_cast<size_t>(cx) * box.ny + cy) * box.nz + cz;
                for (int k = 0; k < box.count[cube]; ++k) {
                    const size_t at = cube * kMaxPoints + k;
                    const double qy = box.py[at] - y, qz = box.pz[at] - z;
                    if constexpr (M == CellDistance::Euclidean) {
                        box.ty[at] = qy * qy;
                        box.tz[at] = qz * qz;
                    } else if constexpr (M == CellDistance::Alternate2) {
                        box.ty[at] = qy;
                        box.tz[at] = qz;
                    } else {
                        box.ty[at] = std::fabs(qy);
                        box.tz[at] = std::fabs(qz);
                    }
                }
            }
        }
    }
}

// ---------------------------------------------------------------------------
// Row driver of the vector paths: tiles of up to kBandRows rows by
// kColumnBlock columns share one cube box.

struct Tile {
    double xs[kBandRows * kColumnBlock];
    double ys[kBandRows * kColumnBlock];
    int32_t ixs[kBandRows * kColumnBlock];
    int32_t iys[kBandRows * kColumnBlock];
    int32_t homes[kColumnBlock];
    CellularResult results[kColumnBlock];
    RunLanes run;
    FlatPoints flat[2];
    CubeBox box;
};

// The style's values of lanes lane0 .. lane0+len-1 of a searched run, as
// CellularStyleValue gives them, with the style chosen once for the run.
void WriteRunStyle(const RunLanes& run, bool ids64, int style, int lane0, int len, float* dst) {
    static constexpr int kMinuend[6] = {1, 2, 2, 3, 3, 3};
    static constexpr int kSubtrahend[6] = {0, 1, 0, 2, 1, 0};
    if (style >= kCellF1 && style <= kCellF4) {
        const double* f = run.f[style] + lane0;
        for (int q = 0; q < len; ++q) dst[q] = static_cast<float>(f[q]);
    } else if (style >= kCellF2MinusF1 && style <= kCellF4MinusF1) {
        const double* a = run.f[kMinuend[style - kCellF2MinusF1]] + lane0;
        const double* b = run.f[kSubtrahend[style - kCellF2MinusF1]] + lane0;
        for (int q = 0; q < len; ++q) dst[q] = static_cast<float>(a[q] - b[q]);
    } else if (style >= kCellF1Cells && style <= kCellF4Cells) {
        const int k = style - kCellF1Cells;
        for (int q = 0; q < len; ++q) {
            const uint32_t id =
                ids64 ? static_cast<uint32_t>(run.id64[k][lane0 + q]) : run.id32[k][lane0 + q];
            dst[q] = static_cast<float>((id >> 24) / 255.0);
        }
    } else {
        for (int q = 0; q < len; ++q) dst[q] = 0.0f;
    }
}

// Searches one row of a tile (n samples from `at` on) and writes its values
// of `style` to dst. `wide` are the path's kernels, `narrow` the four-lane
// ones for what the wide blocks leave.
template <CellDistance M>
void SearchTileRow(Tile& t, size_t at, int n, double z, int32_t iz, uint32_t seed, int style,
                   bool boxed, bool distorted, const LaneKernels& wide, const LaneKernels& narrow,
                   float* dst) {
    const double* xs = t.xs + at;
    const double* ys = t.ys + at;
    const int32_t* ixs = t.ixs + at;
    const int32_t* iys = t.iys + at;
    CellularResult* out = t.results;
    int i = 0;
    if (boxed && !distorted) {
        // Undistorted: one y for the whole row, so runs of equal home cubes.
        FillRowTerms<M>(t.box, ys[0], z, iys[0]);
        const int width = wide.width;
        while (i < n) {
            int end = i + 1;
            while (end < n && ixs[end] == ixs[i]) ++end;
            const int len = end - i, sets = (len + width - 1) / width;
            // Spare lanes repeat the last sample; their results are dropped.
            for (int q = 0; q < sets * width; ++q) t.run.x[q] = xs[i + (q < len ? q : len - 1)];
            const int32_t home = t.box.Index(ixs[i], iys[i], iz);
            if (wide.searchShortRuns != nullptr && sets == 1) {
                // Pair it with the next run when that is short too.
                int next = end + 1;
                while (next < n && ixs[next] == ixs[end]) ++next;
                if (end < n && next - end <= width) {
                    const int len2 = next - end;
                    for (int q = 0; q < width; ++q)
                        t.run.x[width + q] = xs[end + (q < len2 ? q : len2 - 1)];
                    const int32_t ix2[2] = {ixs[i], ixs[end]};
                    const int32_t home2[2] = {home, t.box.Index(ixs[end], iys[end], iz)};
                    wide.searchShortRuns(t.box, t.run, t.flat, ys[0], z, ix2, iys[i], iz, home2);
                    WriteRunStyle(t.run, wide.ids64, style, 0, len, dst + i);
                    WriteRunStyle(t.run, wide.ids64, style, width, len2, dst + end);
                    i = next;
                    continue;
                }
                wide.searchShortRun(t.box, t.run, t.flat[0], ys[0], z, ixs[i], iys[i], iz, home);
            } else {
                wide.searchRun(t.box, t.run, sets, ys[0], z, ixs[i], iys[i], iz, home);
            }
            WriteRunStyle(t.run, wide.ids64, style, 0, len, dst + i);
            i = end;
        }
        return;
    }
    if (!boxed) {
        // Far-flung or widely spread positions: search each lane's cubes directly.
        for (; i + wide.width <= n; i += wide.width) wide.search(xs + i, ys + i, z, seed, out + i);
        for (; i + narrow.width <= n; i += narrow.width)
            narrow.search(xs + i, ys + i, z, seed, out + i);
    } else {
        for (int k = 0; k < n; ++k) t.homes[k] = t.box.Index(ixs[k], iys[k], iz);
        for (; i + wide.width <= n; i += wide.width)
            wide.searchBox(t.box, xs + i, ys + i, z, ixs + i, iys + i, iz, t.homes + i, out + i);
        for (; i + narrow.width <= n; i += narrow.width)
            narrow.searchBox(t.box, xs + i, ys + i, z, ixs + i, iys + i, iz, t.homes + i, out + i);
    }
    for (; i < n; ++i) out[i] = SearchPlain<M>(xs[i], ys[i], z, seed);
    for (int k = 0; k < n; ++k) dst[k] = CellularStyleValue(out[k], style);
}

struct Positions {
    const CellularRowSetup& s;
    double RowY(int j) const { return (s.worldY[j] - s.anchorY) * s.scale; }
    double ColumnX(int i) const { return (s.worldX[i] - s.anchorX) * s.scale; }
};

// kIds: the identifiers the style reads (0, 1 or 4).
template <CellDistance M>
void SearchRowsVector(const CellularRowSetup& s, int firstRow, int lastRow, const float* heights,
                      float* out, VectorPath path, int kIds) {
    const LaneKernels narrow = Avx2Kernels(M, kIds);
    const LaneKernels wide = path == VectorPath::Avx512 ? Avx512Kernels(M, kIds) : narrow;
    const Positions pos{s};
    const int32_t iz = FloorToCube(s.shape);
    auto tile = std::make_unique<Tile>();
    for (int band = firstRow; band <= lastRow; band += kBandRows) {
        const int rows = lastRow - band + 1 < kBandRows ? lastRow - band + 1 : kBandRows;
        for (int col = 0; col < s.width; col += kColumnBlock) {
            const int n = s.width - col < kColumnBlock ? s.width - col : kColumnBlock;
            int64_t loX = INT64_MAX, hiX = INT64_MIN, loY = INT64_MAX, hiY = INT64_MIN;
            for (int r = 0; r < rows; ++r) {
                const int j = band + r;
                const double y = pos.RowY(j);
                for (int i = 0; i < n; ++i) {
                    const size_t at = static_cast<size_t>(r) * kColumnBlock + i;
                    double x = pos.ColumnX(col + i), yy = y;
                    if (heights != nullptr) {
                        const double h = heights[static_cast<size_t>(j) * s.width + col + i];
                        x = x + h * s.distortX;
                        yy = yy + h * s.distortY;
                    }
                    tile->xs[at] = x;
                    tile->ys[at] = yy;
                    tile->ixs[at] = FloorToCube(x);
                    tile->iys[at] = FloorToCube(yy);
                    loX = tile->ixs[at] < loX ? tile->ixs[at] : loX;
                    hiX = tile->ixs[at] > hiX ? tile->ixs[at] : hiX;
                    loY = tile->iys[at] < loY ? tile->iys[at] : loY;
                    hiY = tile->iys[at] > hiY ? tile->iys[at] : hiY;
                }
            }
            bool bandBoxed = FillCubeBox(loX, hiX, loY, hiY, iz, s.seed, tile->box);
            for (int r = 0; r < rows; ++r) {
                const size_t at = static_cast<size_t>(r) * kColumnBlock;
                bool boxed = bandBoxed;
                if (!bandBoxed) {
                    // Too wide a band for one box: try the row on its own.
                    int64_t rx0 = INT64_MAX, rx1 = INT64_MIN, ry0 = INT64_MAX, ry1 = INT64_MIN;
                    for (int i = 0; i < n; ++i) {
                        rx0 = tile->ixs[at + i] < rx0 ? tile->ixs[at + i] : rx0;
                        rx1 = tile->ixs[at + i] > rx1 ? tile->ixs[at + i] : rx1;
                        ry0 = tile->iys[at + i] < ry0 ? tile->iys[at + i] : ry0;
                        ry1 = tile->iys[at + i] > ry1 ? tile->iys[at + i] : ry1;
                    }
                    boxed = FillCubeBox(rx0, rx1, ry0, ry1, iz, s.seed, tile->box);
                }
                SearchTileRow<M>(*tile, at, n, s.shape, iz, s.seed, s.style, boxed,
                                 heights != nullptr, wide, narrow,
                                 out + static_cast<size_t>(band + r) * s.width + col);
            }
        }
    }
}

template <CellDistance M>
void SearchRows(const CellularRowSetup& s, int firstRow, int lastRow, const float* heights,
                float* out, VectorPath path) {
    if (path == VectorPath::Plain) {
        const Positions pos{s};
        for (int j = firstRow; j <= lastRow; ++j) {
            const double y = pos.RowY(j);
            for (int i = 0; i < s.width; ++i) {
                const size_t at = static_cast<size_t>(j) * s.width + i;
                double x = pos.ColumnX(i), yy = y;
                if (heights != nullptr) {
                    const double h = heights[at];
                    x = x + h * s.distortX;
                    yy = yy + h * s.distortY;
                }
                out[at] = CellularStyleValue(SearchPlain<M>(x, yy, s.shape, s.seed), s.style);
            }
        }
        return;
    }
    // Identifiers the style reads: "F<k> Cells" needs the first k (2 and 3
    // share the code that tracks all four).
    switch (s.style) {
        case kCellF1Cells:
            return SearchRowsVector<M>(s, firstRow, lastRow, heights, out, path, 1);
        case kCellF2Cells:
        case kCellF3Cells:
        case kCellF4Cells:
            return SearchRowsVector<M>(s, firstRow, lastRow, heights, out, path, 4);
        default:
            return SearchRowsVector<M>(s, firstRow, lastRow, heights, out, path, 0);
    }
}

}  // namespace
}  // namespace cellular

CellularResult CellularSearch(double x, double y, double z, uint32_t seed, CellDistance distance) {
    switch (distance) {
        case CellDistance::Euclidean:
            return cellular::SearchPlain<CellDistance::Euclidean>(x, y, z, seed);
        case CellDistance::Manhattan:
            return cellular::SearchPlain<CellDistance::Manhattan>(x, y, z, seed);
        case CellDistance::Alternate1:
            return cellular::SearchPlain<CellDistance::Alternate1>(x, y, z, seed);
        case CellDistance::Alternate2:
            return cellular::SearchPlain<CellDistance::Alternate2>(x, y, z, seed);
    }
    return cellular::SearchPlain<CellDistance::Euclidean>(x, y, z, seed);
}

float CellularStyleValue(const CellularResult& r, int style) {
    switch (style) {
        case kCellF1:
        case kCellF2:
        case kCellF3:
        case kCellF4:
            return static_cast<float>(r.f[style]);
        case kCellF2MinusF1:
            return static_cast<float>(r.f[1] - r.f[0]);
        case kCellF3MinusF2:
            return static_cast<float>(r.f[2] - r.f[1]);
        case kCellF3MinusF1:
            return static_cast<float>(r.f[2] - r.f[0]);
        case kCellF4MinusF3:
            return static_cast<float>(r.f[3] - r.f[2]);
        case kCellF4MinusF2:
            return static_cast<float>(r.f[3] - r.f[1]);
        case kCellF4MinusF1:
            return static_cast<float>(r.f[3] - r.f[0]);
        case kCellF1Cells:
        case kCellF2Cells:
        case kCellF3Cells:
        case kCellF4Cells:
            return static_cast<float>((r.id[style - kCellF1Cells] >> 24) / 255.0);
        default:
            return 0.0f;
    }
}

void CellularRows(const CellularRowSetup& setup, int firstRow, int lastRow, const float* heights,
                  float* out, VectorPath path) {
    firstRow = firstRow < 0 ? 0 : firstRow;
    lastRow = lastRow > setup.height - 1 ? setup.height - 1 : lastRow;
    if (setup.width <= 0 || firstRow > lastRow || setup.worldX == nullptr ||
        setup.worldY == nullptr)
        return;
    path = UsablePath(path);
    switch (setup.distance) {
        case CellDistance::Euclidean:
            return cellular::SearchRows<CellDistance::Euclidean>(setup, firstRow, lastRow, heights,
                                                                 out, path);
        case CellDistance::Manhattan:
            return cellular::SearchRows<CellDistance::Manhattan>(setup, firstRow, lastRow, heights,
                                                                 out, path);
        case CellDistance::Alternate1:
            return cellular::SearchRows<CellDistance::Alternate1>(setup, firstRow, lastRow, heights,
                                                                  out, path);
        case CellDistance::Alternate2:
            return cellular::SearchRows<CellDistance::Alternate2>(setup, firstRow, lastRow, heights,
                                                                  out, path);
    }
}

}  // namespace basekit
