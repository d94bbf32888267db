// The coast's samples written once over the lane traits L of a vector path.
// Only templates and no includes: a path's file includes this between its
// BEGIN and END lines after defining L, which gives
//   V, M: float lanes and a lane mask, kLanes lanes each;
//   Load Store Set1 Add Sub Mul Div Neg, Min(a, b) = a < b ? a : b;
//   Gt Ge Lt (ordered comparisons), And, Blend(m, a, b) = m ? b : a;
//   Append(waiting, m, x, d, q): the lanes of m, in order, onto the list.
// Every case's value is formed and each lane's own chosen: the same
// operations on the same operands as the plain sample takes.

namespace basekit::coast {
namespace {

template <class L>
int32_t ErodeVectors(const CoastSetup& s, float* heights, const float* hardness, float* water,
                     float* beach, int32_t x, int32_t end, Waiting& waiting) {
    using V = typename L::V;
    using M = typename L::M;
    const V W = L::Set1(s.water);
    const V width = L::Set1(s.beach);
    const V power = L::Set1(s.power);
    const V full = L::Set1(kFullWater);
    const V zero = L::Set1(0.0f);
    const V one = L::Set1(1.0f);
    const bool cliffZone = s.zone == kCoastCliffs;
    for (; x + L::kLanes <= end; x += L::kLanes) {
        const V h = L::Load(heights + x);
        const V d = L::Sub(h, W);
        const V b = hardness ? L::Mul(width, L::Load(hardness + x)) : width;
        const V q = L::Div(d, b);
        const M onBeach = L::And(L::Gt(d, zero), L::Ge(b, d));
        const M under = L::Lt(d, zero);
        const M onShelf = L::And(under, L::Ge(d, L::Neg(b)));
        // Under water: the shelf or the ground as it is, and the water mask.
        const V f = L::Mul(q, q);
        const V sunk = L::Blend(onShelf, h, L::Add(L::Mul(d, f), W));
        const V wet = L::Min(L::Div(L::Sub(W, sunk), full), one);
        // Above it: the cliffs' curve; the smooth one waits in the list.
        V land = h, shore = zero;
        if (cliffZone) {
            const V u = L::Add(q, L::Mul(L::Sub(L::Mul(L::Mul(q, q), q), q), power));
            land = L::Blend(onBeach, h, L::Add(L::Mul(d, u), W));
            shore = L::Blend(onBeach, zero, L::Sub(one, u));
        } else {
            L::Append(waiting, onBeach, x, d, q);
        }
        L::Store(heights + x, L::Blend(under, land, sunk));
        L::Store(water + x, L::Blend(under, zero, wet));
        L::Store(beach + x, L::Blend(onShelf, shore, L::Sub(one, f)));
    }
    return x;
}

}  // namespace
}  // namespace basekit::coast
