// The blur's plain row kernels, the edges every path shares, and the choice
// of vector path.

#include "devices/filters/blur/BlurKernels.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "devices/filters/blur/BlurPaths.h"
#include "framework/PortableMath.h"
#include "framework/Terrain.h"

namespace basekit {

using namespace blur;

std::vector<float> GaussianKernel(int32_t radius) {
    if (radius <= 0) return {1.0f};
    const int32_t n = 2 * radius + 1;
    const double sigma = radius / 3.0;
    const double spread = 1.0 / (2.0 * sigma * sigma);
    const double scale = 1.0 / (std::sqrt(6.283187) * sigma);
    std::vector<double> w(static_cast<size_t>(n));
    double sum = 0.0;
    for (int32_t i = 0; i < n; ++i) {
        const double k = i - radius;
        w[static_cast<size_t>(i)] = Orogen::Exp(-(k * k) * spread) * scale;
        sum += w[static_cast<size_t>(i)];
    }
    std::vector<float> weights(static_cast<size_t>(n));
    for (int32_t i = 0; i < n; ++i)
        weights[static_cast<size_t>(i)] = static_cast<float>(w[static_cast<size_t>(i)] / sum);
    return weights;
}

namespace {

inline float SumPlain(const Taps& taps, size_t j) {
    if (taps.weights == nullptr) {
        float acc = taps.rows[0][j];
        for (int32_t t = 1; t < taps.count; ++t) acc = acc + taps.rows[t][j];
        return acc * taps.factor;
    }
    float acc = taps.weights[0] * taps.rows[0][j];
    for (int32_t t = 1; t < taps.count; ++t) acc = acc + taps.weights[t] * taps.rows[t][j];
    return acc;
}

// The same sum for channel c of point x of a row, each tap's x clamped into
// the row.
float EdgeSum(const Taps& taps, const float* row, int32_t width, size_t C, int32_t x, size_t c) {
    const int32_t radius = taps.count / 2;
    auto tap = [&](int32_t t) {
        return row[static_cast<size_t>(std::clamp(x + t - radius, 0, width - 1)) * C + c];
    };
    if (taps.weights == nullptr) {
        float acc = tap(0);
        for (int32_t t = 1; t < taps.count; ++t) acc = acc + tap(t);
        return acc * taps.factor;
    }
    float acc = taps.weights[0] * tap(0);
    for (int32_t t = 1; t < taps.count; ++t) acc = acc + taps.weights[t] * tap(t);
    return acc;
}

void SumRangePlain(const Taps& taps, size_t first, size_t end, float* out) {
    for (size_t j = first; j < end; ++j) out[j] = SumPlain(taps, j);
}

}  // namespace

// The vector paths' tails.
void blur::SumTapsPlain(const Taps& taps, size_t first, size_t end, float* out) {
    SumRangePlain(taps, first, end, out);
}

namespace {

void SumTaps(const Taps& taps, size_t first, size_t end, float* out, VectorPath path) {
    if (first >= end) return;
    switch (path) {
        case VectorPath::Avx512:
            return SumTapsAvx512(taps, first, end, out);
        case VectorPath::Avx2:
            return SumTapsAvx2(taps, first, end, out);
        case VectorPath::Plain:
            return SumRangePlain(taps, first, end, out);
    }
}

// Pass 1 works through columns in strips so the 2R + 1 source rows of a strip
// (about 1 MiB of them) stay in the second-level cache from one output row to
// the next; wide strips keep the hardware prefetcher streaming.
size_t StripFloats(int32_t taps) {
    const size_t fit = (size_t{262144} / static_cast<size_t>(taps)) & ~size_t{127};
    return std::clamp(fit, size_t{256}, size_t{4096});
}

void BlurRows(const BlurPlane& p, const float* weights, float factor, int32_t radius, int32_t pass,
              int32_t firstRow, int32_t lastRow, VectorPath path) {
    if (p.width <= 0 || p.height <= 0 || radius < 0) return;
    firstRow = std::max(firstRow, 0);
    lastRow = std::min(lastRow, p.height - 1);
    if (firstRow > lastRow) return;
    path = UsablePath(path);
    const int32_t count = 2 * radius + 1;
    const size_t C = static_cast<size_t>(p.channels);
    const size_t rowFloats = static_cast<size_t>(p.width) * C;
    std::vector<const float*> rows(static_cast<size_t>(count));
    const Taps taps{rows.data(), count, weights, factor};

    if (path == VectorPath::Avx512 && radius >= kTransposeRadius) {
        if (pass == 0)
            PassRowsTransposedAvx512(p, taps, radius, firstRow, lastRow);
        else
            PassColumnsCopiedAvx512(p, taps, radius, firstRow, lastRow);
        return;
    }

    if (pass == 0) {
        // Inner points x = R .. W-1-R read tap t at x + t - R, so the taps are
        // the row itself shifted by t points; the points within R of either
        // end clamp each tap on its own.
        if (path == VectorPath::Avx512) {
            // 64-byte aligned copy of a row with R clamped points either side,
            // and room for the last permute's second load.
            const size_t padded = rowFloats + 2 * static_cast<size_t>(radius) * C;
            std::vector<float> storage(padded + 48);
            float* pad = storage.data();
            pad += ((64 - (reinterpret_cast<uintptr_t>(pad) & 63)) & 63) / sizeof(float);
            for (int32_t y = firstRow; y <= lastRow; ++y) {
                const float* src = p.source + static_cast<size_t>(y) * rowFloats;
                const size_t side = static_cast<size_t>(radius) * C;
                for (size_t e = 0; e < side; ++e) pad[e] = src[e % C];
                std::copy(src, src + rowFloats, pad + side);
                for (size_t e = 0; e < side; ++e)
                    pad[side + rowFloats + e] = src[rowFloats - C + e % C];
                SumPaddedRowAvx512(taps, pad, C, rowFloats,
                                   p.destination + static_cast<size_t>(y) * rowFloats);
            }
            return;
        }
        const bool inner = p.width > 2 * radius;
        for (int32_t y = firstRow; y <= lastRow; ++y) {
            const float* src = p.source + static_cast<size_t>(y) * rowFloats;
            float* dst = p.destination + static_cast<size_t>(y) * rowFloats;
            if (inner) {
                for (int32_t t = 0; t < count; ++t) rows[static_cast<size_t>(t)] = src + t * C;
                SumTaps(taps, 0, static_cast<size_t>(p.width - 2 * radius) * C, dst + radius * C,
                        path);
            }
            for (int32_t x = 0; x < p.width; ++x) {
                if (inner && x >= radius && x < p.width - radius) continue;
                for (size_t c = 0; c < C; ++c)
                    dst[static_cast<size_t>(x) * C + c] = EdgeSum(taps, src, p.width, C, x, c);
            }
        }
        return;
    }

    // Loads that straddle cache lines cost twice: the strips start where the
    // source rows reach a 64-byte boundary (every row does at once when the
    // row length is a multiple of 16 floats), the few points before go first.
    const size_t stripFloats = StripFloats(count);
    const uintptr_t address = reinterpret_cast<uintptr_t>(p.source);
    const size_t lead = path == VectorPath::Plain || address % sizeof(float) != 0
                            ? 0
                            : std::min(((64 - (address & 63)) & 63) / sizeof(float), rowFloats);
    for (size_t strip = 0; strip < rowFloats;) {
        const size_t end = strip < lead ? lead : std::min(strip + stripFloats, rowFloats);
        for (int32_t y = firstRow; y <= lastRow; ++y) {
            for (int32_t t = 0; t < count; ++t) {
                const int32_t sy = std::clamp(y + t - radius, 0, p.height - 1);
                rows[static_cast<size_t>(t)] = p.source + static_cast<size_t>(sy) * rowFloats;
            }
            SumTaps(taps, strip, end, p.destination + static_cast<size_t>(y) * rowFloats, path);
        }
        strip = end;
    }
}

}  // namespace

void BoxBlurRows(const BlurPlane& plane, int32_t radius, int32_t pass, int32_t firstRow,
                 int32_t lastRow, VectorPath path) {
    const float factor = 1.0f / static_cast<float>(2 * radius + 1);
    BlurRows(plane, nullptr, factor, radius, pass, firstRow, lastRow, path);
}

void GaussianBlurRows(const BlurPlane& plane, const float* weights, int32_t radius, int32_t pass,
                      int32_t firstRow, int32_t lastRow, VectorPath path) {
    BlurRows(plane, weights, 1.0f, radius, pass, firstRow, lastRow, path);
}

namespace {

// Tap k's y axis of the bilinear sample is the same for the whole row.
void MotionTaps(const BlurPlane& p, const float* weights, int32_t radius, float cosine, float sine,
                int32_t y, MotionTap* taps) {
    const size_t rowFloats = static_cast<size_t>(p.width) * static_cast<size_t>(p.channels);
    for (int32_t k = -radius; k <= radius; ++k) {
        const float fk = static_cast<float>(k);
        const Orogen::BilinearTap ay =
            Orogen::BilinearAxis(static_cast<float>(y) + sine * fk, p.height);
        taps[k + radius] = {weights[k + radius], cosine * fk, ay,
                            p.source + static_cast<size_t>(ay.i0) * rowFloats,
                            p.source + static_cast<size_t>(ay.i1) * rowFloats};
    }
}

void MotionRowPlain(const BlurPlane& p, const MotionTap* taps, int32_t count, float* dst) {
    const size_t C = static_cast<size_t>(p.channels);
    float acc[3] = {};
    for (int32_t x = 0; x < p.width; ++x) {
        for (int32_t t = 0; t < count; ++t) {
            const MotionTap& tap = taps[t];
            const Orogen::BilinearTap ax =
                Orogen::BilinearAxis(static_cast<float>(x) + tap.dx, p.width);
            const size_t x0 = static_cast<size_t>(ax.i0) * C;
            const size_t x1 = static_cast<size_t>(ax.i1) * C;
            for (size_t c = 0; c < C; ++c) {
                const float top = Orogen::BilinearMix(tap.row0[x0 + c], tap.row0[x1 + c], ax);
                const float bottom = Orogen::BilinearMix(tap.row1[x0 + c], tap.row1[x1 + c], ax);
                const float term = tap.weight * Orogen::BilinearMix(top, bottom, tap.y);
                acc[c] = t == 0 ? term : acc[c] + term;
            }
        }
        for (size_t c = 0; c < C; ++c) dst[static_cast<size_t>(x) * C + c] = acc[c];
    }
}

}  // namespace

void MotionBlurRows(const BlurPlane& p, const float* weights, int32_t radius, float cosine,
                    float sine, int32_t firstRow, int32_t lastRow, VectorPath path) {
    if (p.width <= 0 || p.height <= 0 || radius < 0) return;
    if (p.channels < 1 || p.channels > 3) return;
    firstRow = std::max(firstRow, 0);
    lastRow = std::min(lastRow, p.height - 1);
    path = UsablePath(path);
    const int32_t count = 2 * radius + 1;
    const size_t rowFloats = static_cast<size_t>(p.width) * static_cast<size_t>(p.channels);
    std::vector<MotionTap> taps(static_cast<size_t>(count));
    for (int32_t y = firstRow; y <= lastRow; ++y) {
        MotionTaps(p, weights, radius, cosine, sine, y, taps.data());
        float* dst = p.destination + static_cast<size_t>(y) * rowFloats;
        if (path == VectorPath::Avx512)
            MotionRowAvx512(p, taps.data(), count, dst);
        else
            MotionRowPlain(p, taps.data(), count, dst);
    }
}

}  // namespace basekit
