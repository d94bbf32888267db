#pragma once

#include <cstdint>
#include <iosfwd>

#include "devices/generators/cellular/CellularKernels.h"
#include "framework/DeviceOf.h"

namespace basekit {

// Three-dimensional cellular noise: each sample shows a distance to, or the
// cell of, one of its four nearest feature points. An optional input shifts
// the sampling position by its height.
class CellularTex : public DeviceOf<CellularTex, Generator> {
public:
    static constexpr DeviceInfo kInfo{"CELL", "Voronoi", "Creates a Voronoi noise pattern", 2};
    CellularTex();
    const char* GetInputName(uint32_t index) override;
    bool EditSettings() override;
    bool Build(const BuildContext& context) override;
    // The randomize operation: a fresh seed.
    bool OptionQuery2() override { return Randomize(0); }
    void CopyFrom(Device* other) override;
    bool AfterLoad(uint8_t version);

    // Stores `value` in "Random Seed" (0: one from the tick count) and tells
    // the owner.
    bool Randomize(int32_t value);

private:
    // One optional height-field input while distortion is on, none otherwise.
    void DeclarePorts(bool distortion);
};

}  // namespace basekit
