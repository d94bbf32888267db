#include "framework/RandomSeed.h"

#include <cstddef>

#include "framework/Device.h"
#include "framework/HostServices.h"
#include "framework/Parameter.h"

namespace Orogen {

int32_t DrawSeed() {
    HostServices* services = Services();
    if (!services || !services->seeds) return 0;
    return services->seeds->NextSeed() & 0x7FFF;
}

bool RandomizeSeed(Device* device) {
    GetParameter(device, "Random Seed")->i = DrawSeed();
    device->SettingsChanged();
    return true;
}

namespace {
bool RandomizeAction(Device* device) {
    return RandomizeSeed(device);
}
}  // namespace

void AttachRandomize(Device* device) {
    const int32_t index = FindParameter(device->params, "Randomize");
    if (index < 0) return;
    bool (*action)(Device*) = &RandomizeAction;
    device->params.records[static_cast<size_t>(index)].value.p = reinterpret_cast<void*>(action);
}

}  // namespace Orogen
