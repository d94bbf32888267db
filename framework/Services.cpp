#include "framework/HostServices.h"

namespace Orogen {

// The module's one global: the host's services object.
static HostServices* g_services = nullptr;

HostServices* Services() { return g_services; }
void SetServices(HostServices* services) { g_services = services; }

}  // namespace Orogen
