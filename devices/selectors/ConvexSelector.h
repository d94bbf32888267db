#pragma once

#include "framework/DeviceOf.h"

namespace basekit {

// A convexity map: ridges bright, hollows dark, even ground at 0.5.
class ConvexSelector : public DeviceOf<ConvexSelector, Selector> {
  public:
    static constexpr DeviceInfo kInfo{"SELC", "Select Convexity",
                                      "Output a Convexity map for the input terrain", 1};
    ConvexSelector();
    bool Build(const BuildContext& context) override;
};

}  // namespace basekit
