#pragma once
// Voxel type identifiers and the host's compile-time description of each type it serves.
#include <cstdint>
#include <limits>
#include <type_traits>

#include "host/Exceptions.h"

namespace lyn {

// Numeric values are part of the plug-in contract and must never change.
enum VoxelTypes : std::int32_t {
    UInt8 = 0,
    UInt16 = 1,
    UInt32 = 2,
    UInt64 = 3,   // served by the host only
    Int8 = 4,
    Int16 = 5,
    Int32 = 6,
    Int64 = 7,    // served by the host only
    Float = 8,
    Double = 9,
    Binary = 10,  // one byte per voxel holding 0 or 1; served by the host only
    Label = 11,   // 32-bit unsigned region labels; served by the host only
};

constexpr int kNumVoxelTypes = 12;

// Axis of an image: 0 columns (x), 1 rows (y), 2 plans (z), 3 sequence, 4 spectral series.
enum Components : int { Columns = 0, Rows = 1, Plans = 2, Sequence = 3, Spectral = 4 };

const char* voxelTypeName(VoxelTypes t);          // "uint8", ..., "binary", "label"; "invalid" otherwise
bool isValidVoxelType(int id);

namespace helper {
// Size of one element in bytes; 0 for an invalid id.
std::uint64_t getSizeOf(const VoxelTypes& t);
}

// What the host knows of a served type: its storage type, and the values that never win a
// dilation (lowest) or an erosion (highest). Floating types use the finite extremes.
template <VoxelTypes Id> struct VoxelTraits;

#define LYN_VOXEL_TRAITS(Id, T, Lo, Hi)                       \
    template <> struct VoxelTraits<Id> {                      \
        using type = T;                                       \
        static constexpr VoxelTypes id = Id;                  \
        static constexpr T lowest() { return Lo; }            \
        static constexpr T highest() { return Hi; }           \
    };
LYN_VOXEL_TRAITS(UInt8, std::uint8_t, 0, 255)
LYN_VOXEL_TRAITS(UInt16, std::uint16_t, 0, 65535)
LYN_VOXEL_TRAITS(UInt32, std::uint32_t, 0, std::numeric_limits<std::uint32_t>::max())
LYN_VOXEL_TRAITS(UInt64, std::uint64_t, 0, std::numeric_limits<std::uint64_t>::max())
LYN_VOXEL_TRAITS(Int8, std::int8_t, -128, 127)
LYN_VOXEL_TRAITS(Int16, std::int16_t, -32768, 32767)
LYN_VOXEL_TRAITS(Int32, std::int32_t, std::numeric_limits<std::int32_t>::lowest(), std::numeric_limits<std::int32_t>::max())
LYN_VOXEL_TRAITS(Int64, std::int64_t, std::numeric_limits<std::int64_t>::lowest(), std::numeric_limits<std::int64_t>::max())
LYN_VOXEL_TRAITS(Float, float, std::numeric_limits<float>::lowest(), std::numeric_limits<float>::max())
LYN_VOXEL_TRAITS(Double, double, std::numeric_limits<double>::lowest(), std::numeric_limits<double>::max())
LYN_VOXEL_TRAITS(Binary, std::uint8_t, 0, 1)
LYN_VOXEL_TRAITS(Label, std::uint32_t, 0, std::numeric_limits<std::uint32_t>::max())
#undef LYN_VOXEL_TRAITS

// The host's one run-time switch over voxel types: calls f(VoxelTraits<Id>{}) for the id.
template <class F>
decltype(auto) dispatchVoxelType(VoxelTypes t, F&& f) {
    switch (t) {
    case UInt8: return f(VoxelTraits<UInt8>{});
    case UInt16: return f(VoxelTraits<UInt16>{});
    case UInt32: return f(VoxelTraits<UInt32>{});
    case UInt64: return f(VoxelTraits<UInt64>{});
    case Int8: return f(VoxelTraits<Int8>{});
    case Int16: return f(VoxelTraits<Int16>{});
    case Int32: return f(VoxelTraits<Int32>{});
    case Int64: return f(VoxelTraits<Int64>{});
    case Float: return f(VoxelTraits<Float>{});
    case Double: return f(VoxelTraits<Double>{});
    case Binary: return f(VoxelTraits<Binary>{});
    case Label: return f(VoxelTraits<Label>{});
    }
    raise<RuntimeError>("Invalid voxel type id " + std::to_string(static_cast<int>(t)), "host/VoxelTypes", __LINE__);
}

// The id whose storage is T (the plain numeric id; Binary and Label share storage with UInt8/UInt32).
template <class T> constexpr VoxelTypes voxelTypeOf() {
    if constexpr (std::is_same_v<T, std::uint8_t>) return UInt8;
    else if constexpr (std::is_same_v<T, std::uint16_t>) return UInt16;
    else if constexpr (std::is_same_v<T, std::uint32_t>) return UInt32;
    else if constexpr (std::is_same_v<T, std::uint64_t> || std::is_same_v<T, unsigned long long>) return UInt64;
    else if constexpr (std::is_same_v<T, std::int8_t>) return Int8;
    else if constexpr (std::is_same_v<T, std::int16_t>) return Int16;
    else if constexpr (std::is_same_v<T, std::int32_t>) return Int32;
    else if constexpr (std::is_same_v<T, std::int64_t> || std::is_same_v<T, long long>) return Int64;
    else if constexpr (std::is_same_v<T, float>) return Float;
    else {
        static_assert(std::is_same_v<T, double>, "not a voxel storage type");
        return Double;
    }
}

} // namespace lyn
