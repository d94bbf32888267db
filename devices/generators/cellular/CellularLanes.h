// The vector cellular search, written once over the vector width. Every lane
// follows the plain search's steps exactly; lanes that must not visit a cube,
// or have no further point in it, are masked out.
//
// Templates only: a width's file includes this between its BEGIN and END
// lines, after CellularShared.h and its lane traits L, which give
//   D, I, M, Ids: double lanes, 32-bit integer lanes, a lane mask, identifier
//                 lanes (IdT in memory); kWidth lanes each;
//   doubles:   Set Zero Load LoadU Store Add Sub Mul Abs Max Min Sqrt
//              (Max and Min are "a > b ? a : b" and "a < b ? a : b", NaN included);
//   masks:     Gt Lt Ge, LtAnd(m, a, b) = m & (a < b), And AndNot Or, Any, All,
//              Bits / FromBits (one bit per lane), Blend(m, a, b) = m ? b : a,
//              MinWhere(m, a, b) = m ? Min(a, b) : a;
//   integers:  SetI AddI MulI LoadI, Floor (to cube), ToDouble, UnsignedPlusHalf,
//              PointCounts(h, m) (the count table at h >> 24 in lanes m, 0
//              elsewhere), MaxLane, Above(n, i) = n > i, EqualBits(v, x);
//   ids:       IdsOf(I), BroadcastId, NoIds, BlendIds, LoadIds, StoreIds,
//              RunIds(run, k) (the width's identifier rows of a RunLanes).
#pragma once

namespace basekit::cellular {

// The four nearest distances and identifiers of each lane, nearest first.
template <class L>
struct Nearest {
    typename L::D f[4];
    typename L::Ids id[4];
};

template <class L>
inline Nearest<L> StartNearest() {
    const typename L::D far = L::Set(kFar);
    return {{far, far, far, far}, {L::NoIds(), L::NoIds(), L::NoIds(), L::NoIds()}};
}

template <class L>
inline void StoreResults(const Nearest<L>& s, CellularResult* out) {
    alignas(64) double f[4][L::kWidth];
    alignas(64) typename L::IdT id[4][L::kWidth];
    for (int k = 0; k < 4; ++k) {
        L::Store(f[k], s.f[k]);
        L::StoreIds(id[k], s.id[k]);
    }
    for (int lane = 0; lane < L::kWidth; ++lane) {
        for (int k = 0; k < 4; ++k) {
            out[lane].f[k] = f[k][lane];
            out[lane].id[k] = static_cast<uint32_t>(id[k][lane]);
        }
    }
}

template <class L>
inline typename L::I LaneStep(typename L::I r) {
    return L::AddI(L::MulI(r, L::SetI(static_cast<int32_t>(kStepMul))),
                   L::SetI(static_cast<int32_t>(kStepAdd)));
}

// Squared distances to the low face, 0, and the high face of the home cube
// along one axis, from the offset f in the cube: t[d + 1] is a neighbour's term.
template <class L>
inline void FaceTerms(typename L::D f, typename L::D t[3]) {
    const typename L::D g = L::Sub(L::Set(1.0), f);
    t[0] = L::Mul(f, f);
    t[1] = L::Zero();
    t[2] = L::Mul(g, g);
}

template <class L, CellDistance Dist>
inline typename L::D LaneDistance(typename L::D x, typename L::D y, typename L::D z) {
    if constexpr (Dist == CellDistance::Euclidean) {
        return L::Add(L::Add(L::Mul(x, x), L::Mul(y, y)), L::Mul(z, z));
    } else {
        const typename L::D ax = L::Abs(x), ay = L::Abs(y), az = L::Abs(z);
        if constexpr (Dist == CellDistance::Manhattan) {
            return L::Add(L::Add(ax, ay), az);
        } else if constexpr (Dist == CellDistance::Alternate1) {
            return L::Max(L::Max(ax, ay), az);
        } else {
            const typename L::M xWins = L::And(L::Ge(ax, ay), L::Ge(ax, az));
            const typename L::M yWins = L::AndNot(xWins, L::Ge(ay, az));
            const typename L::D m = L::Blend(xWins, L::Blend(yWins, az, ay), ax);
            const typename L::D p = L::Blend(xWins, x, y);
            const typename L::D q = L::Blend(L::Or(xWins, yWins), y, z);
            return L::Add(m, L::Sqrt(L::Add(L::Mul(p, p), L::Mul(q, q))));
        }
    }
}

// The distance from lanes at x = X on the row whose y and z terms the box holds
// for point `at`, formed as the plain distance forms it.
template <class L, CellDistance Dist>
inline typename L::D RowDistance(const CubeBox& box, size_t at, typename L::D X) {
    const typename L::D x = L::Sub(L::Set(box.px[at]), X);
    const typename L::D b = L::Set(box.ty[at]), c = L::Set(box.tz[at]);
    if constexpr (Dist == CellDistance::Euclidean) {
        return L::Add(L::Add(L::Mul(x, x), b), c);
    } else if constexpr (Dist == CellDistance::Manhattan) {
        return L::Add(L::Add(L::Abs(x), b), c);
    } else if constexpr (Dist == CellDistance::Alternate1) {
        return L::Max(L::Max(L::Abs(x), b), c);
    } else {
        return LaneDistance<L, Dist>(x, b, c);
    }
}

// Strict insertion of d (identifiers idv) in the lanes of `lanes`; c4 is
// lanes & (d < f[3]). The comparisons are independent: the distances are
// sorted, so c1 implies c2 implies c3 implies c4. Only the first kIds
// identifiers are tracked.
template <class L, int kIds>
inline void Insert(Nearest<L>& s, typename L::D d, typename L::Ids idv, typename L::M lanes,
                   typename L::M c4) {
    const typename L::M c3 = L::LtAnd(lanes, d, s.f[2]);
    const typename L::M c2 = L::LtAnd(lanes, d, s.f[1]);
    const typename L::M c1 = L::LtAnd(lanes, d, s.f[0]);
    s.f[3] = L::Blend(c4, s.f[3], L::Blend(c3, d, s.f[2]));
    s.f[2] = L::Blend(c3, s.f[2], L::Blend(c2, d, s.f[1]));
    s.f[1] = L::Blend(c2, s.f[1], L::Blend(c1, d, s.f[0]));
    s.f[0] = L::Blend(c1, s.f[0], d);
    if constexpr (kIds > 3) s.id[3] = L::BlendIds(c4, s.id[3], L::BlendIds(c3, idv, s.id[2]));
    if constexpr (kIds > 2) s.id[2] = L::BlendIds(c3, s.id[2], L::BlendIds(c2, idv, s.id[1]));
    if constexpr (kIds > 1) s.id[1] = L::BlendIds(c2, s.id[1], L::BlendIds(c1, idv, s.id[0]));
    if constexpr (kIds > 0) s.id[0] = L::BlendIds(c1, s.id[0], idv);
}

// Insertion of d, identifier `id`, in the lanes of m, without a test whether
// any lane takes it. With at most the nearest identifier tracked, sorted
// insertion of the distances is a min/max network whose values are exactly
// those of the strict insertion; the nearest identifier changes where d < f0.
template <class L, int kIds>
inline void InsertEvery(Nearest<L>& s, typename L::D d, uint32_t id, typename L::M m) {
    if constexpr (kIds <= 1) {
        if constexpr (kIds == 1)
            s.id[0] = L::BlendIds(L::LtAnd(m, d, s.f[0]), s.id[0], L::BroadcastId(id));
        s.f[3] = L::MinWhere(m, s.f[3], L::Max(s.f[2], d));
        s.f[2] = L::MinWhere(m, s.f[2], L::Max(s.f[1], d));
        s.f[1] = L::MinWhere(m, s.f[1], L::Max(s.f[0], d));
        s.f[0] = L::MinWhere(m, s.f[0], d);
    } else {
        Insert<L, kIds>(s, d, L::BroadcastId(id), m, L::LtAnd(m, d, s.f[3]));
    }
}

// Lanes with their own cubes: each lane's cube hashes and points are formed
// in its own lanes, the point loop running to the largest count.
template <class L, CellDistance Dist>
void Search(const double* xs, const double* ys, double zv, uint32_t seed, CellularResult* out) {
    using D = typename L::D;
    using I = typename L::I;
    const D X = L::LoadU(xs), Y = L::LoadU(ys), Z = L::Set(zv);
    const I ix = L::Floor(X), iy = L::Floor(Y), iz = L::Floor(Z);
    D tx[3], ty[3], tz[3];
    FaceTerms<L>(L::Sub(X, L::ToDouble(ix)), tx);
    FaceTerms<L>(L::Sub(Y, L::ToDouble(iy)), ty);
    FaceTerms<L>(L::Sub(Z, L::ToDouble(iz)), tz);
    Nearest<L> s = StartNearest<L>();
    const I seedV = L::SetI(static_cast<int32_t>(seed));
    const D unit = L::Set(kUnit);

    for (int c = 0; c < 27; ++c) {
        const CubeOffset& o = kCubeOrder[c];
        typename L::M active = L::All();
        if (c > 0) {
            active = L::Gt(s.f[3], L::Add(L::Add(tx[o.dx + 1], ty[o.dy + 1]), tz[o.dz + 1]));
            if (!L::Any(active)) continue;
        }
        const I cx = L::AddI(ix, L::SetI(o.dx));
        const I cy = L::AddI(iy, L::SetI(o.dy));
        const I cz = L::AddI(iz, L::SetI(o.dz));
        const I h = L::AddI(L::AddI(L::AddI(L::MulI(cx, L::SetI(static_cast<int32_t>(kHashX))),
                                            L::MulI(cy, L::SetI(static_cast<int32_t>(kHashY)))),
                                    L::MulI(cz, L::SetI(static_cast<int32_t>(kHashZ)))),
                            seedV);
        const I n = L::PointCounts(h, active);
        const int count = L::MaxLane(n);
        if (count < 1) continue;

        const D bx = L::ToDouble(cx), by = L::ToDouble(cy), bz = L::ToDouble(cz);
        I r = LaneStep<L>(h);
        for (int i = 0; i < count; ++i) {
            const I r1 = LaneStep<L>(r), r2 = LaneStep<L>(r1), r3 = LaneStep<L>(r2);
            const D px = L::Sub(L::Add(bx, L::Mul(L::UnsignedPlusHalf(r1), unit)), X);
            const D py = L::Sub(L::Add(by, L::Mul(L::UnsignedPlusHalf(r2), unit)), Y);
            const D pz = L::Sub(L::Add(bz, L::Mul(L::UnsignedPlusHalf(r3), unit)), Z);
            const D d = LaneDistance<L, Dist>(px, py, pz);
            const typename L::M valid = L::Above(n, i);
            const typename L::M c4 = L::LtAnd(valid, d, s.f[3]);
            if (L::Any(c4)) Insert<L, 4>(s, d, L::IdsOf(r), valid, c4);
            r = LaneStep<L>(r3);
        }
    }
    StoreResults(s, out);
}

// Lanes with their own y (distorted rows), through a filled cube box. Lanes
// whose cubes coincide take each point's coordinates as one broadcast; lanes
// in other cubes are served in further rounds of the same neighbour, so each
// lane still sees its cubes and points in the plain order.
template <class L, CellDistance Dist, int kIds>
void SearchBox(const CubeBox& box, const double* xs, const double* ys, double zv,
               const int32_t* ixs, const int32_t* iys, int32_t iz, const int32_t* homes,
               CellularResult* out) {
    using D = typename L::D;
    const D X = L::LoadU(xs), Y = L::LoadU(ys), Z = L::Set(zv);
    D tx[3], ty[3], tz[3];
    FaceTerms<L>(L::Sub(X, L::ToDouble(L::LoadI(ixs))), tx);
    FaceTerms<L>(L::Sub(Y, L::ToDouble(L::LoadI(iys))), ty);
    FaceTerms<L>(L::Set(zv - static_cast<double>(iz)), tz);
    const typename L::I home = L::LoadI(homes);
    Nearest<L> s = StartNearest<L>();

    for (int c = 0; c < 27; ++c) {
        const CubeOffset& o = kCubeOrder[c];
        unsigned pending = L::Bits(L::All());
        if (c > 0) {
            pending =
                L::Bits(L::Gt(s.f[3], L::Add(L::Add(tx[o.dx + 1], ty[o.dy + 1]), tz[o.dz + 1])));
        }
        while (pending != 0) {
            const int lane = __builtin_ctz(pending);
            const unsigned same = L::EqualBits(home, homes[lane]) & pending;
            pending &= ~same;
            const typename L::M lanes = L::FromBits(same);
            const int32_t cube = homes[lane] + box.delta[c];
            const int points = box.count[cube];
            const size_t first = static_cast<size_t>(cube) * kMaxPoints;
            for (int k = 0; k < points; ++k) {
                const D d = LaneDistance<L, Dist>(L::Sub(L::Set(box.px[first + k]), X),
                                                  L::Sub(L::Set(box.py[first + k]), Y),
                                                  L::Sub(L::Set(box.pz[first + k]), Z));
                const typename L::M c4 = L::LtAnd(lanes, d, s.f[3]);
                if (!L::Any(c4)) continue;
                Insert<L, kIds>(s, d, L::BroadcastId(box.id[first + k]), lanes, c4);
            }
        }
    }
    StoreResults(s, out);
}

// A run of `sets` sets of lanes sharing the home cube `home`, cube by cube.
template <class L, CellDistance Dist, int kIds>
void SearchRun(const CubeBox& box, RunLanes& run, int sets, double yv, double zv, int32_t ix,
               int32_t iy, int32_t iz, int32_t home) {
    using D = typename L::D;
    constexpr int W = L::kWidth;
    const double fy = yv - static_cast<double>(iy), fz = zv - static_cast<double>(iz);
    const double ty[3] = {fy * fy, 0.0, (1.0 - fy) * (1.0 - fy)};
    const double tz[3] = {fz * fz, 0.0, (1.0 - fz) * (1.0 - fz)};
    const D ixd = L::Set(static_cast<double>(ix));
    for (int s = 0; s < sets; ++s) {
        D tx[3];
        FaceTerms<L>(L::Sub(L::Load(run.x + W * s), ixd), tx);
        for (int k = 0; k < 3; ++k) L::Store(run.tx[k] + W * s, tx[k]);
        for (int k = 0; k < 4; ++k) {
            L::Store(run.f[k] + W * s, L::Set(kFar));
            L::StoreIds(L::RunIds(run, k) + W * s, L::NoIds());
        }
    }

    // Lanes visiting the current cube, per set.
    typename L::M visit[kColumnBlock / W];
    for (int c = 0; c < 27; ++c) {
        const int32_t cube = home + box.delta[c];
        const int points = box.count[cube];
        if (points == 0) continue;  // visited or not, nothing changes
        const CubeOffset& o = kCubeOrder[c];
        // Which lanes visit: all for the home cube, else those whose squared
        // distance to the cube, (x term + y term) + z term, is below their
        // fourth distance. The sets from the first to the last visiting one
        // are then worked through.
        int first = 0, last = sets - 1;
        if (c == 0) {
            for (int s = 0; s < sets; ++s) visit[s] = L::All();
        } else {
            const D yz = L::Set(ty[o.dy + 1]), zz = L::Set(tz[o.dz + 1]);
            const double* tx = run.tx[o.dx + 1];
            first = sets, last = -1;
            for (int s = 0; s < sets; ++s) {
                const D bound = L::Add(L::Add(L::Load(tx + W * s), yz), zz);
                visit[s] = L::Gt(L::Load(run.f[3] + W * s), bound);
                const bool any = L::Any(visit[s]);
                first = any && s < first ? s : first;
                last = any ? s : last;
            }
        }
        const size_t at0 = static_cast<size_t>(cube) * kMaxPoints;
        for (int s = first; s <= last; ++s) {
            const typename L::M m = visit[s];
            const D X = L::Load(run.x + W * s);
            Nearest<L> st;
            for (int k = 0; k < 4; ++k) {
                st.f[k] = L::Load(run.f[k] + W * s);
                st.id[k] = k < kIds ? L::LoadIds(L::RunIds(run, k) + W * s) : L::NoIds();
            }
            for (int k = 0; k < points; ++k)
                InsertEvery<L, kIds>(st, RowDistance<L, Dist>(box, at0 + k, X), box.id[at0 + k], m);
            for (int k = 0; k < 4; ++k) {
                L::Store(run.f[k] + W * s, st.f[k]);
                if (k < kIds) L::StoreIds(L::RunIds(run, k) + W * s, st.id[k]);
            }
        }
    }
}

// The entry points every width has.
template <class L, CellDistance Dist, int kIds>
LaneKernels CommonKernels() {
    LaneKernels k;
    k.width = L::kWidth;
    k.ids64 = sizeof(typename L::IdT) == 8;
    k.search = &Search<L, Dist>;
    k.searchBox = &SearchBox<L, Dist, kIds>;
    k.searchRun = &SearchRun<L, Dist, kIds>;
    return k;
}

}  // namespace basekit::cellular
