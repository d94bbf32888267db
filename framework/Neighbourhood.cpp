#include "framework/Neighbourhood.h"

#include "framework/Terrain.h"

namespace Orogen {

SlopeScale::SlopeScale(const Grid& grid)
    : density(static_cast<float>(SamplesPerUnit(grid))),
      vertical(static_cast<float>(grid.verticalScale)) {}

}  // namespace Orogen
