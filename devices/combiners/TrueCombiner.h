#pragma once

#include "devices/combiners/CombineKernels.h"
#include "framework/DeviceOf.h"

namespace basekit {

// Adds or subtracts a share of one height field from another, clipped to 0..1.
class TrueCombiner : public DeviceOf<TrueCombiner, CombineFilter> {
  public:
    static constexpr DeviceInfo kInfo{"TCMB", "Arithmetic Combiner",
                                      "A combiner that performs clipped arithmetic on its inputs",
                                      1};
    TrueCombiner();
    bool Build(const BuildContext& context) override;
};

}  // namespace basekit
