// The snow pass's row loop written once over the lane traits L of a vector
// path. Only templates and no includes: a path's file includes this between
// its BEGIN and END lines after defining L, which gives
//   V, M: float lanes and a lane mask, kLanes lanes each;
//   Load Store Set1 Add Sub Mul Neg;
//   Min(a, b) = a < b ? a : b and MaxZero(a) = 0 > a ? 0 : a, NaN and -0 as
//   the plain code meets them;
//   Gt Lt (ordered comparisons), AddWhere(m, a, b) = m ? a + b : a and
//   SubWhere(m, a, b) = m ? a - b : a.
// Every lane takes the plain sample's steps in the same order.

namespace basekit::snow {
namespace {

template <class L>
inline typename L::V RateLanes(const RateSource& r, int64_t i) {
    return r.map ? L::Mul(L::Set1(r.rate), L::Load(r.map + i)) : L::Set1(r.rate);
}

template <class L>
int32_t SnowRow(const SnowPass& p, int32_t y, int32_t x, int32_t end) {
    using V = typename L::V;
    using M = typename L::M;
    const int64_t w = p.width;
    const float* S = p.snow;
    const float* T = p.terrain;
    const int64_t offsets[8] = {-w, w, -1, 1, -w - 1, -w + 1, w - 1, w + 1};
    const V diagonal = L::Set1(kSnowDiagonal);
    const V eighth = L::Set1(0.125f);
    const V meltRate = L::Set1(0.025f);
    const V line = L::Set1(p.snowLine);
    const V keep = L::Set1(1.0f - p.taper);
    const V zero = L::Set1(0.0f);
    for (; x + L::kLanes <= end; x += L::kLanes) {
        const int64_t i = static_cast<int64_t>(y) * w + x;
        const V own = L::Load(S + i);
        const V ground = L::Load(T + i);
        const V c = L::Add(own, ground);
        V acc = zero;
        for (int k = 0; k < 8; ++k) {
            const int64_t n = i + offsets[k];
            const V sn = L::Load(S + n);
            V d = L::Sub(L::Add(sn, L::Load(T + n)), c);
            if (k >= 4) d = L::Mul(d, diagonal);
            const M higher = L::Gt(d, zero);
            const M lower = L::Lt(d, zero);
            acc = L::AddWhere(higher, acc, L::Min(sn, d));
            acc = L::SubWhere(lower, acc, L::Min(own, L::Neg(d)));
        }
        V next = L::Add(own, L::Mul(acc, eighth));
        V melt = RateLanes<L>(p.evaporation, i);
        melt = L::AddWhere(L::Gt(line, ground), melt, L::Mul(L::Sub(line, ground), meltRate));
        next = L::MaxZero(L::Sub(next, melt));
        next = L::Add(next, L::Mul(RateLanes<L>(p.fall, i), keep));
        L::Store(p.next + i, next);
    }
    return x;
}

}  // namespace
}  // namespace basekit::snow
