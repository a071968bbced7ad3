#pragma once
// Whether an output this large is written with streaming (non-temporal) stores: one too large to
// stay in the cache, which ordinary stores would first read, line by line, into it.
#include <cstdint>

#include "host/Settings.h"

namespace lyn {
namespace SimdVec {

constexpr std::uint64_t kStreamingDefault = std::uint64_t(8) << 20;

inline bool streamingStores(std::uint64_t outputBytes) {
    return outputBytes >= globalSettings()->getValueAsBytes("LYN_STREAMING_STORES_MIN_BYTES", kStreamingDefault);
}

} // namespace SimdVec
} // namespace lyn
