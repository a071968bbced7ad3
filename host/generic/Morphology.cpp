// Generic square and cube dilation/erosion. Each pass streams through the image with a window of
// three padded rows (2D) or plans (3D); the window is read ahead of the row or plan written, so a
// pass may read and write the same image.
#include <array>
#include <memory>
#include <vector>

#include "host/View.h"
#include "host/generic/Generic.h"

namespace lyn {
namespace generic {

Neighbourhood neighbourhoodOf(int dimensions, int value) {
    if (dimensions == 2) return value == 0 ? Neighbourhood::Cross4 : Neighbourhood::Square8;
    if (value == 0) return Neighbourhood::Six;
    if (value == 1) return Neighbourhood::Eighteen;
    return Neighbourhood::TwentySix;
}

const char* neighbourhoodName(Neighbourhood n) {
    switch (n) {
    case Neighbourhood::Cross4: return "4-connected";
    case Neighbourhood::Square8: return "8-connected";
    case Neighbourhood::Six: return "6-connected";
    case Neighbourhood::Eighteen: return "18-connected";
    case Neighbourhood::TwentySix: return "26-connected";
    }
    return "?";
}

namespace {

// The accumulator comes first: on a tie or a NaN the second operand wins, as the vector
// instructions of the plug-in do.
template <bool Dilate, class T>
inline T f(T acc, T next) {
    if constexpr (Dilate) return acc > next ? acc : next;
    else return acc < next ? acc : next;
}

// Padded input plane: rows -1..nr, columns -1..nc.
template <class T>
struct Plane {
    long width = 0;
    std::vector<T> data;
    // Voxel at (x + dx, y + dy) of the unpadded plane.
    T at(long x, long y, long dx, long dy) const { return data[(y + 1 + dy) * width + (x + 1 + dx)]; }
};

template <class T, class V>
void readPlane(const V& view, Plane<T>& plane, long nc, long nr, long z, long s, long l) {
    plane.width = nc + 2;
    plane.data.resize(static_cast<std::size_t>((nr + 2) * plane.width));
    for (long r = -1; r <= nr; ++r) {
        T* row = plane.data.data() + (r + 1) * plane.width;
        view.readRow(row, row + plane.width, -1, r, z, s, l);
    }
}

template <bool D, class T>
T fold2d(Neighbourhood n, const Plane<T>& p, long x, long y) {
    if (n == Neighbourhood::Cross4) {
        T acc = p.at(x, y, 0, -1);
        acc = f<D>(acc, p.at(x, y, -1, 0));
        acc = f<D>(acc, p.at(x, y, 0, 0));
        acc = f<D>(acc, p.at(x, y, 1, 0));
        return f<D>(acc, p.at(x, y, 0, 1));
    }
    auto h = [&](long dy) { return f<D>(f<D>(p.at(x, y, -1, dy), p.at(x, y, 0, dy)), p.at(x, y, 1, dy)); };
    return f<D>(f<D>(h(-1), h(0)), h(1));
}

// (plan, row, column) offsets of the 18-neighbourhood in fold order.
constexpr int k18[19][3] = {{-1, -1, 0}, {-1, 0, -1}, {-1, 0, 0}, {-1, 0, 1}, {-1, 1, 0}, {0, -1, -1}, {0, -1, 0},
                            {0, -1, 1},  {0, 0, -1},  {0, 0, 0},  {0, 0, 1},  {0, 1, -1}, {0, 1, 0},   {0, 1, 1},
                            {1, -1, 0},  {1, 0, -1},  {1, 0, 0},  {1, 0, 1},  {1, 1, 0}};

template <bool D, class T>
T fold3d(Neighbourhood n, const std::array<const Plane<T>*, 3>& w, long x, long y) {
    auto at = [&](int dz, int dy, int dx) { return w[dz + 1]->at(x, y, dx, dy); };
    switch (n) {
    case Neighbourhood::Six: {
        T acc = at(-1, 0, 0);
        acc = f<D>(acc, at(0, -1, 0));
        acc = f<D>(acc, at(0, 0, -1));
        acc = f<D>(acc, at(0, 0, 0));
        acc = f<D>(acc, at(0, 0, 1));
        acc = f<D>(acc, at(0, 1, 0));
        return f<D>(acc, at(1, 0, 0));
    }
    case Neighbourhood::Eighteen: {
        T acc = at(k18[0][0], k18[0][1], k18[0][2]);
        for (int k = 1; k < 19; ++k) acc = f<D>(acc, at(k18[k][0], k18[k][1], k18[k][2]));
        return acc;
    }
    default: {
        // Nine voxels of one row across the three plans, plan by plan, then the three rows.
        auto r = [&](int dy) {
            T acc = at(-1, dy, -1);
            for (int dz = -1; dz <= 1; ++dz)
                for (int dx = -1; dx <= 1; ++dx)
                    if (dz != -1 || dx != -1) acc = f<D>(acc, at(dz, dy, dx));
            return acc;
        };
        return f<D>(f<D>(r(-1), r(0)), r(1));
    }
    }
}

template <bool D, class Traits>
void passes(BaseAlgorithm& algo, const ImageModel& input, ImageModel& output, unsigned nPasses, Neighbourhood n) {
    using T = typename Traits::type;
    using ViewT = access::View<T, std::allocator<T>>;
    const T border = D ? Traits::lowest() : Traits::highest();
    auto bc = access::FixedBorderCondition<T>::New(border);
    const Extents e = input.extents();
    const long nc = long(e[0]), nr = long(e[1]), np = long(e[2]), ns = long(e[3]), nl = long(e[4]);
    const bool is3d = n == Neighbourhood::Six || n == Neighbourhood::Eighteen || n == Neighbourhood::TwentySix;
    const double total = double(nPasses) * double(nl) * double(ns) * double(np);
    double done = 0;
    std::vector<T> out(static_cast<std::size_t>(nc));
    auto dst = ViewT::New(&output, bc);

    for (long l = 0; l < nl; ++l)
        for (long s = 0; s < ns; ++s) {
            const long planGroups = is3d ? 1 : np;
            for (long g = 0; g < planGroups; ++g)
                for (unsigned pass = 0; pass < nPasses; ++pass) {
                    auto src = ViewT::New(pass == 0 ? &input : static_cast<const ImageModel*>(&output), bc);
                    if (!is3d) {
                        Plane<T> p;  // only rows y-1..y+1 matter; a full padded plane keeps the code plain
                        readPlane(*src, p, nc, nr, g, s, l);
                        for (long y = 0; y < nr; ++y) {
                            if (algo.isCancelRequested()) throw ExceptionCancelation();
                            for (long x = 0; x < nc; ++x) out[x] = fold2d<D>(n, p, x, y);
                            if (nc) dst->writeRowAt(nc, out.data(), 0, y, g, s, l);
                        }
                        algo.reportProgress(++done / total);
                        continue;
                    }
                    std::array<Plane<T>, 3> planes;
                    std::array<const Plane<T>*, 3> w{&planes[0], &planes[1], &planes[2]};
                    readPlane(*src, planes[0], nc, nr, -1, s, l);
                    readPlane(*src, planes[1], nc, nr, 0, s, l);
                    Plane<T>* next = &planes[2];
                    std::vector<T> plane(static_cast<std::size_t>(nc * nr));
                    for (long z = 0; z < np; ++z) {
                        if (algo.isCancelRequested()) throw ExceptionCancelation();
                        readPlane(*src, *next, nc, nr, z + 1, s, l);
                        w[2] = next;
                        for (long y = 0; y < nr; ++y)
                            for (long x = 0; x < nc; ++x) plane[y * nc + x] = fold3d<D>(n, w, x, y);
                        for (long y = 0; y < nr && nc; ++y) dst->writeRowAt(nc, plane.data() + y * nc, 0, y, z, s, l);
                        // Slide the window: the oldest plane's buffer takes the next plan.
                        Plane<T>* oldest = const_cast<Plane<T>*>(w[0]);
                        w[0] = w[1];
                        w[1] = w[2];
                        next = oldest;
                        algo.reportProgress((done + double(z + 1)) / total);
                    }
                    done += np;
                }
        }
}

} // namespace

void squareMorphology(BaseAlgorithm& algo, const ImageModel& input, ImageModel& output, unsigned nPasses,
                      Neighbourhood n, bool dilate) {
    dispatchVoxelType(input.getVoxelType(), [&](auto traits) {
        if (dilate) passes<true, decltype(traits)>(algo, input, output, nPasses, n);
        else passes<false, decltype(traits)>(algo, input, output, nPasses, n);
    });
}

} // namespace generic
} // namespace lyn
