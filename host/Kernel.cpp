// Offset generators. The lines and the oriented disk are defined in double arithmetic evaluated as
// written: this file is compiled without floating-point contraction (no fused multiply-add), and
// every product is taken before the division that follows it. Rounding is half away from zero
// (std::round); exact halves do occur (7 · u_row / |u_plan| at angles (30, 45) is -3.4999999999999996
// this way, -3.5 with the ratio taken first).
#include "host/Kernel.h"

#include <algorithm>
#include <cmath>

namespace lyn {
namespace kernel {

namespace {

double radians(double degrees) { return degrees * M_PI / 180; }

// Largest w with w * w <= n.
long isqrt(long n) {
    long w = static_cast<long>(std::sqrt(static_cast<double>(n)));
    while (w > 0 && w * w > n) --w;
    while ((w + 1) * (w + 1) <= n) ++w;
    return w;
}

struct Direction {
    double u[3];
    int major;  // axis of the largest magnitude; ties go to the earlier axis
};

Direction direction3d(double elevation, double azimuth) {
    const double a = radians(azimuth), e = radians(elevation);
    Direction d{{std::cos(e) * std::cos(a), -std::cos(e) * std::sin(a), std::sin(e)}, 0};
    for (int j = 1; j < 3; ++j)
        if (std::fabs(d.u[j]) > std::fabs(d.u[d.major])) d.major = j;
    return d;
}

// Pixel k of a line along u over `axes` components.
template <int Axes>
void linePoint(const Direction& d, long k, bool constNumOfPixels, long (&p)[3]) {
    const double scale = std::fabs(d.u[d.major]);
    for (int j = 0; j < Axes; ++j)
        p[j] = constNumOfPixels ? static_cast<long>(std::round(static_cast<double>(k) * d.u[j] / scale))
                                : static_cast<long>(std::round(static_cast<double>(k) * d.u[j]));
}

template <int Axes, class Offset>
std::vector<Offset> line(const Direction& d, unsigned long length, bool constNumOfPixels) {
    std::vector<Offset> out;
    out.reserve(length);
    const long first = -static_cast<long>((length - (length > 0)) / 2);
    for (unsigned long i = 0; i < length; ++i) {
        long p[3] = {0, 0, 0};
        linePoint<Axes>(d, first + static_cast<long>(i), constNumOfPixels, p);
        Offset o;
        o.x = p[0];
        o.y = p[1];
        if constexpr (Axes == 3) o.z = p[2];
        if (!out.empty() && out.back() == o) continue;  // only when steps are shorter than a pixel
        out.push_back(o);
    }
    return out;
}

// Calls f(p) for every offset of the oriented disk, in (p_a, p_b) lattice order.
template <class F>
void forEachDisk3D(double elevation, double azimuth, unsigned long radius, F&& f) {
    const Direction d = direction3d(elevation, azimuth);
    const int m = d.major, a = m == 0 ? 1 : 0, b = m == 2 ? 1 : 2;
    const long r = static_cast<long>(radius);
    const double limit = static_cast<double>(r) * static_cast<double>(r) + 1e-9;
    for (long pa = -r; pa <= r; ++pa)
        for (long pb = -r; pb <= r; ++pb) {
            long p[3];
            p[a] = pa;
            p[b] = pb;
            p[m] = static_cast<long>(
                std::round(-(d.u[a] * static_cast<double>(pa) + d.u[b] * static_cast<double>(pb)) / d.u[m]));
            const double x = static_cast<double>(p[0]), y = static_cast<double>(p[1]), z = static_cast<double>(p[2]);
            const double t = d.u[0] * x + d.u[1] * y + d.u[2] * z;
            if ((x * x + y * y + z * z) - t * t <= limit) f(Offset3D{p[0], p[1], p[2]});
        }
}

} // namespace

std::vector<Offset2D> generateDiskOffset2DCollection(unsigned long radius) {
    const long r = static_cast<long>(radius);
    std::vector<Offset2D> out;
    for (long dy = -r; dy <= r; ++dy) {
        const long w = isqrt(r * r - dy * dy);
        for (long dx = -w; dx <= w; ++dx) out.push_back({dx, dy});
    }
    return out;
}

std::vector<Offset3D> generateSphereOffset3DCollection(unsigned long radius) {
    const long r = static_cast<long>(radius);
    std::vector<Offset3D> out;
    for (long dz = -r; dz <= r; ++dz)
        for (long dy = -r; dy <= r; ++dy) {
            const long rest = r * r - dz * dz - dy * dy;
            if (rest < 0) continue;
            const long w = isqrt(rest);
            for (long dx = -w; dx <= w; ++dx) out.push_back({dx, dy, dz});
        }
    return out;
}

std::vector<Offset3D> generateDiskOffset3DCollection(double elevation, double azimuth, unsigned long radius) {
    std::vector<Offset3D> out;
    forEachDisk3D(elevation, azimuth, radius, [&](const Offset3D& o) { out.push_back(o); });
    std::sort(out.begin(), out.end(), [](const Offset3D& l, const Offset3D& r) {
        if (l.z != r.z) return l.z < r.z;
        if (l.y != r.y) return l.y < r.y;
        return l.x < r.x;
    });
    return out;
}

std::vector<Offset2D> generateLineOffset2DCollectionWithConstNumOfPixels(double angle, unsigned long length,
                                                                          bool constNumOfPixels) {
    const double a = radians(angle);
    Direction d{{std::cos(a), -std::sin(a), 0}, 0};
    if (std::fabs(d.u[1]) > std::fabs(d.u[0])) d.major = 1;
    return line<2, Offset2D>(d, length, constNumOfPixels);
}

std::vector<Offset3D> generateLineOffset3DCollectionWithConstNumOfPixels(double elevation, double azimuth,
                                                                          unsigned long length, bool constNumOfPixels) {
    return line<3, Offset3D>(direction3d(elevation, azimuth), length, constNumOfPixels);
}

void computeExtrema(const std::vector<Offset2D>& offsets, long& minX, long& maxX, long& minY, long& maxY) {
    minX = maxX = minY = maxY = 0;
    if (offsets.empty()) return;
    minX = maxX = offsets[0].x;
    minY = maxY = offsets[0].y;
    for (const auto& o : offsets) {
        minX = std::min(minX, o.x);
        maxX = std::max(maxX, o.x);
        minY = std::min(minY, o.y);
        maxY = std::max(maxY, o.y);
    }
}

void computeExtrema(const std::vector<Offset3D>& offsets, long& minX, long& maxX, long& minY, long& maxY, long& minZ,
                    long& maxZ) {
    minX = maxX = minY = maxY = minZ = maxZ = 0;
    if (offsets.empty()) return;
    minX = maxX = offsets[0].x;
    minY = maxY = offsets[0].y;
    minZ = maxZ = offsets[0].z;
    for (const auto& o : offsets) {
        minX = std::min(minX, o.x);
        maxX = std::max(maxX, o.x);
        minY = std::min(minY, o.y);
        maxY = std::max(maxY, o.y);
        minZ = std::min(minZ, o.z);
        maxZ = std::max(maxZ, o.z);
    }
}

std::vector<Offset2D> mirror(const std::vector<Offset2D>& offsets) {
    std::vector<Offset2D> out;
    out.reserve(offsets.size());
    for (const auto& o : offsets) out.push_back({-o.x, -o.y});
    return out;
}

std::vector<Offset3D> mirror(const std::vector<Offset3D>& offsets) {
    std::vector<Offset3D> out;
    out.reserve(offsets.size());
    for (const auto& o : offsets) out.push_back({-o.x, -o.y, -o.z});
    return out;
}

unsigned long countDiskOffsets(unsigned long radius, unsigned long cap) {
    if (radius > cap / 2) return cap + 1;  // the centre row alone holds 2r + 1
    const long r = static_cast<long>(radius);
    unsigned long n = 0;
    for (long dy = -r; dy <= r && n <= cap; ++dy) n += static_cast<unsigned long>(2 * isqrt(r * r - dy * dy) + 1);
    return std::min(n, cap + 1);
}

unsigned long countSphereOffsets(unsigned long radius, unsigned long cap) {
    if (radius > cap / 2) return cap + 1;
    const long r = static_cast<long>(radius);
    unsigned long n = 0;
    // Every row visited adds at least one offset, so this stops within cap + 1 rows.
    for (long dz = -r; dz <= r && n <= cap; ++dz)
        for (long dy = -r; dy <= r && n <= cap; ++dy) {
            const long rest = r * r - dz * dz - dy * dy;
            if (rest >= 0) n += static_cast<unsigned long>(2 * isqrt(rest) + 1);
        }
    return std::min(n, cap + 1);
}

unsigned long countDisk3DOffsets(double elevation, double azimuth, unsigned long radius, unsigned long cap) {
    // With |p_a|, |p_b| <= s = floor(r / 3), |p_m| <= 2s since |u_a|, |u_b| <= |u_m|, so |p|² <= 6s² < r²
    // and the whole (2s + 1)² square of the lattice is kept: a lower bound that needs no loop.
    const double s = static_cast<double>(radius / 3);
    if ((2 * s + 1) * (2 * s + 1) > static_cast<double>(cap)) return cap + 1;
    unsigned long n = 0;
    forEachDisk3D(elevation, azimuth, radius, [&](const Offset3D&) { ++n; });
    return std::min(n, cap + 1);
}

} // namespace kernel
} // namespace lyn
