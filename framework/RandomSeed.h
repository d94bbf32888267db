// The "Random Seed" parameter and its "Randomize" action of seeded devices.
// Seeds come from the host's seed service, so a host that starts its
// sequence at a fixed value builds the same world again.
#pragma once

#include <cstdint>

namespace Orogen {

class Device;

// A seed in the parameter's range 0..32767 from the host's seed service; 0
// without one.
int32_t DrawSeed();

// Stores a fresh seed in the device's "Random Seed" and tells the owner.
bool RandomizeSeed(Device* device);

// Points the device's "Randomize" action at RandomizeSeed. Action values are
// never loaded from a file, so a load must attach it again.
void AttachRandomize(Device* device);

}  // namespace Orogen
