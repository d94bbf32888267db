// Bad command lines and bad network files: exit code 2, one line on standard
// error that names the place, and nothing written.

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
};

const char* const kRadial = R"({"devices": [{"id": "hill", "type": "Radial Grad"}]})";

std::vector<BadInput> Cases() {
    std::vector<BadInput> cases = {
        {"malformed JSON", "{\n  \"devices\": [\n    {\"id\": \"a\" \"type\": \"Gradient\"}\n  ]\n}",
         {"build", "net.json", "-o", "o"}, {"net.json", "line 3", "malformed JSON"}},
        {"not an object", "[1, 2]", {"build", "net.json", "-o", "o"}, {"net.json", "object"}},
        {"unknown top-level key", R"({"device": []})", {"build", "net.json", "-o", "o"},
         {"device", "unknown key"}},
        {"unknown device type", R"({"devices": [{"id": "a", "type": "Radial Gard"}]})",
         {"build", "net.json", "-o", "o"}, {"devices[0].type", "Radial Gard", "\"Radial Grad\""}},
        {"unknown parameter", R"({"devices": [{"id": "a", "type": "Radial Grad", "params": {"Radus": 2}}]})",
         {"build", "net.json", "-o", "o"}, {"devices[0].params.Radus", "\"Radius\""}},
        {"unknown label", R"({"devices": [{"id": "a", "type": "CGRD", "params": {"Type": "Round"}}]})",
         {"build", "net.json", "-o", "o"}, {"devices[0].params.Type", "Round", "\"Cone\""}},
        {"value above the range", R"({"devices": [{"id": "a", "type": "Radial Grad", "params": {"Radius": 80}}]})",
         {"build", "net.json", "-o", "o"}, {"devices[0].params.Radius", "80", "0..64"}},
        {"value below the range", R"({"devices": [{"id": "a", "type": "Gradient", "params": {"Direction": -1}}]})",
         {"build", "net.json", "-o", "o"}, {"devices[0].params.Direction", "0..360"}},
        {"integer given a fraction", R"({"devices": [{"id": "a", "type": "Gradient", "params": {"Direction": 1.5}}]})",
         {"build", "net.json", "-o", "o"}, {"devices[0].params.Direction", "integer"}},
        {"duplicate id",
         R"({"devices": [{"id": "a", "type": "Gradient"}, {"id": "a", "type": "Constant"}]})",
         {"build", "net.json", "-o", "o"}, {"devices[1].id", "duplicate"}},
        {"link from a missing device",
         R"({"devices": [{"id": "a", "type": "Gradient"}], "links": [{"from": "b", "to": "a", "param": "Width"}]})",
         {"build", "net.json", "-o", "o"}, {"links[0].from", "\"b\""}},
        {"link to a missing input",
         R"({"devices": [{"id": "a", "type": "Gradient"}, {"id": "b", "type": "Constant"}],
             "links": [{"from": "a", "to": "b", "input": 0}]})",
         {"build", "net.json", "-o", "o"}, {"links[0].input", "no input 0"}},
        {"link from a missing output",
         R"({"devices": [{"id": "a", "type": "Gradient"}, {"id": "b", "type": "Radial Grad"}],
             "links": [{"from": "a", "output": 2, "to": "b", "param": "Radius"}]})",
         {"build", "net.json", "-o", "o"}, {"links[0].output", "no output 2"}},
        {"link to a missing parameter",
         R"({"devices": [{"id": "a", "type": "Gradient"}, {"id": "b", "type": "Radial Grad"}],
             "links": [{"from": "a", "to": "b", "param": "Height"}]})",
         {"build", "net.json", "-o", "o"}, {"links[0].param", "Height", "\"Radius\""}},
        {"cycle",
         R"({"devices": [{"id": "a", "type": "Gradient"}, {"id": "b", "type": "Radial Grad"}],
             "links": [{"from": "a", "to": "b", "param": "Radius"}, {"from": "b", "to": "a", "param": "Width"}]})",
         {"build", "net.json", "-o", "o"}, {"links[1]", "cycle"}},
        {"export of a missing device", R"({"devices": [], "export": [{"device": "x"}]})",
         {"build", "net.json", "-o", "o"}, {"export[0].device", "\"x\""}},
        {"export name with a folder",
         R"({"devices": [{"id": "a", "type": "Gradient"}], "export": [{"device": "a", "name": "../a"}]})",
         {"build", "net.json", "-o", "o"}, {"export[0].name", "../a"}},
        {"zero resolution", R"({"world": {"resolution": [0, 5]}, "devices": []})",
         {"build", "net.json", "-o", "o"}, {"world.resolution[0]"}},
        {"missing network file", nullptr, {"build", "absent.json", "-o", "o"}, {"absent.json", "cannot open"}},
        {"missing file from the root", nullptr, {"build", "/basekit-none/net.json", "-o", "o"},
         {"/basekit-none/net.json", "cannot open"}},
        {"output folder is a file", kRadial, {"build", "net.json", "-o", "net.json"},
         {"net.json", "not a folder"}},
        {"output folder under a file", kRadial, {"build", "net.json", "-o", "net.json/o"},
         {"cannot create output folder"}},
        {"unknown format", kRadial, {"build", "net.json", "-o", "o", "--format", "png,tiff"},
         {"--format", "tiff"}},
        {"bad resolution", kRadial, {"build", "net.json", "-o", "o", "--resolution", "0x5"},
         {"--resolution", "0x5"}},
        {"resolution without a height", kRadial, {"build", "net.json", "-o", "o", "--resolution", "64"},
         {"--resolution"}},
        {"zero threads", kRadial, {"build", "net.json", "-o", "o", "--threads", "0"}, {"threads"}},
        {"memory in an unknown unit", kRadial, {"build", "net.json", "-o", "o", "--memory", "12Q"},
         {"--memory", "12Q"}},
        {"no memory", kRadial, {"build", "net.json", "-o", "o", "--memory", "0M"}, {"--memory", "0M"}},
        {"memory too large", kRadial, {"build", "net.json", "-o", "o", "--memory", "99999999T"},
         {"--memory"}},
        {"no network file", kRadial, {"build", "-o", "o"}, {"file"}},
        {"unknown command", kRadial, {"bulid", "net.json"}, {"bulid"}},
        {"unknown option", kRadial, {"build", "net.json", "-o", "o", "--fast"}, {"--fast"}},
        {"save without -o", kRadial, {"save", "net.json"}, {"output"}},
        {"save of a bad file", R"({"devices": [{"id": "a", "type": "Nothing"}]})",
         {"save", "net.json", "-o", "o.json"}, {"devices[0].type", "Nothing"}},
    };
    if (!basekit::host::CanUseExr()) {
        cases.push_back({"EXR in a build without it", kRadial,
                         {"build", "net.json", "-o", "o", "--format", "png,exr"},
                         {"--format exr", "this build of orogen has no EXR support"}});
    }
    return cases;
}

TEST(CliErrors, BadInputIsRefusedWithOneLineAndNothingWritten) {
    for (const BadInput& c : Cases()) {
        SCOPED_TRACE(c.what);
        Scratch dir;
        if (c.network) WriteText(dir / "net.json", c.network);
        std::vector<std::string> before = Listing(dir.path());
        RunResult run = RunOrogen(c.args, dir.path());
        EXPECT_EQ(run.code, 2) << run.err;
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
        EXPECT_EQ(Listing(dir.path()), before) << "something was written";
    }
}

TEST(CliErrors, MissingModuleIsNamed) {
    Scratch dir;
    WriteText(dir / "net.json", kRadial);
    RunResult run = RunOrogen({"--module", (dir / "nothing.so").string(), "build", "net.json", "-o", "o"},
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

TEST(CliErrors, ExplicitModuleIsUsed) {
    Scratch dir;
    RunResult run = RunOrogen({"--module", BASEKIT64_MODULE_PATH, "devices"}, dir.path());
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_NE(run.out.find("Radial Grad"), std::string::npos);
    run = RunOrogen({"devices"}, dir.path(), std::string("BASEKIT64_MODULE=") + BASEKIT64_MODULE_PATH);
    EXPECT_EQ(run.code, 0) << run.err;
}

}  // namespace
}  // namespace orogen::testing
