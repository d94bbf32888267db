#pragma once

#include <cstdint>
#include <iosfwd>
#include <vector>

#include "framework/VectorDispatch.h"
#include "framework/DeviceOf.h"

namespace basekit {

// Blurs a height field or a bitmap with a box, a Gaussian or a Gaussian
// along one direction.
class GaussBlur : public DeviceOf<GaussBlur, Filter> {
public:
    static constexpr DeviceInfo kInfo{"BLUR", "Blur", "Applies a blur effect to the input", 2};
    GaussBlur();
    bool Build(const BuildContext& context) override;
    bool AfterLoad(uint8_t version);
};

// One build's blur: each pass cuts the rows into 48 jobs that RunRows spreads
// over the device's threads, and runs the row kernel of the packet kind and
// blur type on each. Box and Gaussian run twice (NextPass between); motion
// blur once.
class BlurHelper {
public:
    BlurHelper(Device* device, const BuildContext& context, int32_t type, const PacketRef& source,
               int32_t radius);
    // One pass over every row; false when cancelled.
    bool Run();
    void ProcessRows(int32_t first, int32_t last);

    // The second pass reads the first one's result and writes over the packet
    // the first one read (box and Gaussian; nothing for motion blur).
    void NextPass();
    PacketRef Result() const { return destination; }

    uint32_t jobs = 48;
    PacketRef source;
    PacketRef destination;
    int32_t type;
    int32_t pass = 0;  // 0 along x, 1 along y
    uint32_t kind;     // of the source: height field or bitmap
    std::vector<float> kernel;
    int32_t radius;
    float cosine = 1.0f;
    float sine = 0.0f;
    int32_t firstRow = 0;
    int32_t lastRow;

private:
    Device* device;
    const BuildContext& context;
};

// Choices of "Blur type".
enum BlurType : int32_t { kBlurUniform = 0, kBlurGaussian = 1, kBlurMotion = 2 };

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
