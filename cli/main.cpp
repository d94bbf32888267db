// orogen: builds terrain networks with the BaseKit64 devices from the command line.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "DemoNetwork.h"
#include "cli/Commands.h"
#include "cli/Tool.h"
#include "host/NetworkFile.h"

namespace orogen {

namespace fs = std::filesystem;

std::string DemoNetworkText() {
    return std::string(reinterpret_cast<const char*>(kDemoNetworkText), kDemoNetworkSize);
}

namespace {

struct BuildFlags {
    std::string outputDir = "out";
    std::string formats = DefaultFormats();
    std::string resolution;
    uint32_t threads = 0;
    std::string memory;
    bool quiet = false;
    bool preview = false;
    bool keepGoing = false;
    bool clean = false;
    std::optional<uint32_t> seed;
    std::vector<std::string> sets;
    std::string pngRange = "fixed";
    std::string exrChannel = "Y";

    basekit::host::ParseOptions Options() const {
        basekit::host::ParseOptions options;
        options.seed = seed;
        for (const std::string& text : sets) options.overrides.push_back(ParseSetting(text));
        return options;
    }
    bool html = false;

    BuildSettings Settings() const {
        BuildSettings settings;
        settings.outputDir = outputDir;
        settings.formats = ParseFormats(formats);
        if (!resolution.empty()) settings.resolution = ParseResolution(resolution);
        settings.threads = threads;
        if (!memory.empty()) settings.memoryBudget = ParseMemory(memory);
        settings.quiet = quiet;
        settings.preview = preview;
        settings.keepGoing = keepGoing;
        settings.clean = clean;
        settings.pngRangeAuto = pngRange == "auto";
        if (exrChannel.empty()) throw UsageError("--exr-channel: the channel needs a name");
        settings.exrChannel = exrChannel;
        settings.html = html;
        return settings;
    }
};

// What changes the network as it is read: build, demo, save and serve take them.
void AddProjectFlags(CLI::App& command, BuildFlags& flags) {
    command.add_option("--seed", flags.seed,
                       "Seed of the build, instead of the file's \"seed\": seeded devices without "
                       "a \"Random Seed\" of their own take one from it and their id");
    command.add_option("--set", flags.sets,
                       "ID.PARAM=VALUE: sets a device's parameter as the file is read (repeatable)")
        ->allow_extra_args(false);
}

void AddBuildFlags(CLI::App& command, BuildFlags& flags) {
    command.add_option("-o,--output", flags.outputDir, "Folder for the files and manifest.json")
        ->capture_default_str();
    command.add_option("--format", flags.formats, "Comma-separated file formats: png, r32, r16, exr, tif")
        ->capture_default_str();
    command.add_option("--png-range", flags.pngRange,
                       "16-bit PNG and r16 mapping: fixed (0..1 onto 0..65535) or auto (each "
                       "height field's own range)")
        ->check(CLI::IsMember({"fixed", "auto"}))
        ->capture_default_str();
    command.add_option("--exr-channel", flags.exrChannel, "EXR channel of a height field")
        ->capture_default_str();
    command.add_option("--resolution", flags.resolution, "Build at WxH samples instead of the file's resolution");
    command.add_option("--threads", flags.threads, "Threads to build with (default: one per core)")
        ->check(CLI::Range(1u, 4096u));
    command.add_option("--memory", flags.memory,
                       "Memory for stored outputs, e.g. 512M or 8G; beyond it they are paged to "
                       "disk (default: no limit)");
    command.add_flag("-q,--quiet", flags.quiet, "No progress bar and no summary");
    command.add_flag("--clean", flags.clean,
                     "Remove the files the folder's previous manifest lists that this build does "
                     "not write");
    command.add_flag("--keep-going", flags.keepGoing,
                     "Exit 0 even when a device fails or an export is missing (the manifest "
                     "still says so)");
    AddProjectFlags(command, flags);
    command.add_flag("--html", flags.html,
                     "Also write index.html: every export in 2-D and 3-D, to open from the folder");
}

// The command's name moves to the front, so that its options may come before
// it as well as after ("orogen --threads 2 build net.json"); an option's
// value is never taken for a command.
std::vector<std::string> CommandFirst(CLI::App& app, int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    std::vector<const CLI::App*> apps = {&app};
    for (const CLI::App* command : app.get_subcommands({})) apps.push_back(command);
    auto takesValue = [&](const std::string& name) {
        for (const CLI::App* a : apps)
            for (const CLI::Option* option : a->get_options())
                if (option->check_name(name)) return option->get_items_expected_min() > 0;
        return false;
    };
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "--") break;
        if (arg.size() > 1 && arg[0] == '-') {
            if (arg.find('=') == std::string::npos && takesValue(arg)) ++i;
            continue;
        }
        const bool command = std::any_of(apps.begin() + 1, apps.end(),
                                         [&](const CLI::App* a) { return a->check_name(arg); });
        if (command && i > 0) {
            std::string name = arg;
            args.erase(args.begin() + static_cast<std::ptrdiff_t>(i));
            args.insert(args.begin(), name);
        }
        break;
    }
    return args;
}

int Run(int argc, char** argv) {
    CLI::App app{"orogen: builds terrain networks with the BaseKit64 devices.\n"
                 "Without a command it builds the demo network into out/ with a preview picture."};
    app.set_help_all_flag("--help-all", "Help for every command");
    // The same command line everywhere: on Windows "/x" stays an argument (a path).
    app.allow_windows_style_options(false);
    std::string modulePath;
    app.add_option("--module", modulePath,
                   "The device module (default: $BASEKIT64_MODULE, else beside the program)");
    bool version = false;
    app.add_flag("--version", version, "The version of orogen and the device types of its module");
    // The tool's own options may follow the command too.
    app.fallthrough();

    bool devicesJson = false;
    CLI::App* devices = app.add_subcommand("devices", "List the device types and their parameters");
    devices->add_flag("--json", devicesJson, "As JSON");

    std::string buildFile;
    BuildFlags buildFlags;
    CLI::App* build = app.add_subcommand("build", "Build a network file and write its exports");
    build->add_option("file", buildFile, "Network file (JSON)")->required();
    AddBuildFlags(*build, buildFlags);
    std::string previewName;
    CLI::Option* preview = build->add_flag(
        "--preview{*}", previewName,
        "Also write preview.png: of the first view, else the first height field, else the first "
        "bitmap; --preview=ID of that export (or the first export of device ID)");

    std::string saveFile, saveOutput;
    CLI::App* save = app.add_subcommand("save", "Write the network again with every device's saved state");
    save->add_option("file", saveFile, "Network file (JSON)")->required();
    save->add_option("-o,--output", saveOutput, "The file to write")->required();
    BuildFlags saveFlags;
    AddProjectFlags(*save, saveFlags);

    ServeSettings serveSettings;
    std::string serveResolution = "513x513";
    CLI::App* serve = app.add_subcommand(
        "serve", "Build a network, show it at http://127.0.0.1 and rebuild on save");
    serve->add_option("file", serveSettings.file, "Network file (JSON)")->required();
    serve->add_option("-o,--output", serveSettings.outputDir, "Folder for the page and its builds")
        ->capture_default_str();
    serve->add_option("--port", serveSettings.port, "Port on 127.0.0.1 (0: any free one)")
        ->capture_default_str()
        ->check(CLI::Range(0, 65535));
    serve
        ->add_option("--preview-resolution", serveResolution,
                     "Build at most WxH samples while editing (the file's own when smaller)")
        ->capture_default_str();
    serve
        ->add_option("--threads", serveSettings.threads,
                     "Threads to build with (default: one per core)")
        ->check(CLI::Range(1u, 4096u));
    BuildFlags serveFlags;
    AddProjectFlags(*serve, serveFlags);

    BuildFlags demoFlags;
    demoFlags.preview = true;
    bool demoPrint = false;
    CLI::App* demo = app.add_subcommand("demo", "Build the demo network (what orogen does without a command)");
    AddBuildFlags(*demo, demoFlags);
    demo->add_flag("--print", demoPrint, "Print the demo network file instead of building it");

    app.require_subcommand(0, 1);
    try {
        std::vector<std::string> args = CommandFirst(app, argc, argv);
        std::reverse(args.begin(), args.end());  // CLI11 takes them last first
        app.name("orogen");
        app.parse(args);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        std::fprintf(stderr, "orogen: %s\nRun \"orogen --help\" for the commands and options.\n", e.what());
        return kExitUsage;
    }

    try {
        if (*demo && demoPrint) {
            std::fputs(DemoNetworkText().c_str(), stdout);
            return kExitOk;
        }
        // Options first: a bad command line is reported before anything is loaded.
        BuildSettings settings;
        basekit::host::ParseOptions parseOptions;
        if (*build) {
            buildFlags.preview = preview->count() > 0;
            settings = buildFlags.Settings();
            if (previewName != "*") settings.previewOf = previewName;
            parseOptions = buildFlags.Options();
        }
        if (*demo || app.get_subcommands().empty()) {
            settings = demoFlags.Settings();
            parseOptions = demoFlags.Options();
        }
        if (*serve) {
            serveSettings.resolution = ParseResolution(serveResolution);
            serveSettings.options = serveFlags.Options();
        }
        if (*save) parseOptions = saveFlags.Options();

        if (version) std::printf("orogen %s\n", OROGEN_VERSION);
        basekit::host::Host host;
        std::optional<fs::path> module;
        if (!modulePath.empty()) module = fs::path(modulePath);
        fs::path loaded;
        try {
            loaded = LoadModule(host, module);
        } catch (const std::exception& e) {
            std::fprintf(stderr, "orogen: %s\n", e.what());
            return kExitError;
        }
        if (version) {
            size_t types = 0;
            for (const basekit::host::DeviceType& type : host.Types())
                if (type.catalogueIndex >= 0) ++types;
            std::printf("module %s: %zu device types\n", loaded.string().c_str(), types);
            return kExitOk;
        }

        if (*devices) return RunDevices(host, devicesJson);
        if (*serve) return RunServe(host, serveSettings);
        if (*save) {
            basekit::host::Project project = ReadProject(host, saveFile, parseOptions);
            basekit::host::SaveNetworkFile(project, saveOutput);
            return kExitOk;
        }
        basekit::host::Project project =
            *build ? ReadProject(host, buildFile, parseOptions)
                   : ReadProjectText(host, DemoNetworkText(), "demo network", parseOptions);
        return BuildAndExport(project, settings);
    } catch (const UsageError& e) {
        std::fprintf(stderr, "orogen: %s\n", e.what());
        return kExitUsage;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "orogen: %s\n", e.what());
        return kExitError;
    }
}

}  // namespace
}  // namespace orogen

int main(int argc, char** argv) { return orogen::Run(argc, argv); }
