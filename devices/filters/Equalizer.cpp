#include "devices/filters/Equalizer.h"

#include <array>
#include <bit>
#include <vector>

#include "framework/Ramps.h"

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Strength", kParamReal, 1.0, 0.0, 1.0, 0, "How far the heights move toward an even spread"},
};

Equalizer::Equalizer() {
    SetPortCount(this, 1, 1, kHeightField);
    DeclareParameters(this, kParameters);
}

bool Equalizer::OptionQuery8() {
    return ParamFloat(this, "Strength") == 0.0f;
}

namespace {

// Entries pack a height's bits above the sample's index. Heights in 0..1
// need 30 bits, which leaves 34 for the index.
constexpr int kIndexBits = 34;
constexpr uint64_t kIndexMask = (uint64_t{1} << kIndexBits) - 1;
constexpr int kDigitBits = 10;
constexpr int kDigits = 3;
constexpr size_t kBuckets = size_t{1} << kDigitBits;

// Least significant digit first; each pass is stable, so three of them sort
// by the whole 30-bit height.
void SortByHeight(std::vector<uint64_t>& entries) {
    std::vector<uint64_t> scratch(entries.size());
    for (int digit = 0; digit < kDigits; ++digit) {
        const int shift = kIndexBits + digit * kDigitBits;
        std::array<uint64_t, kBuckets> start{};
        for (uint64_t e : entries) ++start[(e >> shift) & (kBuckets - 1)];
        uint64_t sum = 0;
        for (uint64_t& s : start) {
            const uint64_t n = s;
            s = sum;
            sum += n;
        }
        for (uint64_t e : entries) scratch[start[(e >> shift) & (kBuckets - 1)]++] = e;
        entries.swap(scratch);
    }
}

}  // namespace

void EqualizeSamples(float* samples, uint64_t count, float strength) {
    for (uint64_t i = 0; i < count; ++i) samples[i] = ClampHeight(samples[i]);
    if (count <= 1) return;

    // -0 ranks with 0; every other clamped height is a non-negative float,
    // whose bits order as its value does.
    std::vector<uint64_t> entries(count);
    for (uint64_t i = 0; i < count; ++i) {
        const uint32_t bits = samples[i] == 0.0f ? 0u : std::bit_cast<uint32_t>(samples[i]);
        entries[i] = static_cast<uint64_t>(bits) << kIndexBits | i;
    }
    SortByHeight(entries);

    const double last = static_cast<double>(count - 1);
    uint64_t below = 0;
    while (below < count) {
        const uint64_t key = entries[below] >> kIndexBits;
        uint64_t end = below + 1;
        while (end < count && entries[end] >> kIndexBits == key) ++end;
        const double equal = static_cast<double>(end - below);
        const float q =
            static_cast<float>((static_cast<double>(below) + (equal - 1.0) / 2.0) / last);
        for (uint64_t k = below; k < end; ++k) {
            float& h = samples[entries[k] & kIndexMask];
            h = ClampHeight(h + strength * (q - h));
        }
        below = end;
    }
}

bool Equalizer::Build(const BuildContext& context) {
    PacketRef field = WorkingInput(context, kHeightField);
    if (!field) return false;
    const float strength = ParamFloat(this, "Strength");
    ReportPercent(context, this, 0);
    // One sort over the whole field: ranks need every sample, and a single
    // pass keeps them exact and the same at any thread count.
    if (field->samples) EqualizeSamples(field->samples, field->PointCount(), strength);
    ReportPercent(context, this, 100);
    StoreOutput(context, field, 0);
    return true;
}

}  // namespace basekit
