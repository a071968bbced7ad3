#pragma once

namespace lyn {
struct Filter2dTag {};
struct Filter3dTag {};
struct FilterWithReductionTag {};
// Kernel modes: the first pass reads the filter's input, later passes the image an earlier pass wrote.
struct InputToOutput {};
struct OutputToOutput {};
} // namespace lyn
