#pragma once

#include <cstdint>
#include <functional>

#include "framework/DeviceOf.h"

namespace basekit {

// A bump of one of five shapes centred on the device's anchor.
class CircularGrad : public DeviceOf<CircularGrad, Generator> {
public:
    static constexpr DeviceInfo kInfo{"CGRD", "Radial Grad", "Creates a radial gradient", 2};
    CircularGrad();
    bool Build(const BuildContext& context) override;
    bool AfterLoad(uint8_t version);
};

// Choices of "Type".
enum RadialShape : int32_t {
    kRadialSpherical = 0,
    kRadialGaussian = 1,
    kRadialDiamond = 2,
    kRadialSquare = 3,
    kRadialCone = 4,
};

// Everything a radial fill needs: the grid, the world position of every
// column and row, the anchor, the "Radius" setting (a diameter) and the shape.
struct RadialSetup {
    int32_t width = 0;
    int32_t height = 0;
    const double* columnX = nullptr;  // width entries
    const double* rowY = nullptr;     // height entries
    float anchorX = 0.5f, anchorY = 0.5f;
    float radius = 1.0f;
    int32_t shape = kRadialGaussian;
};

// Writes the shape into width * height samples in rows, visiting them column
// by column, then clamps every sample into 0..1. A Gaussian of radius below
// 1e-8 writes nothing. `percentDone(p)` is called as each hundredth of the
// samples is visited and with 100 at the end.
void FillRadial(const RadialSetup& setup, float* out,
                const std::function<void(int32_t)>& percentDone = {});

// The same for columns firstColumn..lastColumn alone, each clamped as it is
// written: bands of columns may be filled on different threads.
void FillRadialColumns(const RadialSetup& setup, int32_t firstColumn, int32_t lastColumn,
                       float* out);

}  // namespace basekit
