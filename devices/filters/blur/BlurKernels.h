// The blur's row kernels: box, Gaussian and motion blur over one field, a
// range of rows at a time, on any vector path.
#pragma once

#include <cstdint>
#include <vector>

#include "framework/VectorDispatch.h"

namespace basekit {

// Weights of the Gaussian kernel of radius R: 2R + 1 entries, sigma = R / 3,
// w[i] = exp(-k^2 / (2 sigma^2)) / (sqrt(6.283187) sigma) with k = i - R, then
// divided by their sum. Computed in double and rounded once to float, so the
// weights do not depend on the platform's single-precision exp. Radius 0
// gives the single weight 1.
std::vector<float> GaussianKernel(int32_t radius);

// A field the row kernels read from and write to: width * height points of
// `channels` interleaved floats (1 for height fields, 3 for bitmaps), point
// (x, y) at (y * width + x) * channels. Source and destination must not overlap.
struct BlurPlane {
    const float* source = nullptr;
    float* destination = nullptr;
    int32_t width = 0;
    int32_t height = 0;
    int32_t channels = 1;
};

// The row kernels write rows firstRow..lastRow of the destination and read
// only the source, so disjoint row ranges may run on different threads.
// Coordinates outside the field are clamped to its border (the edge sample
// is repeated). Pass 0 runs along x, pass 1 along y. Each output is summed
// afresh in the order k = -R .. R, starting from the k = -R term; every
// vector path gives the same bits as the plain one.

// Box: (sum of the 2R + 1 samples) * (1.0f / (2R + 1)).
void BoxBlurRows(const BlurPlane& plane, int32_t radius, int32_t pass, int32_t firstRow,
                 int32_t lastRow, VectorPath path = BestVectorPath());

// Gaussian: sum of weights[k + R] * sample, with the 2R + 1 weights given.
void GaussianBlurRows(const BlurPlane& plane, const float* weights, int32_t radius, int32_t pass,
                      int32_t firstRow, int32_t lastRow, VectorPath path = BestVectorPath());

// Motion: one pass along (cosine, sine); output (x, y) is the sum of
// weights[k + R] * the bilinear sample at (x + cosine * k, y + sine * k),
// positions formed in single precision. The bilinear sample takes integer
// parts by truncation toward zero and clamps the four neighbours into the
// field. One or three channels.
void MotionBlurRows(const BlurPlane& plane, const float* weights, int32_t radius, float cosine,
                    float sine, int32_t firstRow, int32_t lastRow,
                    VectorPath path = BestVectorPath());

}  // namespace basekit
