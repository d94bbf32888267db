#include "host/Host.h"

#include <cstring>
#include <random>
#include <system_error>
#include <utility>

#include "host/FileInput.h"
#include "host/ValueInput.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#include <unistd.h>
#endif

namespace basekit::host {

namespace fs = std::filesystem;

ModuleError::ModuleError(const fs::path& path, const std::string& reason)
    : std::runtime_error("cannot load module \"" + path.string() + "\": " + reason),
      path(path),
      reason(reason) {}

// Operating system

#ifdef _WIN32

void* OpenLibrary(const fs::path& path, std::string& error) {
    // LoadLibrary wants backslashes, and no message box for a bad file.
    fs::path native = path;
    native.make_preferred();
    DWORD previousMode = 0;
    ::SetThreadErrorMode(SEM_FAILCRITICALERRORS, &previousMode);
    HMODULE library = ::LoadLibraryW(native.c_str());
    const DWORD code = ::GetLastError();
    ::SetThreadErrorMode(previousMode, nullptr);
    if (!library) {
        char text[512] = {};
        ::FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                         code, 0, text, sizeof text, nullptr);
        error = text;
        if (error.empty()) error = "error " + std::to_string(code);
        while (!error.empty() && (error.back() == '\n' || error.back() == '\r')) error.pop_back();
    }
    return reinterpret_cast<void*>(library);
}

void* FindSymbol(void* library, const char* name) {
    return reinterpret_cast<void*>(::GetProcAddress(static_cast<HMODULE>(library), name));
}

void CloseLibrary(void* library) {
    if (library) ::FreeLibrary(static_cast<HMODULE>(library));
}

#else

void* OpenLibrary(const fs::path& path, std::string& error) {
    void* library = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        const char* text = ::dlerror();
        error = text ? text : "unknown error";
    }
    return library;
}

void* FindSymbol(void* library, const char* name) {
    return ::dlsym(library, name);
}

void CloseLibrary(void* library) {
    if (library) ::dlclose(library);
}

#endif

// Module

namespace {

template <class Function>
Function Export(void* library, const char* name) {
    return reinterpret_cast<Function>(FindSymbol(library, name));
}

}  // namespace

std::shared_ptr<Module> Module::Open(const fs::path& path, Orogen::HostServices* services) {
    std::string error;
    void* library = OpenLibrary(path, error);
    if (!library) throw ModuleError(path, error);
    ModuleExports exports;
    exports.getHeaderVersion =
        Export<Orogen::GetHeaderVersionFunction>(library, "GetHeaderVersion");
    exports.setupGlobalAccess =
        Export<Orogen::SetupGlobalAccessFunction>(library, "SetupGlobalAccess");
    exports.getDevPlugin = Export<Orogen::GetDevPluginFunction>(library, "GetDevPlugin");
    return FromExports(path, exports, services, library);
}

std::shared_ptr<Module> Module::FromExports(const fs::path& path, const ModuleExports& exports,
                                            Orogen::HostServices* services, void* library) {
    std::shared_ptr<Module> module(new Module);
    module->path = path;
    module->library = library;  // closed by the module from here on

    const std::pair<const char*, bool> needed[] = {
        {"GetHeaderVersion", exports.getHeaderVersion != nullptr},
        {"SetupGlobalAccess", exports.setupGlobalAccess != nullptr},
        {"GetDevPlugin", exports.getDevPlugin != nullptr},
    };
    for (const auto& [name, present] : needed)
        if (!present) throw ModuleError(path, std::string("it lacks the export ") + name);

    int32_t version = exports.getHeaderVersion();
    if (version != Orogen::kHeaderVersion)
        throw ModuleError(path, "its interface version is " + std::to_string(version) +
                                    "; this host needs " + std::to_string(Orogen::kHeaderVersion));

    exports.setupGlobalAccess(services);
    for (int32_t index = 0; index < kCatalogueSize; ++index) {
        Orogen::DeviceDescriptor descriptor;
        std::memset(&descriptor, 0, sizeof descriptor);
        bool present;
        try {
            present = exports.getDevPlugin(index, &descriptor);
        } catch (const std::exception& e) {
            throw ModuleError(path,
                              "catalogue entry " + std::to_string(index) + " failed: " + e.what());
        }
        if (!present) continue;  // a type this module does not offer (yet)
        descriptor.typeName[sizeof descriptor.typeName - 1] = '\0';
        descriptor.identity.terminator = '\0';
        if (!descriptor.identity.create || !descriptor.identity.destroy)
            throw ModuleError(path, "catalogue entry " + std::to_string(index) +
                                        " has no create or destroy function");
        module->descriptors.push_back(descriptor);
        module->indices.push_back(index);
    }
    return module;
}

Module::~Module() {
    CloseLibrary(library);
}

// DeviceHandle

DeviceHandle::DeviceHandle(const DeviceType& type)
    : destroy(type.descriptor.identity.destroy), module(type.module) {
    device = type.descriptor.identity.create ? type.descriptor.identity.create() : nullptr;
    if (!device) throw std::runtime_error("could not create a \"" + type.typeName + "\" device");
}

DeviceHandle::DeviceHandle(DeviceHandle&& other) noexcept
    : device(std::exchange(other.device, nullptr)),
      destroy(other.destroy),
      module(std::move(other.module)) {}

DeviceHandle& DeviceHandle::operator=(DeviceHandle&& other) noexcept {
    if (this != &other) {
        Reset();
        device = std::exchange(other.device, nullptr);
        destroy = other.destroy;
        module = std::move(other.module);
    }
    return *this;
}

void DeviceHandle::Reset() {
    // The device goes before its module may be unloaded.
    if (device) destroy(device);
    device = nullptr;
    module.reset();
}

// Host

namespace {

fs::path MakeTemporaryFolder() {
    std::random_device random;
    const fs::path base = fs::temp_directory_path();
    for (int attempt = 0; attempt < 100; ++attempt) {
        fs::path folder = base / ("basekit-swap-" + std::to_string(random()));
        if (fs::create_directory(folder)) return folder;
    }
    throw std::runtime_error("cannot make a swap folder in " + base.string());
}

}  // namespace

Host::Host(HostOptions options) {
    services = Orogen::HostServices{&network, &allocator, &seeds, &dialogs, &workers};
    Orogen::SetServices(&services);
    if (options.swapDirectory.empty()) {
        ownSwapFolder = MakeTemporaryFolder();
        network.SetSwapDirectory(ownSwapFolder);
    } else {
        network.SetSwapDirectory(options.swapDirectory);
    }
    RegisterHostType(&Orogen::CreateDevice<FileInput>, FileInput::kCategory, FileInput::kDataTypes);
    RegisterHostType(&Orogen::CreateDevice<ValueInput>, ValueInput::kCategory,
                     ValueInput::kDataTypes);
}

Host::~Host() {
    types.clear();
    modules.clear();
    workers.Resize(0);
    if (!ownSwapFolder.empty()) {
        std::error_code ignored;
        fs::remove_all(ownSwapFolder, ignored);
    }
    if (Orogen::Services() == &services) Orogen::SetServices(nullptr);
}

std::shared_ptr<Module> Host::LoadModule(const fs::path& path) {
    std::error_code error;
    fs::path canonical = fs::weakly_canonical(path, error);
    if (error) canonical = path;
    for (const auto& module : modules)
        if (module->Path() == canonical) return module;
    std::shared_ptr<Module> module = Module::Open(canonical, &services);
    modules.push_back(module);
    for (size_t i = 0; i < module->Descriptors().size(); ++i) {
        DeviceType type;
        type.descriptor = module->Descriptors()[i];
        type.typeName = type.descriptor.typeName;
        type.tag.assign(type.descriptor.identity.tag, 4);
        type.module = module;
        type.catalogueIndex = module->Indices()[i];
        types.push_back(std::move(type));
    }
    return module;
}

DeviceType Host::RegisterHostType(Orogen::DeviceFactory create, int32_t category,
                                  int32_t dataTypes) {
    Orogen::Device* sample = create ? create() : nullptr;
    if (!sample) throw std::runtime_error("a host device type could not be created");
    DeviceType type;
    std::memset(&type.descriptor, 0, sizeof type.descriptor);
    std::memcpy(&type.descriptor.identity, &sample->identity, sizeof sample->identity);
    std::strncpy(type.descriptor.typeName, sample->GetTypeName(),
                 sizeof type.descriptor.typeName - 1);
    type.descriptor.category = category;
    type.descriptor.dataTypes = dataTypes;
    Orogen::DeviceDeleter destroy = sample->identity.destroy;
    if (!destroy) {
        delete sample;
        throw std::runtime_error("a host device type has no destroy function");
    }
    destroy(sample);
    type.typeName = type.descriptor.typeName;
    type.tag.assign(type.descriptor.identity.tag, 4);
    types.push_back(type);
    return type;
}

const DeviceType* Host::FindType(std::string_view nameOrTag) const {
    for (const DeviceType& type : types)
        if (type.typeName == nameOrTag) return &type;
    for (const DeviceType& type : types)
        if (type.tag == nameOrTag) return &type;
    return nullptr;
}

}  // namespace basekit::host
