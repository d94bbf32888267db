// The built module, loaded as a host loads it.
#include <gtest/gtest.h>
#ifdef _WIN32
#ifndef NOMINMAX
#define NOMINMAX
#endif
#define WIN32_LEAN_AND_MEAN
#include <windows.h>
#endif

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <sstream>
#include <string>

#include "TestDevices.h"
#include "TestHost.h"

namespace {

using namespace basekit::testing;

// Through the reference host's library calls, without its catalogue reader.
struct Module {
    Module() {
        handle = basekit::host::OpenLibrary(BASEKIT64_MODULE_PATH, error);
        if (!handle) return;
        version = reinterpret_cast<GetHeaderVersionFunction>(
            basekit::host::FindSymbol(handle, "GetHeaderVersion"));
        setup = reinterpret_cast<SetupGlobalAccessFunction>(
            basekit::host::FindSymbol(handle, "SetupGlobalAccess"));
        plugin = reinterpret_cast<GetDevPluginFunction>(
            basekit::host::FindSymbol(handle, "GetDevPlugin"));
    }
    ~Module() {
        if (handle) basekit::host::CloseLibrary(handle);
    }
    void* handle = nullptr;
    std::string error;
    GetHeaderVersionFunction version = nullptr;
    SetupGlobalAccessFunction setup = nullptr;
    GetDevPluginFunction plugin = nullptr;
};

class PluginTest : public FrameworkTest {
protected:
    void SetUp() override {
        ASSERT_NE(module.handle, nullptr) << module.error;
        ASSERT_TRUE(module.version && module.setup && module.plugin);
        module.setup(host.Services());
        host.Network().ClearNotifications();
    }
    Module module;
};

TEST_F(PluginTest, OutOfRangeIndicesLeaveTheDescriptorAlone) {
    DeviceDescriptor descriptor;
    std::memset(&descriptor, 0xAB, sizeof descriptor);
    DeviceDescriptor before = descriptor;
    for (int32_t index : {35, -1, 1000, -2147483647 - 1}) {
        EXPECT_FALSE(module.plugin(index, &descriptor)) << index;
        EXPECT_EQ(std::memcmp(&descriptor, &before, sizeof descriptor), 0) << index;
    }
    EXPECT_FALSE(module.plugin(0, nullptr));
    EXPECT_TRUE(host.Network().Destroyed().empty());
}

// Every built entry (the catalogue's columns are compared in
// tests/golden/devices.json): a descriptor that matches its device and is
// the same when asked again, defaults inside their ranges, a save that loads
// back to the same bytes, and builds of 1x1, 3x2 and empty worlds.
TEST_F(PluginTest, EveryDeviceMatchesItsEntryRoundTripsAndBuildsTinyWorlds) {
    DeviceDescriptor constant;
    ASSERT_TRUE(module.plugin(0, &constant));
    int built = 0;
    for (int32_t index = 0; index < 35; ++index) {
        DeviceDescriptor descriptor;
        host.Network().ClearNotifications();
        if (!module.plugin(index, &descriptor)) continue;
        ++built;
        SCOPED_TRACE(descriptor.typeName);
        EXPECT_EQ(descriptor.identity.terminator, '\0');
        // The temporary device was destroyed through the module.
        ASSERT_EQ(host.Network().Destroyed().size(), 1u);
        DeviceDescriptor again;
        ASSERT_TRUE(module.plugin(index, &again));
        EXPECT_EQ(std::memcmp(&again, &descriptor, 97), 0);

        Device* device = descriptor.identity.create();
        ASSERT_NE(device, nullptr);
        EXPECT_STREQ(device->GetTypeName(), descriptor.typeName);
        EXPECT_EQ(device->GetCategory(), descriptor.category);
        EXPECT_EQ(device->identity.destroy, descriptor.identity.destroy);
        for (const ParamRecord& p : device->params.records) {
            SCOPED_TRACE(p.name);
            if (p.kind == kParamReal) {
                EXPECT_LE(p.minimum.f, p.value.f);
                EXPECT_LE(p.value.f, p.maximum.f);
            } else if (p.kind != kParamAction) {
                EXPECT_LE(p.minimum.i, p.value.i);
                EXPECT_LE(p.value.i, p.maximum.i);
            }
            if (p.kind == kParamChoice) {
                EXPECT_EQ(static_cast<int32_t>(p.labels.size()), p.maximum.i - p.minimum.i + 1);
            }
        }

        const std::string saved = SavedBytes(*device);
        EXPECT_EQ(saved.substr(0, 4), std::string(descriptor.identity.tag, 4));
        Device* loaded = descriptor.identity.create();
        ASSERT_TRUE(LoadBytes(*loaded, saved));
        loaded->seed = device->seed;  // the one field a load draws afresh
        EXPECT_EQ(SavedBytes(*loaded), saved);
        // A state cut short fails and leaves the device as it was.
        loaded->SetName("Kept");
        const std::string kept = SavedBytes(*loaded);
        for (size_t cut : {saved.size() - 1, saved.size() / 2, size_t{20}})
            EXPECT_FALSE(LoadBytes(*loaded, saved.substr(0, cut))) << cut;
        EXPECT_EQ(SavedBytes(*loaded), kept);
        loaded->identity.destroy(loaded);

        for (Grid grid : {Grid{1, 1}, Grid{3, 2}, Grid{0, 0}}) {
            BuildResultSet results;
            BuildContext context = MakeBuildContext(grid, &results, &recorder);
            std::vector<Device*> sources;
            for (Port* input : device->inputs) {
                Device* source = constant.identity.create();
                source->params.records[0].value.f = 0.5f;
                source->outputs[0]->Connect(input);
                EXPECT_EQ(source->Process(context), 1);
                sources.push_back(source);
            }
            int32_t status = device->Process(context);
            // A parameter input (Integer Equals) refuses the height field.
            const bool takesParameters = std::any_of(device->inputs.begin(), device->inputs.end(),
                                                     [](const Port* p) { return p->kind == 3; });
            if (grid.width > 0 && takesParameters) {
                EXPECT_EQ(status, 0);
            } else if (grid.width > 0) {
                EXPECT_EQ(status, 1) << grid.width << "x" << grid.height;
                const std::vector<PacketRef>& outputs = doGetDevice(&results, device).outputs;
                for (size_t k = 0; k < outputs.size(); ++k) {
                    const PacketRef& out = outputs[k];
                    // A router fills one of its optional outputs only.
                    if (!out && device->outputs[k]->role == kRoleOptional) continue;
                    ASSERT_TRUE(out);
                    for (uint64_t i = 0; i < out->PointCount() * out->Channels(); ++i)
                        EXPECT_TRUE(out->samples[i] >= 0.0f && out->samples[i] <= 1.0f);
                }
            } else {
                EXPECT_TRUE(status == 0 || status == 1 || status == 2) << status;
            }
            for (Device* source : sources) source->identity.destroy(source);
        }
        device->identity.destroy(device);
    }
    EXPECT_GE(built, 1);
    EXPECT_EQ(Outstanding(), 0);
    EXPECT_EQ(LivePackets(), 0);
}

TEST_F(PluginTest, ExportsExactlyTheThreeEntryPoints) {
    EXPECT_EQ(module.version(), 16);
    std::set<std::string> exported;
#ifdef _WIN32
    // The loaded image's export directory; an ordinal-only export fails too.
    auto base = static_cast<const unsigned char*>(module.handle);
    auto dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    auto nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const auto& entry = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
    ASSERT_NE(entry.Size, 0u);
    auto directory = reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(base + entry.VirtualAddress);
    EXPECT_EQ(directory->NumberOfFunctions, directory->NumberOfNames);
    auto names = reinterpret_cast<const DWORD*>(base + directory->AddressOfNames);
    for (DWORD i = 0; i < directory->NumberOfNames; ++i)
        exported.insert(reinterpret_cast<const char*>(base + names[i]));
#else
    std::string command = std::string("nm -D --defined-only ") + BASEKIT64_MODULE_PATH;
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    ASSERT_TRUE(pipe);
    char line[512];
    while (std::fgets(line, sizeof line, pipe.get())) {
        char address[64], type[8], symbol[400];
        if (std::sscanf(line, "%63s %7s %399s", address, type, symbol) == 3 &&
            std::string(type) != "A")
            exported.insert(symbol);
    }
#endif
    EXPECT_EQ(exported,
              (std::set<std::string>{"GetDevPlugin", "GetHeaderVersion", "SetupGlobalAccess"}));
}

}  // namespace
