#pragma once

#include <cstdint>
#include <iosfwd>
#include <vector>

#include "devices/filters/blur/BlurKernels.h"
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

}  // namespace basekit
