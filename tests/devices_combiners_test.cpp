// Combiner and Arithmetic Combiner in networks of the reference host: the
// methods' edge values, images and mixed inputs, "Swap inputs" and the output
// kind that follows the inputs, saved state of both versions, failures, and
// one thread against several.

#include <cmath>
#include <functional>

#include "framework/PortableMath.h"
#include "host/NetworkFile.h"
#include "host_test_support.h"

namespace basekit::host::testing {
namespace {

using basekit::testing::LoadBytes;
using basekit::testing::SavedBytes;
using Orogen::Device;
using Orogen::GetParameter;

float Clamped(float v) {
    return std::isnan(v) ? 1.0f : std::clamp(v, 0.0f, 1.0f);
}

class CombinerTest : public HostTest {
  protected:
    void SetUp() override {
        HostTest::SetUp();
        host->RegisterHostType(&Orogen::CreateDevice<TestColors>, 1, 8);
        host->Workers().Resize(3);
        network = MakeNetwork(23, 19);
        network->AddDevice("a", "Test Ramp");
        GetParameter(&network->Get("a"), "Waves")->i = 1;
        network->AddDevice("b", "Test Ramp");
        GetParameter(&network->Get("b"), "Offset")->f = 0.3f;
        GetParameter(&network->Get("b"), "Waves")->i = 1;
        network->AddDevice("one", "Constant");
        GetParameter(&network->Get("one"), "Height")->f = 1.0f;
        network->AddDevice("zero", "Constant");
        network->AddDevice("colours", "Test Colors");
    }
    // The devices go before the module that made them.
    void TearDown() override {
        network.reset();
        HostTest::TearDown();
    }

    // A Combiner (or another two-input device with its two parameters) `id`
    // fed by `first` and `second`.
    Device& Combiner(const std::string& id, const std::string& first, const std::string& second,
                     int32_t method, float strength, const char* type = "Combiner") {
        Device& c = network->AddDevice(id, type);
        const bool arithmetic = std::string(type) != "Combiner";
        GetParameter(&c, arithmetic ? "Operation" : "Method")->i = method;
        GetParameter(&c, arithmetic ? "Amount" : "Strength")->f = strength;
        network->Connect(first, 0, id, 0);
        network->Connect(second, 0, id, 1);
        return c;
    }

    // One thread, then three workers: the same bits. Returns `id`'s output.
    std::vector<float> BuildBothWays(const std::string& id) {
        BuildReport alone = network->Build({});
        EXPECT_EQ(alone.Find(id)->status, BuildStatus::Built) << alone.Find(id)->message;
        std::vector<float> single = SamplesOf(network->Output(id, 0));
        BuildOptions options;
        options.workers = 3;
        network->Build(options);
        EXPECT_TRUE(SameBits(SamplesOf(network->Output(id, 0)), single)) << id;
        return single;
    }

    std::vector<float> Of(const std::string& id) { return SamplesOf(network->Output(id, 0)); }

    std::unique_ptr<Network> network;
};

using Formula = std::function<float(float a, float b)>;

TEST_F(CombinerTest, HeightFieldEdgeValuesOnOneThreadAndSeveral) {
    const Formula same = [](float a, float) { return a; };
    const float root = 1.0f - 0.999f;  // strength 1, b = 1: a^0.001, not a^0
    struct Case {
        const char* type;
        int32_t method;
        float strength;
        const char* first;
        const char* second;
        Formula expected;
    };
    std::vector<Case> cases = {
        {"Combiner", 9, 0.0f, "a", "b", [](float a, float) { return std::fabs(a); }},
        {"Combiner", 0, 0.5f, "a", "b", [](float a, float b) { return (a + b) / 2.0f; }},
        {"Combiner", 2, 0.7f, "a", "b", [](float a, float b) { return Clamped(a - 0.7f * b); }},
        {"Combiner", 7, 1.0f, "a", "one", [=](float a, float) { return Orogen::Pow(a, root); }},
        {"Combiner", 11, 0.8f, "a", "b",
         [](float a, float b) {
             const float q = a / b;
             return Clamped(q > 1.0f ? 0.8f * (Orogen::Log(q) + 1.0f) : 0.8f * q);
         }},
        {"Combiner", 11, 0.3f, "a", "zero", [](float, float) { return 1.0f; }},
        {"Combiner", 12, 0.5f, "a", "b", same},
        {"Arithmetic Combiner", 0, 0.0f, "a", "b", same},
        {"Arithmetic Combiner", 0, 0.4f, "a", "b",
         [](float a, float b) { return Clamped(a + 0.4f * b); }},
        {"Arithmetic Combiner", 0, 0.5f, "one", "one", [](float, float) { return 1.0f; }},
        {"Arithmetic Combiner", 1, 1.0f, "a", "one", [](float, float) { return 0.0f; }},
    };
    // Strength 0 gives A back, Differences aside.
    for (int32_t method : {0, 1, 2, 3, 4, 5, 6, 7, 8, 10})
        cases.push_back({"Combiner", method, 0.0f, "a", "b", same});
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.type) + " " + std::to_string(c.method) + " at " +
                     std::to_string(c.strength) + " with " + c.second);
        Combiner("c", c.first, c.second, c.method, c.strength, c.type);
        const std::vector<float> got = BuildBothWays("c");
        const std::vector<float> a = Of(c.first), b = Of(c.second);
        ASSERT_EQ(got.size(), a.size());
        std::vector<float> expected;
        for (size_t i = 0; i < a.size(); ++i) expected.push_back(c.expected(a[i], b[i]));
        EXPECT_TRUE(SameBits(got, expected));
        network->RemoveDevice("c");
    }
}

TEST_F(CombinerTest, ImagesAndMixedInputsOnOneThreadAndSeveral) {
    // "a" as a mask: the result is one too.
    network->Get("a").outputMode = 1;
    const struct {
        const char* name;
        const char* first;
        const char* second;
        int32_t method;
        Formula expected;  // per channel
        int32_t mask;
    } cases[] = {
        {"field beside image", "a", "colours", 0,
         [](float a, float b) { return Clamped(0.25f * a + 0.75f * b); }, 1},
        {"image beside field", "colours", "b", 2,
         [](float a, float b) { return Clamped(a - 0.75f * b); }, 0},
        // No method 11 for images: A passes.
        {"method 11 on images", "colours", "a", 11, [](float a, float) { return a; }, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Device& combiner = Combiner("c", c.first, c.second, c.method, 0.75f);
        EXPECT_EQ(combiner.outputs[0]->kind, Orogen::kBitmap);
        const std::vector<float> got = BuildBothWays("c");
        EXPECT_EQ(network->Output("c", 0)->GetKind(), Orogen::kBitmap);
        EXPECT_EQ(network->Output("c", 0)->maskFlag, c.mask);
        // A height field counts as grey: its height in every channel.
        const std::vector<float> first = Of(c.first), second = Of(c.second);
        auto channel = [](const std::vector<float>& v, size_t k, size_t size) {
            return v.size() == size ? v[k] : v[k / 3];
        };
        ASSERT_EQ(got.size(), Of("colours").size());
        std::vector<float> expected;
        for (size_t k = 0; k < got.size(); ++k)
            expected.push_back(
                c.expected(channel(first, k, got.size()), channel(second, k, got.size())));
        EXPECT_TRUE(SameBits(got, expected));
        network->RemoveDevice("c");
    }
    // Method 11 on two height fields is the logarithmic ratio, not A.
    Combiner("c", "a", "b", 11, 0.75f);
    EXPECT_FALSE(SameBits(BuildBothWays("c"), Of("a")));
}

TEST_F(CombinerTest, SwapInputsExchangesLinksAndTheKindFollows) {
    Device& c = Combiner("c", "a", "b", 2, 0.5f);
    EXPECT_EQ(c.outputs[0]->kind, Orogen::kHeightField);
    network->Build({});
    const std::vector<float> a = Of("a"), b = Of("b");
    auto expect = [&](const std::vector<float>& x, const std::vector<float>& y) {
        std::vector<float> r;
        for (size_t i = 0; i < x.size(); ++i) r.push_back(Clamped(x[i] - 0.5f * y[i]));
        return r;
    };
    EXPECT_TRUE(SameBits(Of("c"), expect(a, b)));

    EXPECT_TRUE(network->RunAction("c", "Swap inputs"));
    EXPECT_EQ(c.inputs[0]->peer, network->Get("b").outputs[0]);
    EXPECT_EQ(c.inputs[1]->peer, network->Get("a").outputs[0]);
    network->Build({});
    EXPECT_TRUE(SameBits(Of("c"), expect(b, a)));

    // An image on either input makes the output an image; the kind is worked
    // out again at every link change and swap.
    network->Connect("colours", 0, "c", 1);
    EXPECT_EQ(c.outputs[0]->kind, Orogen::kBitmap);
    EXPECT_TRUE(network->RunAction("c", "Swap inputs"));
    EXPECT_EQ(c.inputs[0]->peer, network->Get("colours").outputs[0]);
    EXPECT_EQ(c.outputs[0]->kind, Orogen::kBitmap);
    network->Disconnect("c", 0);
    EXPECT_EQ(c.outputs[0]->kind, Orogen::kHeightField);
    // One link only: it moves to the other input.
    EXPECT_TRUE(network->RunAction("c", "Swap inputs"));
    EXPECT_EQ(c.inputs[0]->peer, network->Get("b").outputs[0]);
    EXPECT_EQ(c.inputs[1]->peer, nullptr);
    EXPECT_THROW(network->RunAction("c", "Swap"), NetworkError);
}

TEST_F(CombinerTest, NetworkFileActionsRunOnceAndSavedLinksKeepTheSwap) {
    const std::string text = R"({
      "world": {"resolution": [23, 19]},
      "devices": [
        {"id": "a", "type": "Test Ramp", "params": {"Waves": true}},
        {"id": "b", "type": "Test Ramp", "params": {"Offset": 0.3}},
        {"id": "c", "type": "Combiner", "params": {"Method": "Subtract", "Strength": 0.5},
         "actions": ["Swap inputs"]}
      ],
      "links": [{"from": "a", "to": "c", "input": 0}, {"from": "b", "to": "c", "input": 1}]
    })";
    Project loaded = ParseNetwork(*host, text, "");
    loaded.network->Build({});
    const std::vector<float> a = SamplesOf(loaded.network->Output("a", 0));
    const std::vector<float> b = SamplesOf(loaded.network->Output("b", 0));
    std::vector<float> swapped;
    for (size_t i = 0; i < a.size(); ++i) swapped.push_back(Clamped(b[i] - 0.5f * a[i]));
    EXPECT_TRUE(SameBits(SamplesOf(loaded.network->Output("c", 0)), swapped));

    // Saved: the links as they are now and no actions, so loading again
    // does not swap back.
    const std::string saved = NetworkToText(loaded, "");
    EXPECT_EQ(saved.find("actions"), std::string::npos);
    Project again = ParseNetwork(*host, saved, "");
    again.network->Build({});
    EXPECT_TRUE(SameBits(SamplesOf(again.network->Output("c", 0)), swapped));
    const std::vector<Link> links = again.network->Links();
    ASSERT_EQ(links.size(), 2u);
    EXPECT_EQ(links[0].from + ">" + std::to_string(links[0].input), "b>0");
    EXPECT_EQ(links[1].from + ">" + std::to_string(links[1].input), "a>1");
}

TEST_F(CombinerTest, ReportsPercentRowsAndPercent) {
    Combiner("c", "a", "b", 0, 0.5f);
    std::vector<std::pair<char, uint32_t>> reports;  // 'p' percent, 'r' row
    uint32_t total = 0;
    BuildOptions options;
    options.onPercent = [&](const std::string& id, int32_t percent) {
        if (id == "c") reports.emplace_back('p', static_cast<uint32_t>(percent));
    };
    options.onProgress = [&](const std::string& id, uint32_t done, uint32_t rows) {
        if (id == "c") reports.emplace_back('r', done), total = rows;
        return true;
    };
    network->Build(options);
    ASSERT_GE(reports.size(), 3u);
    EXPECT_EQ(reports.front(), std::make_pair('p', 0u));
    EXPECT_EQ(reports.back(), std::make_pair('p', 100u));
    EXPECT_EQ(total, 19u);
    EXPECT_EQ(reports[reports.size() - 2], std::make_pair('r', 18u));  // the last row's index
    for (size_t k = 1; k + 1 < reports.size(); ++k) {
        EXPECT_EQ(reports[k].first, 'r');
        if (k > 1) {
            EXPECT_GT(reports[k].second, reports[k - 1].second);
        }
    }
}

TEST_F(CombinerTest, StateOfBothVersionsAndBadStates) {
    Device& c = Combiner("c", "colours", "a", 3, 0.25f);
    ASSERT_EQ(c.outputs[0]->kind, Orogen::kBitmap);
    const std::string saved = SavedBytes(c);
    ASSERT_EQ(saved.substr(0, 9), std::string("CMB2\x02\x08\x00\x00\x00", 9));

    Device& copy = network->AddDevice("copy", "Combiner");
    ASSERT_TRUE(LoadBytes(copy, saved));
    EXPECT_EQ(copy.outputs[0]->kind, Orogen::kBitmap);
    EXPECT_EQ(GetParameter(&copy, "Method")->i, 3);
    EXPECT_EQ(GetParameter(&copy, "Strength")->f, 0.25f);
    copy.seed = c.seed;  // the one field the host draws afresh
    EXPECT_EQ(SavedBytes(copy), saved);

    // Version 1 had no kind: a device keeps the kind it has.
    const std::string old = saved.substr(0, 4) + '\x01' + saved.substr(9);
    Device& fresh = network->AddDevice("fresh", "Combiner");
    ASSERT_TRUE(LoadBytes(fresh, old));
    EXPECT_EQ(fresh.outputs[0]->kind, Orogen::kHeightField);
    EXPECT_EQ(GetParameter(&fresh, "Method")->i, 3);
    ASSERT_TRUE(LoadBytes(copy, old));
    EXPECT_EQ(copy.outputs[0]->kind, Orogen::kBitmap);
    EXPECT_EQ(SavedBytes(fresh).substr(5, 4), std::string("\x04\x00\x00\x00", 4));

    const std::string bad[] = {"TCMB" + saved.substr(4),
                               saved.substr(0, 5) + '\x05' + saved.substr(6), saved.substr(0, 7),
                               saved.substr(0, saved.size() - 1)};
    for (const std::string& bytes : bad) EXPECT_FALSE(LoadBytes(fresh, bytes));
}

TEST_F(CombinerTest, MissingInputsFailWithNoOutput) {
    Device& c = network->AddDevice("c", "Combiner");
    network->AddDevice("t", "Arithmetic Combiner");
    network->Connect("a", 0, "c", 1);
    network->Connect("a", 0, "t", 0);
    BuildReport report = network->Build({});
    for (const char* id : {"c", "t"}) {
        EXPECT_EQ(report.Find(id)->status, BuildStatus::Failed) << id;
        EXPECT_FALSE(network->Output(id, 0)) << id;
    }
    EXPECT_EQ(report.Find("c")->message, "input 0 (\"Primary Input\") is not connected");
    EXPECT_EQ(report.Find("t")->message, "input 1 (\"Primary Input\") is not connected");
    EXPECT_EQ(c.outputs[0]->kind, Orogen::kHeightField);
}

}  // namespace
}  // namespace basekit::host::testing
