#pragma once

#include <cstdint>
#include <functional>

#include "framework/DeviceOf.h"

namespace basekit {

// A straight ramp across the world in a chosen direction.
class GradGen : public DeviceOf<GradGen, Generator> {
public:
    static constexpr DeviceInfo kInfo{"GRAD", "Gradient",
                                      "Creates a uniform gradient in a given direction", 2};
    GradGen();
    bool Build(const BuildContext& context) override;
    bool AfterLoad(uint8_t version);
};

// Choices of "Tiling".
enum GradientTiling : int32_t { kTileNone = 0, kTileLinear = 1, kTileDiscontinuous = 2 };

// Everything a gradient fill needs: the grid, the world positions of its
// first and last columns and rows, the anchor and the three settings.
struct GradientSetup {
    int32_t width = 0;
    int32_t height = 0;
    double left = 0.0, right = 1.0;  // world x of columns 0 and width-1
    double top = 0.0, bottom = 1.0;  // world y of rows 0 and height-1
    double anchorX = 0.5, anchorY = 0.5;
    int32_t direction = 0;   // degrees
    float rampWidth = 1.0f;  // world units from 0 to 1; 0: steep
    int32_t tiling = kTileNone;
};

// The ramp's rise per world unit along x and y, in single precision.
void GradientSlope(int32_t degrees, float rampWidth, int32_t width, int32_t height, float& dx,
                   float& dy);

// Folds a ramp value by the tiling rule; unknown rules leave it unchanged.
double TileGradient(double t, int32_t tiling);

// Fills rows firstRow..lastRow of a width * height field.
void FillGradientRows(const GradientSetup& setup, int32_t firstRow, int32_t lastRow, float* out);

// Fills every row, calling `rowDone(j)` after row j.
void FillGradient(const GradientSetup& setup, float* out,
                  const std::function<void(int32_t)>& rowDone = {});

}  // namespace basekit
