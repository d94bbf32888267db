// The device catalogue as `orogen devices --json` prints it, against
// tests/golden/devices.json, and README.md's device table against the golden
// file. After a deliberate catalogue change, write the golden file afresh:
//   BASEKIT64_UPDATE_GOLDEN=1 ./build/tests/test_devices --gtest_filter='Catalogue.*'
#include <cmath>
#include <cstdlib>
#include <limits>
#include <sstream>

#include <nlohmann/json.hpp>

#include "cli_support.h"
#include "host/NetworkFile.h"
#include "host_test_support.h"

namespace {

using json = nlohmann::ordered_json;
using orogen::testing::ReadText;
using orogen::testing::RunOrogen;
using orogen::testing::Scratch;
using orogen::testing::WriteText;

const orogen::testing::fs::path kGolden =
    orogen::testing::fs::path(BASEKIT64_SOURCE_DIR) / "tests" / "golden" / "devices.json";

// Parameters whose default is drawn afresh for every new device (a seed from
// the clock): checked against their range, then compared as null.
void BlankDrawnDefaults(json& catalogue) {
    for (json& device : catalogue)
        for (json& p : device["parameters"])
            if (p["name"] == "Random Seed") {
                EXPECT_TRUE(p["value"].is_number_integer()) << device["typeName"];
                if (p["value"].is_number_integer()) {
                    EXPECT_GE(p["value"], p["minimum"]) << device["typeName"];
                    EXPECT_LE(p["value"], p["maximum"]) << device["typeName"];
                }
                p["value"] = nullptr;
            }
}

TEST(Catalogue, OrogenDevicesJsonMatchesTheGoldenFile) {
    Scratch dir;
    const orogen::testing::RunResult run = RunOrogen({"devices", "--json"}, dir.path());
    ASSERT_EQ(run.code, 0) << run.err;
    json actual = json::parse(run.out, nullptr, false);
    ASSERT_TRUE(actual.is_array()) << run.out;
    BlankDrawnDefaults(actual);
    if (const char* update = std::getenv("BASEKIT64_UPDATE_GOLDEN"); update && *update) {
        WriteText(kGolden, actual.dump(2) + "\n");
        GTEST_SKIP() << "wrote " << kGolden;
    }
    const json golden = json::parse(ReadText(kGolden), nullptr, false);
    ASSERT_FALSE(golden.is_discarded()) << "cannot read " << kGolden;
    EXPECT_EQ(actual.size(), golden.size());
    for (size_t i = 0; i < std::min(actual.size(), golden.size()); ++i)
        EXPECT_EQ(actual[i], golden[i])
            << "device " << i << " (" << golden[i]["typeName"] << ") differs; as a patch from the golden file:\n"
            << json::diff(golden[i], actual[i]).dump(1)
            << "\nafter a deliberate change: BASEKIT64_UPDATE_GOLDEN=1 test_devices";
}

// A cell as README.md writes a device's ports: "Name (kind or kind)", or a dash.
std::string PortsCell(const json& ports) {
    if (ports.empty()) return "—";
    std::string cell;
    for (const json& port : ports) {
        std::string kind = port["kind"];
        for (size_t at; (at = kind.find('|')) != std::string::npos;) kind.replace(at, 1, " or ");
        cell += (cell.empty() ? "" : ", ") + port["name"].get<std::string>() + " (" + kind + ")";
    }
    return cell;
}

std::string Trim(const std::string& text) {
    const size_t first = text.find_first_not_of(' ');
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

TEST(Catalogue, ReadmeDeviceTableMatchesTheGoldenFile) {
    const json golden = json::parse(ReadText(kGolden), nullptr, false);
    ASSERT_TRUE(golden.is_array());
    std::istringstream readme(ReadText(orogen::testing::fs::path(BASEKIT64_SOURCE_DIR) / "README.md"));
    std::vector<std::string> rows;
    bool inSection = false, inTable = false;
    for (std::string line; std::getline(readme, line);) {
        if (line.rfind("## ", 0) == 0) inSection = line == "## Devices";
        if (!inSection) continue;
        if (line.rfind("| Index |", 0) == 0) inTable = true;
        else if (inTable && line.rfind("|---", 0) != 0 && line.rfind("| ", 0) == 0) rows.push_back(line);
        else if (inTable && line.empty() && !rows.empty()) break;
    }
    ASSERT_FALSE(rows.empty()) << "no device table under \"## Devices\" in README.md";
    EXPECT_EQ(rows.size(), golden.size()) << "README.md lists " << rows.size() << " devices";
    const char* columns[] = {"index", "tag", "type", "category", "inputs", "outputs", "description"};
    for (size_t n = 0; n < std::min(rows.size(), golden.size()); ++n) {
        std::vector<std::string> cells;
        std::istringstream split(rows[n].substr(1));
        for (std::string cell; std::getline(split, cell, '|');) cells.push_back(Trim(cell));
        const json& d = golden[n];
        std::string tag = "`";
        tag.append(d["tag"].get<std::string>()).append("`");
        const std::vector<std::string> expected = {
            d["index"].is_null() ? "host" : std::to_string(d["index"].get<int>()),
            tag,
            d["typeName"],
            d["categoryName"],
            PortsCell(d["inputs"]),
            PortsCell(d["outputs"]),
            d["description"]};
        ASSERT_EQ(cells.size(), expected.size()) << "README.md row: " << rows[n];
        for (size_t c = 0; c < expected.size(); ++c)
            EXPECT_EQ(cells[c], expected[c])
                << "README.md row " << n + 1 << " (" << rows[n] << "): " << columns[c]
                << " differs from the catalogue";
    }
}

}  // namespace

namespace basekit::host::testing {
namespace {

// Every module device, each real and integer parameter at its minimum, its
// maximum and the smallest values of either sign in range (a width of 1e-45
// is a width), then with its defaults in worlds of extreme size and vertical
// scale, inputs fed a ramp: finite inputs in range never give NaN or infinity.
class ExtremeParameters : public HostTest {};

TEST_F(ExtremeParameters, NoDeviceTurnsFiniteInputsInRangeIntoNaN) {
    size_t builds = 0;
    const auto check = [&](const DeviceType& type, const char* name, double value, double extent,
                           double vertical) {
        SCOPED_TRACE(::testing::Message() << type.typeName << "." << name << " = " << value
                                          << ", extent " << extent << ", vertical " << vertical);
        std::unique_ptr<Network> network = MakeNetwork(9, 7);
        network->world.x1 = extent;
        network->world.y1 = extent;
        network->world.verticalScale = vertical;
        network->AddDevice("ramp", "Test Ramp");
        Orogen::Device& device = network->AddDevice("d", type);
        if (name) SetParameter(device, name, value);
        host->Dialogs().Script(1);
        device.EditSettings();
        for (uint32_t i = 0; i < device.inputs.size(); ++i)
            if (!device.inputs[i]->kind || (device.inputs[i]->kind & Orogen::kHeightField))
                network->Connect("ramp", 0, "d", i);
        BuildReport report = network->Build();
        const DeviceReport* built = report.Find("d");
        ASSERT_TRUE(built);
        builds += built->status == BuildStatus::Built;
        for (uint32_t k = 0; k < device.outputs.size(); ++k) {
            Orogen::PacketRef packet = network->Output("d", k);
            if (!packet || packet->GetKind() == Orogen::kParameterPacket) continue;
            for (float v : SamplesOf(packet)) ASSERT_TRUE(std::isfinite(v)) << "output " << k;
        }
    };
    for (const DeviceType& type : host->Types()) {
        if (type.catalogueIndex < 0) continue;
        DeviceHandle probe(type);
        for (const Orogen::ParamRecord& record : probe->params.records) {
            std::vector<double> values;
            if (record.kind == Orogen::kParamReal) {
                const float low = record.minimum.f, high = record.maximum.f;
                values = {low, high};
                for (float tiny : {std::numeric_limits<float>::denorm_min(),
                                   -std::numeric_limits<float>::denorm_min()})
                    if (tiny >= low && tiny <= high) values.push_back(tiny);
            } else if (record.kind == Orogen::kParamInteger) {
                values = {double(record.minimum.i), double(record.maximum.i)};
            }
            for (double value : values) check(type, record.name, value, 3.0, 1.0);
        }
        // Slopes from nothing to beyond the largest float.
        for (const auto& [extent, vertical] : {std::pair{1e-30, 1.0}, std::pair{1e30, 1.0},
                                               std::pair{1.0, 1e30}, std::pair{1e-20, 1e20}})
            check(type, nullptr, 0.0, extent, vertical);
    }
    EXPECT_GT(builds, 60u);
}

}  // namespace
}  // namespace basekit::host::testing
