// Plain renderings of the cellular search and the blur sums, written apart
// from the kernels so that the kernel and device tests have something
// independent to compare with.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "devices/filters/GaussBlur.h"
#include "devices/generators/CellularTex.h"
#include "framework/Terrain.h"
#include "framework/VectorDispatch.h"

namespace basekit::reference {

inline std::vector<VectorPath> AvailablePaths() {
    std::vector<VectorPath> paths;
    for (VectorPath p : {VectorPath::Plain, VectorPath::Avx2, VectorPath::Avx512})
        if (PathAvailable(p)) paths.push_back(p);
    return paths;
}

// World positions of `count` samples over lo..hi, as the build context
// gives them.
inline std::vector<double> Positions(double lo, double hi, int count) {
    std::vector<double> out;
    for (int i = 0; i < count; ++i)
        out.push_back(lo + (i * (count > 1 ? 1.0 / (count - 1) : 0.0)) * (hi - lo));
    return out;
}

// Cellular search: one cube at a time, no shortcuts.

inline const char* const kRefCounts =
    "4311124222510212204321213224225123222223242532225335213344230422"
    "2132223331202112222532323221021121221342225424225432254333522222"
    "3114213343243334514243123532131333231554224134153353432211111245"
    "4542151123332523320211421321223255345524453222142334254242224532";

inline uint32_t RefStep(uint32_t r) { return 1402024253u * r + 586950981u; }

inline int RefFloor(double v) {
    int t = static_cast<int>(v);  // test points stay well inside int range
    if (v < 0 && v != static_cast<double>(t)) t -= 1;
    return t;
}

inline double RefDistance(double x, double y, double z, int m) {
    double ax = std::fabs(x), ay = std::fabs(y), az = std::fabs(z);
    switch (m) {
        case 0:
            return x * x + y * y + z * z;
        case 1:
            return ax + ay + az;
        case 2:
            return std::max(ax, std::max(ay, az));
        default:
            if (ax >= ay && ax >= az) return ax + std::sqrt(y * y + z * z);
            if (ay >= az) return ay + std::sqrt(x * x + z * z);
            return az + std::sqrt(x * x + y * y);
    }
}

inline void RefSearchCube(int cx, int cy, int cz, double X, double Y, double Z, uint32_t S, int m,
                   CellularResult& r) {
    uint32_t h = 702395077u * static_cast<uint32_t>(cx) + 915488749u * static_cast<uint32_t>(cy) +
                 2120969693u * static_cast<uint32_t>(cz) + S;
    int n = kRefCounts[h >> 24] - '0';
    if (n < 1) return;
    uint32_t rr = 1402024253u * h + 586950981u;
    for (int i = 0; i < n; ++i) {
        uint32_t id = rr;
        double x = cx + (RefStep(rr) + 0.5) * 2.3283064365386963e-10 - X;
        double y = cy + (RefStep(RefStep(rr)) + 0.5) * 2.3283064365386963e-10 - Y;
        double z = cz + (RefStep(RefStep(RefStep(rr))) + 0.5) * 2.3283064365386963e-10 - Z;
        rr = RefStep(RefStep(RefStep(RefStep(rr))));
        double d = RefDistance(x, y, z, m);
        if (d < r.f[3]) {
            int k = 0;
            while (!(d < r.f[k])) ++k;
            for (int j = 3; j > k; --j) {
                r.f[j] = r.f[j - 1];
                r.id[j] = r.id[j - 1];
            }
            r.f[k] = d;
            r.id[k] = id;
        }
    }
}

inline CellularResult RefSearch(double X, double Y, double Z, uint32_t S, int m) {
    CellularResult r{{999999.9, 999999.9, 999999.9, 999999.9}, {0, 0, 0, 0}};
    int ix = RefFloor(X), iy = RefFloor(Y), iz = RefFloor(Z);
    RefSearchCube(ix, iy, iz, X, Y, Z, S, m, r);
    double fx = X - ix, fy = Y - iy, fz = Z - iz;
    double lo[3] = {fx * fx, fy * fy, fz * fz};
    double hi[3] = {(1 - fx) * (1 - fx), (1 - fy) * (1 - fy), (1 - fz) * (1 - fz)};
    // Neighbours in search order; per axis -1 low face, +1 high face, 0 none.
    const int order[26][3] = {
        {-1, 0, 0},   {0, -1, 0},  {0, 0, -1},  {1, 0, 0},   {0, 1, 0},   {0, 0, 1},
        {-1, -1, 0},  {-1, 0, -1}, {0, -1, -1}, {1, 1, 0},   {1, 0, 1},   {0, 1, 1},
        {-1, 1, 0},   {-1, 0, 1},  {0, -1, 1},  {1, -1, 0},  {1, 0, -1},  {0, 1, -1},
        {-1, -1, -1}, {-1, -1, 1}, {-1, 1, -1}, {-1, 1, 1},  {1, -1, -1}, {1, -1, 1},
        {1, 1, -1},   {1, 1, 1}};
    for (const auto& o : order) {
        double bound = 0;
        bool first = true;
        for (int a = 0; a < 3; ++a) {
            if (o[a] == 0) continue;
            double t = o[a] < 0 ? lo[a] : hi[a];
            bound = first ? t : bound + t;
            first = false;
        }
        if (r.f[3] > bound) RefSearchCube(ix + o[0], iy + o[1], iz + o[2], X, Y, Z, S, m, r);
    }
    return r;
}

inline float RefStyle(const CellularResult& r, int style) {
    const double* F = r.f;
    switch (style) {
        case 0: case 1: case 2: case 3: return static_cast<float>(F[style]);
        case 4: return static_cast<float>(F[1] - F[0]);
        case 5: return static_cast<float>(F[2] - F[1]);
        case 6: return static_cast<float>(F[2] - F[0]);
        case 7: return static_cast<float>(F[3] - F[2]);
        case 8: return static_cast<float>(F[3] - F[1]);
        case 9: return static_cast<float>(F[3] - F[0]);
        default: return static_cast<float>((r.id[style - 10] >> 24) / 255.0);
    }
}

// Blur

struct Field {
    int w, h, c;
    std::vector<float> v;
    Field(int width, int height, int channels) : w(width), h(height), c(channels), v(width * height * channels) {}
    float& at(int x, int y, int ch) { return v[(static_cast<size_t>(y) * w + x) * c + ch]; }
    float at(int x, int y, int ch) const { return v[(static_cast<size_t>(y) * w + x) * c + ch]; }
};

// Direct convolution, one output at a time: clamp each coordinate, sum from
// k = -R upwards.
inline Field Reference(const Field& in, int type, int R, int pass, const std::vector<float>& w) {
    Field out(in.w, in.h, in.c);
    for (int y = 0; y < in.h; ++y) {
        for (int x = 0; x < in.w; ++x) {
            for (int ch = 0; ch < in.c; ++ch) {
                float acc = 0.0f;
                for (int k = -R; k <= R; ++k) {
                    int sx = pass == 0 ? std::clamp(x + k, 0, in.w - 1) : x;
                    int sy = pass == 1 ? std::clamp(y + k, 0, in.h - 1) : y;
                    float s = in.at(sx, sy, ch);
                    float term = type == kBlurUniform ? s : w[k + R] * s;
                    acc = k == -R ? term : acc + term;
                }
                out.at(x, y, ch) = type == kBlurUniform ? acc * (1.0f / (2 * R + 1)) : acc;
            }
        }
    }
    return out;
}

// Motion blur as defined: output (x, y) sums, from k = -R upwards, w[k + R]
// times the framework's bilinear sample at (x + cs k, y + sn k).
inline Field MotionReference(const Field& in, int R, float cs, float sn, const std::vector<float>& w) {
    Field out(in.w, in.h, in.c);
    for (int y = 0; y < in.h; ++y) {
        for (int x = 0; x < in.w; ++x) {
            float acc[3], s[3];
            for (int k = -R; k <= R; ++k) {
                Orogen::BilinearSample(in.v.data(), in.w, in.h, in.c, x + cs * k, y + sn * k, s);
                for (int ch = 0; ch < in.c; ++ch)
                    acc[ch] = k == -R ? w[k + R] * s[ch] : acc[ch] + w[k + R] * s[ch];
            }
            for (int ch = 0; ch < in.c; ++ch) out.at(x, y, ch) = acc[ch];
        }
    }
    return out;
}

// Gaussian weights: sigma = R / 3, normalised by their sum, in double and
// rounded once.
inline std::vector<float> GaussianWeights(int R) {
    if (R <= 0) return {1.0f};
    const double sigma = R / 3.0;
    std::vector<double> w;
    double sum = 0.0;
    for (int k = -R; k <= R; ++k) {
        w.push_back(std::exp(-(static_cast<double>(k) * k) * (1.0 / (2.0 * sigma * sigma))) *
                    (1.0 / (std::sqrt(6.283187) * sigma)));
        sum += w.back();
    }
    std::vector<float> out;
    for (double v : w) out.push_back(static_cast<float>(v / sum));
    return out;
}

}  // namespace basekit::reference
