// The reference host: loads device modules through their three exports,
// hands them its services, and keeps the catalogue of device types.
#pragma once

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "framework/Device.h"
#include "host/Services.h"

namespace basekit::host {

// A module file that could not be used; the message names the file and why.
class ModuleError : public std::runtime_error {
  public:
    ModuleError(const std::filesystem::path& path, const std::string& reason);
    const std::filesystem::path& Path() const { return path; }
    const std::string& Reason() const { return reason; }

  private:
    std::filesystem::path path;
    std::string reason;
};

// The operating system's side of module files: the only place that does.
void* OpenLibrary(const std::filesystem::path& path, std::string& error);
void* FindSymbol(void* library, const char* name);
void CloseLibrary(void* library);

struct ModuleExports {
    Orogen::GetHeaderVersionFunction getHeaderVersion = nullptr;
    Orogen::SetupGlobalAccessFunction setupGlobalAccess = nullptr;
    Orogen::GetDevPluginFunction getDevPlugin = nullptr;
};

// One loaded module and its catalogue.
class Module {
  public:
    // Catalogue indices asked for; entries that answer false are skipped.
    static constexpr int32_t kCatalogueSize = 35;

    // Opens the file, checks its exports and version, hands over `services`
    // and reads the catalogue. Throws ModuleError.
    static std::shared_ptr<Module> Open(const std::filesystem::path& path,
                                        Orogen::HostServices* services);
    // The same from exports already at hand; `library` (may be null) is
    // closed with the module, or at once on failure.
    static std::shared_ptr<Module> FromExports(const std::filesystem::path& path,
                                               const ModuleExports& exports,
                                               Orogen::HostServices* services,
                                               void* library = nullptr);
    ~Module();
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    const std::filesystem::path& Path() const { return path; }
    const std::vector<Orogen::DeviceDescriptor>& Descriptors() const { return descriptors; }
    // Catalogue index of each descriptor.
    const std::vector<int32_t>& Indices() const { return indices; }

  private:
    Module() = default;
    std::filesystem::path path;
    void* library = nullptr;
    std::vector<Orogen::DeviceDescriptor> descriptors;
    std::vector<int32_t> indices;
};

// A device type the host can create: a module's catalogue entry or one of
// the host's own devices (module null).
struct DeviceType {
    Orogen::DeviceDescriptor descriptor{};
    std::string typeName;
    std::string tag;
    std::shared_ptr<Module> module;
    int32_t catalogueIndex = -1;
};

// A device made through its type's create pointer and destroyed through its
// destroy pointer; keeps its module loaded while it lives.
class DeviceHandle {
  public:
    DeviceHandle() = default;
    explicit DeviceHandle(const DeviceType& type);  // throws std::runtime_error
    ~DeviceHandle() { Reset(); }
    DeviceHandle(DeviceHandle&& other) noexcept;
    DeviceHandle& operator=(DeviceHandle&& other) noexcept;
    DeviceHandle(const DeviceHandle&) = delete;
    DeviceHandle& operator=(const DeviceHandle&) = delete;

    void Reset();
    Orogen::Device* get() const { return device; }
    Orogen::Device* operator->() const { return device; }
    explicit operator bool() const { return device != nullptr; }

  private:
    Orogen::Device* device = nullptr;
    Orogen::DeviceDeleter destroy = nullptr;
    std::shared_ptr<Module> module;
};

struct HostOptions {
    // Where packets are paged out; empty: a fresh temporary folder, removed
    // with the host.
    std::filesystem::path swapDirectory;
};

class Host {
  public:
    // Also makes this host's services the ones the host's own devices use;
    // one host at a time should be alive.
    explicit Host(HostOptions options = {});
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    // Loads a module file (a file loaded already is not loaded twice) and
    // adds its device types. Throws ModuleError.
    std::shared_ptr<Module> LoadModule(const std::filesystem::path& path);
    const std::vector<std::shared_ptr<Module>>& Modules() const { return modules; }

    // Adds a device type of the host's own, described by a device the
    // factory makes (and its identity's destroy pointer deletes).
    DeviceType RegisterHostType(Orogen::DeviceFactory create, int32_t category, int32_t dataTypes);

    // Host types first, then the modules' in load and catalogue order.
    const std::vector<DeviceType>& Types() const { return types; }
    // By type display name, else by 4-character tag; null when unknown.
    const DeviceType* FindType(std::string_view nameOrTag) const;

    Orogen::HostServices* Services() { return &services; }
    CountingAllocator& Allocator() { return allocator; }
    SeedSource& Seeds() { return seeds; }
    ScriptedDialogs& Dialogs() { return dialogs; }
    WorkerThreadPool& Workers() { return workers; }
    HostNetworkService& Network() { return network; }
    const std::filesystem::path& SwapDirectory() const { return network.SwapDirectory(); }

  private:
    CountingAllocator allocator;
    SeedSource seeds;
    ScriptedDialogs dialogs;
    WorkerThreadPool workers;
    HostNetworkService network;
    Orogen::HostServices services{};
    // The temporary swap folder this host made, removed with it.
    std::filesystem::path ownSwapFolder;
    std::vector<std::shared_ptr<Module>> modules;
    std::vector<DeviceType> types;
};

}  // namespace basekit::host
