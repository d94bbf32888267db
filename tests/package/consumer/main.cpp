// A program built against an installed BaseKit64: loads the module, builds a
// network and checks what comes out.
#include <cstdio>

#include "host/Host.h"
#include "host/NetworkFile.h"

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    basekit::host::Host host;
    host.LoadModule(argv[1]);
    basekit::host::Project project = basekit::host::ParseNetwork(
        host, R"({"world": {"resolution": [4, 3]},
                  "devices": [{"id": "flat", "type": "Constant", "params": {"Height": 0.25}}]})", "");
    project.network->Build();
    Orogen::PacketRef flat = project.network->Output("flat", 0);
    if (!flat || flat->PointCount() != 12) return 1;
    for (int64_t i = 0; i < flat->PointCount(); ++i)
        if (flat->samples[i] != 0.25f) return 1;
    std::printf("built 12 samples with %zu device types\n", host.Types().size());
    return 0;
}
