// The blur's sums written once over the vector width V (Floats8, Floats16 of
// framework/Vectors.h). Only templates and no includes: a path's file
// includes this between its BEGIN and END lines, after what it needs, so every
// instantiation carries that path's target. The unnamed namespace keeps each
// file's instantiations to itself.

namespace basekit::blur {
namespace {

// acc[a] = the taps' sum over the vectors at rows(t) + a * V::kLanes, in the
// order t = 0 .. count-1, for a = 0 .. kVectors-1.
template <class V, int kVectors, class Rows>
inline void SumVectors(const Taps& taps, Rows rows, typename V::Vec* acc) {
    constexpr int L = V::kLanes;
    const float* r0 = rows(0);
    if (taps.weights == nullptr) {
        for (int a = 0; a < kVectors; ++a) acc[a] = V::Load(r0 + L * a);
        for (int32_t t = 1; t < taps.count; ++t) {
            const float* r = rows(t);
            for (int a = 0; a < kVectors; ++a) acc[a] = V::Add(acc[a], V::Load(r + L * a));
        }
        const typename V::Vec factor = V::Set1(taps.factor);
        for (int a = 0; a < kVectors; ++a) acc[a] = V::Mul(acc[a], factor);
        return;
    }
    const typename V::Vec w0 = V::Set1(taps.weights[0]);
    for (int a = 0; a < kVectors; ++a) acc[a] = V::Mul(w0, V::Load(r0 + L * a));
    for (int32_t t = 1; t < taps.count; ++t) {
        const float* r = rows(t);
        const typename V::Vec w = V::Set1(taps.weights[t]);
        for (int a = 0; a < kVectors; ++a) acc[a] = V::Add(acc[a], V::Mul(w, V::Load(r + L * a)));
    }
}

// out[j] for the whole vectors from j on: eight vectors at a time keep enough
// independent sums in flight to hide the adder's latency, then one at a time.
// Returns where the whole vectors end.
template <class V>
size_t SumTapsVectors(const Taps& taps, size_t j, size_t end, float* out) {
    constexpr int kVectors = 8;
    constexpr size_t L = V::kLanes;
    typename V::Vec acc[kVectors];
    for (; j + kVectors * L <= end; j += kVectors * L) {
        SumVectors<V, kVectors>(
            taps, [&](int32_t t) { return taps.rows[t] + j; }, acc);
        for (int a = 0; a < kVectors; ++a) V::Store(out + j + L * a, acc[a]);
    }
    for (; j + L <= end; j += L) {
        SumVectors<V, 1>(
            taps, [&](int32_t t) { return taps.rows[t] + j; }, acc);
        V::Store(out + j, acc[0]);
    }
    return j;
}

}  // namespace
}  // namespace basekit::blur
