// Blur row kernels on every vector path against direct renderings (a plain
// convolution, and for motion blur the weighted sum of the framework's
// bilinear samples), and the properties every blur must keep.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "ReferenceKernels.h"
#include "devices/filters/GaussBlur.h"
#include "framework/VectorDispatch.h"

namespace basekit {
namespace {

using namespace reference;

Field RandomField(int w, int h, int c, uint32_t seed) {
    Field f(w, h, c);
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    for (float& x : f.v) x = u(rng);
    return f;
}

Field Blur(const Field& in, int type, int R, int pass, const std::vector<float>& w, VectorPath path,
           int firstRow = 0, int lastRow = -1) {
    Field out(in.w, in.h, in.c);
    BlurPlane plane{in.v.data(), out.v.data(), in.w, in.h, in.c};
    if (lastRow < 0) lastRow = in.h - 1;
    if (type == kBlurUniform)
        BoxBlurRows(plane, R, pass, firstRow, lastRow, path);
    else
        GaussianBlurRows(plane, w.data(), R, pass, firstRow, lastRow, path);
    return out;
}

bool SameBits(const std::vector<float>& a, const std::vector<float>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

TEST(GaussianKernel, FollowsTheFormulaAndIsSymmetric) {
    for (int R : {0, 1, 2, 3, 16, 64, 128}) {
        const std::vector<float> w = GaussianKernel(R), want = GaussianWeights(R);
        ASSERT_EQ(w.size(), want.size()) << R;
        for (size_t i = 0; i < w.size(); ++i) {
            EXPECT_NEAR(w[i], want[i], want[i] * 1e-6 + 1e-12) << "R " << R << " i " << i;
            EXPECT_EQ(w[i], w[w.size() - 1 - i]);
        }
    }
}

struct Shape {
    int w, h, c;
};

// Sizes around the vector widths and block sizes, tiny fields, single rows
// and columns, bitmaps.
const Shape kShapes[] = {{1, 1, 1},   {1, 9, 1},   {9, 1, 1},    {7, 5, 1},   {37, 11, 1},
                         {130, 6, 1}, {257, 3, 1}, {1100, 2, 1}, {1, 6, 3},   {6, 1, 3},
                         {29, 7, 3},  {140, 4, 3}, {75, 16, 1},  {41, 35, 1}, {300, 50, 1},
                         {47, 33, 3}, {17, 290, 1}};

TEST(BlurRows, MatchDirectConvolutionOnEveryPath) {
    for (const Shape& sh : kShapes) {
        const Field in = RandomField(sh.w, sh.h, sh.c, sh.w * 31 + sh.h);
        for (int R : {0, 1, 2, 5, 8, 16, 40, 70}) {
            const std::vector<float> w = GaussianKernel(R);
            for (int type : {kBlurUniform, kBlurGaussian}) {
                for (int pass : {0, 1}) {
                    // Pass 0 is given R <= W - 1 (the device cuts it); pass 1 any R.
                    if (pass == 0 && R > sh.w - 1) continue;
                    const Field want = Reference(in, type, R, pass, w);
                    for (VectorPath path : AvailablePaths()) {
                        const Field got = Blur(in, type, R, pass, w, path);
                        ASSERT_TRUE(SameBits(got.v, want.v))
                            << sh.w << "x" << sh.h << "x" << sh.c << " R " << R << " type " << type
                            << " pass " << pass << " " << VectorPathName(path);
                    }
                }
            }
        }
    }
}

TEST(BlurRows, RowRangesWriteOnlyTheirRows) {
    // Ranges shorter and longer than the 16-row groups and the row chunks;
    // kind 0 and 1 are the Gaussian's passes, 2 the motion blur.
    const Field in = RandomField(150, 300, 3, 7);
    const std::vector<float> w = GaussianKernel(9);
    for (int kind : {0, 1, 2}) {
        for (VectorPath path : AvailablePaths()) {
            auto run = [&](float* out, int first, int last) {
                const BlurPlane plane{in.v.data(), out, in.w, in.h, in.c};
                if (kind == 2)
                    MotionBlurRows(plane, w.data(), 9, 0.6f, -0.8f, first, last, path);
                else
                    GaussianBlurRows(plane, w.data(), 9, kind, first, last, path);
            };
            Field whole(in.w, in.h, in.c), parts(in.w, in.h, in.c);
            run(whole.v.data(), 0, in.h - 1);
            std::fill(parts.v.begin(), parts.v.end(), -1.0f);
            const int cuts[] = {0, 5, 6, 17, 23, 40, 299, 300};
            for (int k = 0; k + 1 < 8; ++k) {
                run(parts.v.data(), cuts[k], cuts[k + 1] - 1);
                // Rows past this range are still untouched.
                for (size_t i = static_cast<size_t>(cuts[k + 1]) * in.w * in.c; i < parts.v.size();
                     ++i)
                    ASSERT_EQ(parts.v[i], -1.0f);
            }
            EXPECT_TRUE(SameBits(parts.v, whole.v))
                << "kind " << kind << " " << VectorPathName(path);
        }
    }
}

TEST(BlurRows, EdgesRepeatTheBorderSample) {
    // A step at the left border: with R larger than the distance to the
    // border, the box sum counts the border sample once per tap past it.
    Field in(10, 1, 1);
    for (int x = 0; x < 10; ++x) in.at(x, 0, 0) = x == 0 ? 1.0f : 0.0f;
    const Field out = Blur(in, kBlurUniform, 3, 0, {}, VectorPath::Plain);
    // Point 0 reads x = -3..3 -> clamped 0,0,0,0,1,2,3: four copies of 1.
    EXPECT_FLOAT_EQ(out.at(0, 0, 0), 4.0f / 7.0f);
    EXPECT_FLOAT_EQ(out.at(1, 0, 0), 3.0f / 7.0f);
    EXPECT_FLOAT_EQ(out.at(3, 0, 0), 1.0f / 7.0f);
    EXPECT_EQ(out.at(4, 0, 0), 0.0f);
    // Along y with R far beyond the height, every output is the mean of the
    // clamped column.
    Field col(1, 3, 1);
    col.v = {0.0f, 0.0f, 1.0f};
    const Field down = Blur(col, kBlurUniform, 5, 1, {}, VectorPath::Plain);
    EXPECT_FLOAT_EQ(down.at(0, 0, 0), 4.0f / 11.0f);  // rows -5..5 -> 0 x6, 1, 2 x4
    EXPECT_FLOAT_EQ(down.at(0, 2, 0), 6.0f / 11.0f);  // rows -3..7 -> 0 x5, 2 x6
}

TEST(MotionBlur, EveryPathMatchesTheBilinearSum) {
    // Rows shorter and wider than a vector, ragged tails, single rows and
    // columns, directions whose taps fall between points and off every
    // border, one and three channels.
    const Shape shapes[] = {{23, 17, 1}, {70, 13, 1}, {33, 21, 1}, {16, 4, 1}, {3, 40, 1},
                            {1, 5, 1},   {12, 9, 3},  {47, 9, 3},  {5, 1, 3}};
    for (const Shape& sh : shapes) {
        const Field in = RandomField(sh.w, sh.h, sh.c, 1234 + sh.w);
        for (int R : {1, 4, 7, 25}) {
            const std::vector<float> w = GaussianKernel(R);
            for (float deg : {0.0f, 13.0f, 30.0f, 45.0f, 90.0f, 101.5f, 135.0f, 160.0f, 180.0f}) {
                const float cs = std::cos(deg * 0.017453292f), sn = std::sin(deg * 0.017453292f);
                const Field want = MotionReference(in, R, cs, sn, w);
                for (VectorPath path : AvailablePaths()) {
                    Field got(sh.w, sh.h, sh.c);
                    BlurPlane plane{in.v.data(), got.v.data(), sh.w, sh.h, sh.c};
                    MotionBlurRows(plane, w.data(), R, cs, sn, 0, sh.h - 1, path);
                    ASSERT_TRUE(SameBits(got.v, want.v))
                        << sh.w << "x" << sh.h << "x" << sh.c << " R " << R << " direction " << deg
                        << " " << VectorPathName(path);
                }
            }
        }
    }
}

}  // namespace
}  // namespace basekit
