// libFuzzer target: the .npy reader. Any input must end in an image or an InputError; anything
// else (a crash, a sanitizer report, another exception, an allocation past the limit) is a bug.
#include "fuzz/FuzzFile.h"
#include "tools/Npy.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        int axes = 0;
        auto image = lyn::io::readNpy(lyn::fuzz::asFile(data, size), &axes);
        if (axes < 2 || axes > 5) std::abort();
    } catch (const lyn::io::InputError&) {
    }
    return 0;
}
