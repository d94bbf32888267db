#pragma once

#include <cstdint>
#include <iosfwd>

#include "devices/combiners/CombineKernels.h"
#include "framework/DeviceOf.h"

namespace basekit {

// Blends two height fields or images sample by sample with one of eleven
// methods; a height field beside an image is read as grey.
class Combiner2 : public DeviceOf<Combiner2, CombineFilter> {
  public:
    static constexpr DeviceInfo kInfo{"CMB2", "Combiner", "Combine two inputs into one", 2};
    Combiner2();
    bool Build(const BuildContext& context) override;
    bool SaveFields(std::ostream& out);
    bool LoadFields(std::istream& in, uint8_t version);
    bool AfterLoad(uint8_t version);

    // What output 0 carries: kHeightField, or kBitmap when an image feeds
    // input 0 (or else input 1). Saved from version 2.
    int32_t outputKind = kHeightField;
};

}  // namespace basekit
