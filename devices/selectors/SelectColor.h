#pragma once

#include <cstdint>

#include "framework/DeviceOf.h"
#include "framework/VectorDispatch.h"

namespace basekit {

// Masks the parts of an image whose colour lies near a chosen one; a height
// field is read as a grey image.
class SelectColor : public DeviceOf<SelectColor, Selector> {
  public:
    static constexpr DeviceInfo kInfo{"SELU", "Select Color",
                                      "Selects the parts of an image near a colour", 1};
    SelectColor();
    bool Build(const BuildContext& context) override;
};

// The mask of points begin..end-1 of `image` (`channels` 1, read as grey, or
// 3 floats a point): 1 within `tolerance` of `colour` (channels in 0..1,
// distance scaled so that black to white is 1), fading to 0 over `falloff`.
// Every vector path gives the plain path's bits.
void SelectColourMask(const float* image, int32_t channels, uint64_t begin, uint64_t end,
                      const float colour[3], float tolerance, float falloff, float* mask,
                      VectorPath path = BestVectorPath());

}  // namespace basekit
