// Dilates a synthetic volume held in the program's own buffer, then measures it, with an
// installed lyn. Prints the runner that served the dilation and the extrema before and after.
#include <cstdint>
#include <cstdio>
#include <vector>

#include "host/Algorithms.h"
#include "host/PluginLoader.h"

int main() {
    using namespace lyn;
    const std::uint64_t cols = 96, rows = 80, plans = 40;
    std::vector<std::uint8_t> voxels(cols * rows * plans, 10), dilated(voxels.size());
    voxels[(20 * rows + 40) * cols + 50] = 200;  // one bright voxel in the middle

    // Wrapping memory owned elsewhere: all five extents, 1 for the axes the data lacks.
    MemoryImage input(voxels.data(), UInt8, {cols, rows, plans, 1, 1});
    MemoryImage output(dilated.data(), UInt8, {cols, rows, plans, 1, 1});
    try {
        morphology::Dilation3d dilate;
        dilate.inputImage = &input;
        dilate.outputImage = &output;
        dilate.kernelRadius = 2;
        dilate.neighborhood = 2;  // 26-connected
        dilate.execute();
        std::printf("plug-in: %s\n", Plugin::isLoaded() ? Plugin::loadedPath().c_str() : "not loaded");
        std::printf("dilation served by: %s\n", runnerName(dilate.getLastRunner()).c_str());

        std::uint64_t bright = 0;
        for (std::uint8_t v : dilated) bright += v == 200;
        analysis::IntensityExtrema extrema;
        analysis::IntensityExtremaMsr msr;
        extrema.inputImage = &output;
        extrema.result = &msr;
        extrema.execute();
        std::printf("bright voxels after a radius-2 cube dilation: %llu (expected 125)\n",
                    static_cast<unsigned long long>(bright));
        std::printf("extrema: %g %g\n", msr.minimum().at(0), msr.maximum().at(0));
        return bright == 125 ? 0 : 1;
    } catch (const Exception& e) {
        std::fprintf(stderr, "lyn: %s\n", e.what());
        return 1;
    }
}
