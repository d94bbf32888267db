// The cellular search behind the Voronoi device: the plain search, the
// output styles and the row kernel with its vector paths.
#pragma once

#include <cstdint>

#include "framework/VectorDispatch.h"

namespace basekit {

// How the cellular search measures the distance to a feature point, in the
// order of the "Distance Function" choice.
enum class CellDistance : int { Euclidean = 0, Manhattan = 1, Alternate1 = 2, Alternate2 = 3 };

// Output styles, in the order of the "Style" choice.
enum CellStyle : int {
    kCellF1 = 0,
    kCellF2 = 1,
    kCellF3 = 2,
    kCellF4 = 3,
    kCellF2MinusF1 = 4,
    kCellF3MinusF2 = 5,
    kCellF3MinusF1 = 6,
    kCellF4MinusF3 = 7,
    kCellF4MinusF2 = 8,
    kCellF4MinusF1 = 9,
    kCellF1Cells = 10,
    kCellF2Cells = 11,
    kCellF3Cells = 12,
    kCellF4Cells = 13,
    kCellStyleCount = 14
};

// The four nearest feature points found by a cellular search, nearest first.
// Euclidean distances are squared. Slots that found no point keep 999999.9
// and identifier 0.
struct CellularResult {
    double f[4];
    uint32_t id[4];
};

// Cellular search around (x, y, z) in the lattice of unit cubes seeded by
// `seed`: the home cube, then its neighbours in a fixed order, each only when
// its squared Euclidean distance from the point is below the current fourth
// distance.
CellularResult CellularSearch(double x, double y, double z, uint32_t seed, CellDistance distance);

// The output value of `style` for one search result; a style outside 0..13 gives 0.
float CellularStyleValue(const CellularResult& result, int style);

// Everything a field of cellular output needs besides the rows themselves.
struct CellularRowSetup {
    int width = 0;                          // samples per row
    int height = 0;                         // rows
    const double* worldX = nullptr;         // world x of each column (width entries)
    const double* worldY = nullptr;         // world y of each row (height entries)
    double anchorX = 0.0, anchorY = 0.0;    // the device's anchor
    double scale = 1.0;                     // lattice cubes per world unit (1 / "Scale")
    double shape = 0.0;                     // third coordinate of every sample
    double distortX = 0.0, distortY = 0.0;  // shift per unit of input height
    int style = kCellF1;
    CellDistance distance = CellDistance::Euclidean;
    uint32_t seed = 0;
};

// Fills rows firstRow..lastRow of `out`, a width x height field (sample (i, j)
// at j * width + i). Sample (i, j) is searched at
//   X = (wx - anchorX) * scale + h * distortX,  Y = (wy - anchorY) * scale + h * distortY,
//   Z = shape,
// with wx = worldX[i], wy = worldY[j] and h the sample of
// the field `heights` at the same index; without a height field (nullptr) h is
// 0 and nothing is shifted. Rows are independent, so disjoint row ranges may
// run on different threads. Every path gives the same bits.
void CellularRows(const CellularRowSetup& setup, int firstRow, int lastRow, const float* heights,
                  float* out, VectorPath path = BestVectorPath());

}  // namespace basekit
