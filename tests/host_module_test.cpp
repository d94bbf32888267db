// Loading modules: the catalogue, refusals, several modules side by side, and
// device lifetimes through the descriptors.
#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#endif

#include <set>

#include "host_test_support.h"

namespace basekit::host::testing {
namespace {

// What each entry holds is compared in tests/golden/devices.json, and each
// entry against its device in PluginTest.
TEST(HostModule, ReadsTheCatalogueOnceAndFindsTypesByNameOrTag) {
    Host host;
    std::shared_ptr<Module> module = host.LoadModule(BASEKIT64_MODULE_PATH);
    ASSERT_FALSE(module->Descriptors().empty());
    const DeviceType* constant = host.FindType("Constant");
    ASSERT_NE(constant, nullptr);
    EXPECT_EQ(constant->module, module);
    EXPECT_EQ(host.FindType("CHGT"), constant);
    EXPECT_EQ(host.FindType("Nothing"), nullptr);
    const size_t types = host.Types().size();
    EXPECT_EQ(host.LoadModule(BASEKIT64_MODULE_PATH), module);  // the same file adds nothing
    EXPECT_EQ(host.Types().size(), types);
}

// Fake exports, to check what the loader refuses.
int32_t g_version = 16;
int g_setupCalls = 0;
std::vector<int32_t> g_asked;
std::set<int32_t> g_present;
bool g_nullCreate = false;

Orogen::Device* NoDevice() {
    return nullptr;
}
void NoDestroy(Orogen::Device*) {}

int32_t FakeVersion() {
    return g_version;
}
void FakeSetup(Orogen::HostServices*) {
    ++g_setupCalls;
}
bool FakeCatalogue(int32_t index, Orogen::DeviceDescriptor* descriptor) {
    g_asked.push_back(index);
    if (!g_present.count(index)) return false;
    std::memcpy(descriptor->identity.tag, "FAKE", 4);
    descriptor->identity.create = g_nullCreate ? nullptr : &NoDevice;
    descriptor->identity.destroy = &NoDestroy;
    std::snprintf(descriptor->typeName, sizeof descriptor->typeName, "Fake %d", index);
    return true;
}

struct RefusalCase {
    const char* name;
    int32_t version;
    bool withVersion, withSetup, withCatalogue, nullCreate;
    const char* reason;  // empty: accepted
};

TEST(HostModule, RefusesWrongVersionsAndMissingExports) {
    const RefusalCase cases[] = {
        {"accepted", 16, true, true, true, false, ""},
        {"old version", 15, true, true, true, false,
         "its interface version is 15; this host needs 16"},
        {"new version", 17, true, true, true, false,
         "its interface version is 17; this host needs 16"},
        {"no version", 16, false, true, true, false, "it lacks the export GetHeaderVersion"},
        {"no setup", 16, true, false, true, false, "it lacks the export SetupGlobalAccess"},
        {"no catalogue", 16, true, true, false, false, "it lacks the export GetDevPlugin"},
        {"null create", 16, true, true, true, true,
         "catalogue entry 3 has no create or destroy function"},
    };
    Host host;
    for (const RefusalCase& c : cases) {
        SCOPED_TRACE(c.name);
        g_version = c.version;
        g_setupCalls = 0;
        g_asked.clear();
        g_present = {3, 20};
        g_nullCreate = c.nullCreate;
        ModuleExports exports;
        if (c.withVersion) exports.getHeaderVersion = &FakeVersion;
        if (c.withSetup) exports.setupGlobalAccess = &FakeSetup;
        if (c.withCatalogue) exports.getDevPlugin = &FakeCatalogue;
        if (std::string(c.reason).empty()) {
            auto module = Module::FromExports("fake.so", exports, host.Services());
            EXPECT_EQ(g_setupCalls, 1);
            // Every index is asked; absent ones are skipped.
            EXPECT_EQ(g_asked.size(), 35u);
            EXPECT_EQ(module->Indices(), (std::vector<int32_t>{3, 20}));
            EXPECT_STREQ(module->Descriptors()[1].typeName, "Fake 20");
            continue;
        }
        try {
            Module::FromExports("fake.so", exports, host.Services());
            ADD_FAILURE() << "accepted";
        } catch (const ModuleError& e) {
            EXPECT_EQ(std::string(e.what()),
                      std::string("cannot load module \"fake.so\": ") + c.reason);
        }
        // A module refused for its version or exports is never handed the services.
        if (!c.nullCreate) {
            EXPECT_EQ(g_setupCalls, 0);
        }
    }
}

TEST(HostModule, FilesThatAreNoModuleGiveAClearError) {
    TempDir dir;
    WriteBytes(dir / "text.so", "not a library");
    // A real library without the exports: one the test already runs on.
#ifdef _WIN32
    wchar_t name[MAX_PATH];
    ASSERT_NE(GetModuleFileNameW(GetModuleHandleW(L"kernel32.dll"), name, MAX_PATH), 0u);
    const fs::path system = name;
#else
    Dl_info info{};
    ASSERT_NE(dladdr(reinterpret_cast<void*>(&std::terminate), &info), 0);
    const fs::path system = info.dli_fname;
#endif
    const fs::path files[] = {dir / "missing.so", dir / "text.so", system};
    Host host;
    for (const fs::path& file : files) {
        SCOPED_TRACE(file.string());
        try {
            host.LoadModule(file);
            ADD_FAILURE() << "accepted";
        } catch (const ModuleError& e) {
            EXPECT_NE(std::string(e.what()).find(file.filename().string()), std::string::npos)
                << e.what();
            EXPECT_FALSE(e.Reason().empty());
        }
    }
    EXPECT_TRUE(host.Modules().empty());
}

TEST(HostModule, SeveralModulesSideBySide) {
    TempDir dir;
    fs::copy_file(BASEKIT64_MODULE_PATH, dir / "first.so");
    fs::copy_file(BASEKIT64_MODULE_PATH, dir / "second.so");
    Host host;
    auto first = host.LoadModule(dir / "first.so");
    auto second = host.LoadModule(dir / "second.so");
    ASSERT_NE(first, second);
    EXPECT_EQ(first->Indices(), second->Indices());

    const DeviceType* fromFirst = nullptr;
    const DeviceType* fromSecond = nullptr;
    for (const DeviceType& type : host.Types()) {
        if (type.typeName != "Constant") continue;
        if (type.module == first) fromFirst = &type;
        if (type.module == second) fromSecond = &type;
    }
    ASSERT_TRUE(fromFirst && fromSecond);
    // Two copies of the code: different create functions.
    EXPECT_NE(fromFirst->descriptor.identity.create, fromSecond->descriptor.identity.create);

    Network network(host);
    network.world.width = 9;
    network.world.height = 9;
    Orogen::Device& a = network.AddDevice("a", *fromFirst);
    Orogen::Device& b = network.AddDevice("b", *fromSecond);
    Orogen::GetParameter(&a, "Height")->f = 0.25f;
    Orogen::GetParameter(&b, "Height")->f = 0.75f;
    BuildReport report = network.Build();
    ASSERT_EQ(report.Count(BuildStatus::Built), 2u);
    EXPECT_EQ(SamplesOf(network.Output("a", 0)), std::vector<float>(81, 0.25f));
    EXPECT_EQ(SamplesOf(network.Output("b", 0)), std::vector<float>(81, 0.75f));
}

TEST(HostModule, DevicesFreeWhatTheyAllocateAndAnnounceTheirEndOnce) {
    Host host;
    host.LoadModule(BASEKIT64_MODULE_PATH);
    uint64_t outstanding = host.Allocator().Outstanding();
    uint64_t bytes = host.Allocator().OutstandingBytes();
    host.Network().ClearNotifications();
    std::vector<const Orogen::Device*> made;
    {
        std::vector<DeviceHandle> devices;
        for (const DeviceType& type : host.Types())
            for (int copy = 0; copy < 3; ++copy) {
                devices.emplace_back(type);
                made.push_back(devices.back().get());
            }
        // Parameter descriptions live in host memory while the devices do.
        EXPECT_GT(host.Allocator().Outstanding(), outstanding);
    }
    EXPECT_EQ(host.Allocator().Outstanding(), outstanding);
    EXPECT_EQ(host.Allocator().OutstandingBytes(), bytes);
    EXPECT_EQ(host.Allocator().BadFrees(), 0u);
    std::vector<const Orogen::Device*> destroyed = host.Network().Destroyed();
    std::multiset<const Orogen::Device*> expected(made.begin(), made.end());
    EXPECT_EQ(std::multiset<const Orogen::Device*>(destroyed.begin(), destroyed.end()), expected);
}

}  // namespace
}  // namespace basekit::host::testing
