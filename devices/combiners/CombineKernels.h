// Sample-by-sample blends of two fields, for Combiner and Arithmetic
// Combiner: one plain function per path over rows first..last of two arrays
// of one size, the result written over the first and clamped as it goes.
#pragma once

#include <cstdint>

#include "framework/VectorDispatch.h"

namespace basekit {

// Choices of the combiner's "Method"; 11 has no label and is reached only
// through a stored value.
enum CombineMethod : int32_t {
    kCombineAverage = 0,
    kCombineAdd = 1,
    kCombineSubtract = 2,
    kCombineMultiply = 3,
    kCombineMax = 4,
    kCombineMin = 5,
    kCombinePower = 6,
    kCombineRoot = 7,
    kCombineDetail = 8,
    kCombineDifferences = 9,
    kCombineScreen = 10,
    kCombineLogRatio = 11,
};

// Two arrays of `width` grid points by rows, `channels` floats each; the
// result goes over `a`.
struct CombinePlane {
    float* a;
    const float* b;
    int32_t width;
    int32_t channels;
};

// Every vector path gives the same bits as the plain one.

// Height fields: methods 0 to 11, any other leaves `a`; every result is
// clamped into 0..1 with NaN as 1.
void CombineHeightRows(const CombinePlane& plane, int32_t method, float strength, int32_t first,
                       int32_t last, VectorPath path = BestVectorPath());

// Bitmaps, each channel on its own: methods 0 to 10, any other (11 too)
// leaves `a`; results are clamped into 0..1 and a NaN stays NaN.
void CombineImageRows(const CombinePlane& plane, int32_t method, float strength, int32_t first,
                      int32_t last, VectorPath path = BestVectorPath());

// Choices of the arithmetic combiner's "Operation".
enum ArithmeticOperation : int32_t { kArithmeticAdd = 0, kArithmeticSubtract = 1 };

// a + amount·b or a - amount·b (any other operation leaves `a`), clamped
// into 0..1 with NaN as 1.
void ArithmeticRows(const CombinePlane& plane, int32_t operation, float amount, int32_t first,
                    int32_t last, VectorPath path = BestVectorPath());

}  // namespace basekit
