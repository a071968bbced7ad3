// Generic dilation and erosion by a list of stages. Each pass streams through the image with a
// window of padded rows (2D) or plans (3D) that always reaches at least the row or plan written, so a
// pass may read and write the same image: everything it still needs was read before being overwritten.
#include <algorithm>
#include <cstdlib>
#include <limits>
#include <memory>
#include <vector>

#include "host/PrivateImplementation.h"
#include "host/View.h"
#include "host/generic/Fold.h"
#include "host/generic/Generic.h"

namespace lyn {
namespace generic {

bool reachesAcrossPlans(Neighbourhood n) {
    return n == Neighbourhood::Six || n == Neighbourhood::Eighteen || n == Neighbourhood::TwentySix ||
           n == Neighbourhood::Offsets3D;
}

PassList offsetPasses(const std::vector<kernel::Offset2D>& offsets) {
    Stage stage{Neighbourhood::Offsets2D, 1, {}};
    for (const auto& o : offsets) stage.offsets.push_back({o.x, o.y, 0});
    return {stage};
}

PassList offsetPasses(const std::vector<kernel::Offset3D>& offsets) {
    return {Stage{Neighbourhood::Offsets3D, 1, offsets}};
}

PassList fastDiskPasses(unsigned radius) {
    const unsigned nSquare = radius >> 1, nCross = radius - nSquare;
    if (radius <= 1) return {Stage{Neighbourhood::Cross4, nCross, {}}};
    return {Stage{Neighbourhood::Square8, nSquare, {}}, Stage{Neighbourhood::Cross4, nCross, {}}};
}

PassList fastBallPasses(unsigned radius) {
    const double r = radius;
    const unsigned nSix = static_cast<unsigned>(r * 0.6), nEighteen = static_cast<unsigned>(r * 0.3);
    PassList list;
    if (nSix) list.push_back({Neighbourhood::Six, nSix, {}});
    if (nEighteen) list.push_back({Neighbourhood::Eighteen, nEighteen, {}});
    list.push_back({Neighbourhood::TwentySix, radius - (nSix + nEighteen), {}});
    return list;
}

PassList mirror(PassList list) {
    for (Stage& s : list)
        for (auto& o : s.offsets) o = {-o.x, -o.y, -o.z};
    return list;
}

std::array<long, 3> reach(const PassList& list) {
    std::array<long, 3> total{0, 0, 0};
    for (const Stage& s : list) {
        std::array<long, 3> one{1, 1, reachesAcrossPlans(s.neighbourhood) ? 1 : 0};
        if (s.neighbourhood == Neighbourhood::Offsets2D || s.neighbourhood == Neighbourhood::Offsets3D) {
            one = {0, 0, 0};
            for (const auto& o : s.offsets)
                one = {std::max(one[0], std::labs(o.x)), std::max(one[1], std::labs(o.y)), std::max(one[2], std::labs(o.z))};
        }
        for (int a = 0; a < 3; ++a) total[a] += one[a] * static_cast<long>(s.passes);
    }
    return total;
}

namespace {

// How far an operator reaches along each axis, the origin always included.
struct Reach {
    long x0 = 0, x1 = 0, y0 = 0, y1 = 0, z0 = 0, z1 = 0;
};

Reach reachOf(const Stage& stage) {
    Reach r;
    if (stage.neighbourhood != Neighbourhood::Offsets2D && stage.neighbourhood != Neighbourhood::Offsets3D) {
        r = {-1, 1, -1, 1, -1, 1};
    } else {
        kernel::computeExtrema(stage.offsets, r.x0, r.x1, r.y0, r.y1, r.z0, r.z1);
        r = {std::min(r.x0, 0L), std::max(r.x1, 0L), std::min(r.y0, 0L), std::max(r.y1, 0L), std::min(r.z0, 0L),
             std::max(r.z1, 0L)};
    }
    if (!reachesAcrossPlans(stage.neighbourhood)) r.z0 = r.z1 = 0;
    return r;
}

// One plan padded by the reach: rows y0..nr-1+y1, columns x0..nc-1+x1.
template <class T>
struct Plane {
    long width = 0, padX = 0, padY = 0;
    std::vector<T> data;
    // Column 0 of row y + dy, shifted by dx columns.
    const T* row(long y, long dy, long dx) const { return data.data() + (y + padY + dy) * width + padX + dx; }
};

template <class T, class V>
void readPlane(const V& view, Plane<T>& plane, const Reach& r, long nc, long nr, long z, long s, long l) {
    plane.padX = -r.x0;
    plane.padY = -r.y0;
    plane.width = nc + r.x1 - r.x0;
    plane.data.resize(static_cast<std::size_t>((nr + r.y1 - r.y0) * plane.width));
    for (long y = r.y0; y < nr + r.y1; ++y) {
        T* row = plane.data.data() + (y - r.y0) * plane.width;
        view.readRow(row, row + plane.width, r.x0, y, z, s, l);
    }
}

// An operator as groups of offsets: each group is folded in its order, then the groups' results are
// folded in order. The fixed operators fold this way (a square is three rows of three, the
// 26-neighbourhood three rows of nine across the plans), an offset list is one group.
using Groups = std::vector<std::vector<kernel::Offset3D>>;

Groups groupsOf(const Stage& stage) {
    switch (stage.neighbourhood) {
    case Neighbourhood::Cross4: return {{{0, -1, 0}, {-1, 0, 0}, {0, 0, 0}, {1, 0, 0}, {0, 1, 0}}};
    case Neighbourhood::Square8: {
        Groups g;
        for (long dy = -1; dy <= 1; ++dy) g.push_back({{-1, dy, 0}, {0, dy, 0}, {1, dy, 0}});
        return g;
    }
    case Neighbourhood::Six: {
        Groups g(1);
        for (const auto& o : kOffsets6) g[0].push_back({o[2], o[1], o[0]});
        return g;
    }
    case Neighbourhood::Eighteen: {
        Groups g(1);
        for (const auto& o : kOffsets18) g[0].push_back({o[2], o[1], o[0]});
        return g;
    }
    case Neighbourhood::TwentySix: {
        Groups g;
        for (long dy = -1; dy <= 1; ++dy) {
            g.emplace_back();
            for (long dz = -1; dz <= 1; ++dz)
                for (long dx = -1; dx <= 1; ++dx) g.back().push_back({dx, dy, dz});
        }
        return g;
    }
    default: return {stage.offsets};
    }
}

// Folds one group for output row y into `out`, a whole row per offset.
template <bool D, class T, class PlaneAt>
void foldGroup(const std::vector<kernel::Offset3D>& offsets, const PlaneAt& plane, long y, long nc, T* out) {
    const T* first = plane(offsets[0].z).row(y, offsets[0].y, offsets[0].x);
    std::copy(first, first + nc, out);
    for (std::size_t k = 1; k < offsets.size(); ++k) {
        const T* in = plane(offsets[k].z).row(y, offsets[k].y, offsets[k].x);
        for (long x = 0; x < nc; ++x) out[x] = f<D>(out[x], in[x]);
    }
}

template <bool D, class T, class PlaneAt>
void foldRow(const Groups& groups, const PlaneAt& plane, long y, long nc, T* out, T* scratch) {
    foldGroup<D>(groups[0], plane, y, nc, out);
    for (std::size_t g = 1; g < groups.size(); ++g) {
        foldGroup<D>(groups[g], plane, y, nc, scratch);
        for (long x = 0; x < nc; ++x) out[x] = f<D>(out[x], scratch[x]);
    }
}

bool writesOutput(const Stage& s) {
    const bool offsets = s.neighbourhood == Neighbourhood::Offsets2D || s.neighbourhood == Neighbourhood::Offsets3D;
    return s.passes > 0 && !(offsets && s.offsets.empty());
}

// One stage's passes. `ctx` receives the stage's progress and says when the run is cancelled.
template <bool D, class Traits>
void runStage(algorithms::AbstractPrivateImplementation& ctx, const ImageModel& input, ImageModel& output,
              const Stage& stage, bool readsInput) {
    using T = typename Traits::type;
    using ViewT = access::View<T, std::allocator<T>>;
    if (!writesOutput(stage)) return;
    if (isBoxStage(stage) && boxEnabled()) {
        struct StagePoll : BoxPoll {
            algorithms::AbstractPrivateImplementation& ctx;
            explicit StagePoll(algorithms::AbstractPrivateImplementation& c) : ctx(c) {}
            bool cancelled() override { return ctx.isCancelled(); }
            void progress(double fraction) override { ctx.reportFraction(fraction); }
        } poll(ctx);
        const BaseAlgorithm* owner = ctx.getPublicInterface();
        const std::uint64_t budget =
            owner ? owner->getMaximumExtraMemoryUsageInBytes() : std::numeric_limits<std::uint64_t>::max();
        if (runBox(readsInput ? input : output, output, stage, D, budget, poll) == BoxOutcome::Done) return;
    }
    const Groups groups = groupsOf(stage);
    auto bc = access::FixedBorderCondition<T>::New(D ? Traits::lowest() : Traits::highest());
    const Extents e = input.extents();
    const long nc = long(e[0]), nr = long(e[1]), np = long(e[2]), ns = long(e[3]), nl = long(e[4]);
    const bool across = reachesAcrossPlans(stage.neighbourhood);
    const Reach reach = reachOf(stage);
    const double total = double(stage.passes) * double(nl) * double(ns) * double(np);
    double done = 0;
    auto advance = [&] {
        if (ctx.isCancelled()) throw ExceptionCancelation();
        ctx.reportFraction(++done / total);
    };
    std::vector<T> out(static_cast<std::size_t>(nc)), scratch(static_cast<std::size_t>(nc));
    auto dst = ViewT::New(&output, bc);
    auto write = [&](long y, long z, long s, long l) {
        if (nc) dst->writeRowAt(nc, out.data(), 0, y, z, s, l);
    };

    for (long l = 0; l < nl; ++l)
        for (long s = 0; s < ns; ++s)
            for (long g = 0; g < (across ? 1 : np); ++g)
                for (unsigned pass = 0; pass < stage.passes; ++pass) {
                    auto src = ViewT::New(pass == 0 && readsInput ? &input : static_cast<const ImageModel*>(&output),
                                          bc);
                    if (!across) {
                        Plane<T> p;
                        readPlane(*src, p, reach, nc, nr, g, s, l);
                        auto plane = [&](long) -> const Plane<T>& { return p; };
                        for (long y = 0; y < nr; ++y) {
                            if (ctx.isCancelled()) throw ExceptionCancelation();
                            foldRow<D>(groups, plane, y, nc, out.data(), scratch.data());
                            write(y, g, s, l);
                        }
                        advance();
                        continue;
                    }
                    // Ring of padded plans z + z0 .. z + z1; plan q lives in slot (q - z0) mod depth.
                    const long depth = reach.z1 - reach.z0 + 1;
                    std::vector<Plane<T>> ring(static_cast<std::size_t>(depth));
                    auto slot = [&](long q) -> Plane<T>& { return ring[static_cast<std::size_t>((q - reach.z0) % depth)]; };
                    for (long q = reach.z0; q < reach.z1; ++q) readPlane(*src, slot(q), reach, nc, nr, q, s, l);
                    for (long z = 0; z < np; ++z) {
                        readPlane(*src, slot(z + reach.z1), reach, nc, nr, z + reach.z1, s, l);
                        auto plane = [&](long dz) -> const Plane<T>& { return slot(z + dz); };
                        for (long y = 0; y < nr; ++y) {
                            foldRow<D>(groups, plane, y, nc, out.data(), scratch.data());
                            write(y, z, s, l);
                        }
                        advance();
                    }
                }
}

class StageRun : public algorithms::AbstractPrivateImplementation {
public:
    StageRun(const ImageModel& input, ImageModel& output, const Stage& stage, bool readsInput, bool dilate)
        : AbstractPrivateImplementation(nullptr), m_input(input), m_output(output), m_stage(stage),
          m_readsInput(readsInput), m_dilate(dilate) {}
    void run() override {
        dispatchVoxelType(m_input.getVoxelType(), [&](auto traits) {
            if (m_dilate) runStage<true, decltype(traits)>(*this, m_input, m_output, m_stage, m_readsInput);
            else runStage<false, decltype(traits)>(*this, m_input, m_output, m_stage, m_readsInput);
        });
    }

private:
    const ImageModel& m_input;
    ImageModel& m_output;
    const Stage& m_stage;
    bool m_readsInput, m_dilate;
};

class PassListRun : public algorithms::AbstractPrivateImplementation {
public:
    PassListRun(BaseAlgorithm& algo, const ImageModel& input, ImageModel& output, const PassList& list, bool dilate,
                const StageObserver& observer)
        : AbstractPrivateImplementation(&algo), m_input(input), m_output(output), m_list(list), m_dilate(dilate),
          m_observer(observer) {}
    void run() override {
        m_nbSteps = std::max<std::size_t>(1, m_list.size());
        bool readsInput = true;
        for (std::size_t i = 0; i < m_list.size(); ++i) {
            if (m_observer) m_observer(StageStart{i, m_list.size(), &m_list[i], readsInput});
            StageRun stage(m_input, m_output, m_list[i], readsInput, m_dilate);
            runChildAlgo(&stage);
            if (writesOutput(m_list[i])) readsInput = false;
        }
    }

private:
    const ImageModel& m_input;
    ImageModel& m_output;
    const PassList& m_list;
    bool m_dilate;
    const StageObserver& m_observer;
};

} // namespace

void runPasses(BaseAlgorithm& algo, const ImageModel& input, ImageModel& output, const PassList& list, bool dilate,
               const StageObserver& observer) {
    PassListRun run(algo, input, output, list, dilate, observer);
    run.run();
}

} // namespace generic
} // namespace lyn
