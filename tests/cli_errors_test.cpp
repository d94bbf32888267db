// Bad command lines and bad network files: exit code 2, one line on standard
// error that names the place, and nothing written; an output folder that
// cannot take files is the disk's error, exit code 1, just as plainly.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "cli_support.h"
#include "host/ImageIO.h"

namespace orogen::testing {
namespace {

struct BadInput {
    const char* what;
    const char* network;  // written to net.json; null: no file
    std::vector<std::string> args;
    std::vector<std::string> mentions;  // each must appear in the message
    int code = 2;
};

const char* const kRadial = R"({"devices": [{"id": "hill", "type": "Radial Grad"}]})";

// Every mistake a network file can hold is checked with its exact message by
// the host's tests; here a few of them show the path from file to exit code.
std::vector<BadInput> Cases() {
    const std::vector<std::string> build = {"build", "net.json", "-o", "o"};
    auto with = [&](std::vector<std::string> extra) {
        std::vector<std::string> args = build;
        args.insert(args.end(), extra.begin(), extra.end());
        return args;
    };
    static const std::string long300 = R"({"devices": [{"id": "hill", "type": "Radial Grad"}],
        "export": [{"device": "hill", "name": ")" + std::string(300, 'n') + "\"}]}";
    static const std::string deep = R"({"world": {"verticalScale": )" + std::string(100000, '[') +
                                    std::string(100000, ']') + "}}";
    std::vector<BadInput> cases = {
        {"a value nested 100,000 deep", deep.c_str(), build, {"net.json", "line 1", "nested deeper"}},
        {"more samples than a file holds", kRadial, with({"--resolution", "2147483647x1"}),
         {"--resolution", "2^30"}},
        {"a bitmap larger than a file holds",
         R"({"devices": [{"id": "c", "type": "Colorize"}]})", with({"--resolution", "20000x20000"}),
         {"export \"c\"", "1200000000 samples"}},
        {"an export name of 300 characters", long300.c_str(), build, {"export[0].name", "longer than 128"}},
        {"a NUL in an id", R"({"devices": [{"id": "a\u0000", "type": "Radial Grad"}]})", build,
         {"devices[0].id", "U+0000"}},
        {"a number beyond a double", R"({"world": {"verticalScale": 1e400}})", build,
         {"net.json", "line 1, column 29", "1e400"}},
        {"malformed JSON", "{\n  \"devices\": [\n    {\"id\": \"a\" \"type\": \"Gradient\"}\n  ]\n}",
         build, {"net.json", "line 3", "malformed JSON"}},
        {"unknown device type", R"({"devices": [{"id": "a", "type": "Radial Gard"}]})", build,
         {"devices[0].type", "Radial Gard", "\"Radial Grad\""}},
        {"value above the range", R"({"devices": [{"id": "a", "type": "Radial Grad", "params": {"Radius": 80}}]})",
         build, {"devices[0].params.Radius", "80", "0..64"}},
        {"missing network file", nullptr, {"build", "absent.json", "-o", "o"}, {"absent.json", "cannot open"}},
        {"output folder is a file", kRadial, {"build", "net.json", "-o", "net.json"},
         {"net.json", "not a folder"}, 1},
        {"output folder under a file", kRadial, {"build", "net.json", "-o", "net.json/o"},
         {"cannot create output folder"}, 1},
        {"unknown format", kRadial, with({"--format", "png,tiff"}), {"--format", "tiff"}},
        {"unknown PNG range", kRadial, with({"--png-range", "wide"}), {"--png-range", "wide"}},
        {"EXR channel without a name", kRadial, with({"--exr-channel", ""}), {"--exr-channel"}},
        {"bad resolution", kRadial, with({"--resolution", "0x5"}), {"--resolution", "0x5"}},
        {"resolution without a height", kRadial, with({"--resolution", "64"}), {"--resolution"}},
        {"zero threads", kRadial, with({"--threads", "0"}), {"threads"}},
        {"memory in an unknown unit", kRadial, with({"--memory", "12Q"}), {"--memory", "12Q"}},
        {"no memory", kRadial, with({"--memory", "0M"}), {"--memory", "0M"}},
        {"memory too large", kRadial, with({"--memory", "99999999T"}), {"--memory"}},
        {"no network file", kRadial, {"build", "-o", "o"}, {"file"}},
        {"unknown command", kRadial, {"bulid", "net.json"}, {"bulid"}},
        {"unknown option", kRadial, with({"--fast"}), {"--fast"}},
        {"save without -o", kRadial, {"save", "net.json"}, {"output"}},
        {"--set out of range", kRadial, with({"--set", "hill.Radius=80"}),
         {"--set hill.Radius: 80 is outside 0..64"}},
        {"--set of no device", kRadial, with({"--set", "hil.Radius=1"}),
         {"--set hil.Radius: no device \"hil\""}},
        {"--set without a value", kRadial, with({"--set", "hill.Radius"}), {"--set", "ID.PARAM=VALUE"}},
        {"--set of an unknown choice", kRadial, with({"--set", "hill.Type=Spike"}),
         {"--set hill.Type", "\"Spike\""}},
        {"negative seed", kRadial, with({"--seed", "-1"}), {"--seed"}},
        {"save of a bad file", R"({"devices": [{"id": "a", "type": "Nothing"}]})",
         {"save", "net.json", "-o", "o.json"}, {"devices[0].type", "Nothing"}},
    };
    if (!basekit::host::CanUseTiff()) {
        cases.push_back({"TIFF in a build without it", kRadial, with({"--format", "tif"}),
                         {"--format tif", "this build of orogen has no TIFF support"}});
    }
    if (!basekit::host::CanUseExr()) {
        cases.push_back({"EXR in a build without it", kRadial, with({"--format", "png,exr"}),
                         {"--format exr", "this build of orogen has no EXR support"}});
    }
    return cases;
}

TEST(CliErrors, BadInputIsRefusedWithOneLineAndNothingWritten) {
    for (const BadInput& c : Cases()) {
        SCOPED_TRACE(c.what);
        Scratch dir;
        if (c.network) WriteText(dir / "net.json", c.network);
        std::vector<std::string> before = ListFolder(dir.path());
        RunResult run = RunOrogen(c.args, dir.path());
        EXPECT_EQ(run.code, c.code) << run.err;
        ASSERT_FALSE(run.err.empty());
        EXPECT_TRUE(run.err.rfind("orogen: ", 0) == 0) << run.err;
        // One line, or one line and a pointer to --help for command-line errors.
        size_t lines = static_cast<size_t>(std::count(run.err.begin(), run.err.end(), '\n'));
        EXPECT_GE(lines, 1u);
        EXPECT_LE(lines, 2u) << run.err;
        std::string first = run.err.substr(0, run.err.find('\n'));
        for (const std::string& mention : c.mentions)
            EXPECT_NE(first.find(mention), std::string::npos) << "\"" << mention << "\" not in: " << first;
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(ListFolder(dir.path()), before) << "something was written";
    }
}

TEST(CliErrors, ModuleFromOptionOrEnvironmentAndMissingOnesNamed) {
    Scratch dir;
    RunResult run = RunOrogen({"--module", BASEKIT64_MODULE_PATH, "devices"}, dir.path());
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_NE(run.out.find("Radial Grad"), std::string::npos);
    run = RunOrogen({"devices"}, dir.path(),
                    std::string("BASEKIT64_MODULE=") + BASEKIT64_MODULE_PATH);
    EXPECT_EQ(run.code, 0) << run.err;

    WriteText(dir / "net.json", kRadial);
    run = RunOrogen({"--module", (dir / "nothing.so").string(), "build", "net.json", "-o", "o"},
                              dir.path());
    EXPECT_EQ(run.code, 1);
    EXPECT_NE(run.err.find("cannot find the device module"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("nothing.so"), std::string::npos) << run.err;
    EXPECT_FALSE(fs::exists(dir / "o"));

    // The environment variable is used, and is just as strict.
    run = RunOrogen({"devices"}, dir.path(), "BASEKIT64_MODULE=" + (dir / "gone.so").string());
    EXPECT_EQ(run.code, 1);
    EXPECT_NE(run.err.find("gone.so"), std::string::npos) << run.err;

    // A file that is not a module is refused, not loaded.
    WriteText(dir / "fake.so", "not a library");
    run = RunOrogen({"--module", (dir / "fake.so").string(), "devices"}, dir.path());
    EXPECT_EQ(run.code, 1);
    EXPECT_NE(run.err.find("fake.so"), std::string::npos) << run.err;
    EXPECT_EQ(run.out, "");
}

}  // namespace
}  // namespace orogen::testing
