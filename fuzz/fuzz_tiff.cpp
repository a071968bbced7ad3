// libFuzzer target: the TIFF reader. Any input must end in an image or an InputError; anything
// else (a crash, a sanitizer report, another exception, an allocation past the limit) is a bug.
#include "fuzz/FuzzFile.h"
#include "tools/Tiff.h"
#include "tools/Npy.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        auto image = lyn::io::readTiff(lyn::fuzz::asFile(data, size));
        if (image->getNumOf(lyn::Plans) == 0) std::abort();
    } catch (const lyn::io::InputError&) {
    }
    return 0;
}
