#pragma once
// The lyn tool's subcommands. Each returns the process exit status.
#include <stdexcept>
#include <string>
#include <vector>

namespace lyn {
namespace tool {

// Bad usage: reported with exit status 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct CommonOptions {
    int threads = 0;
    bool generic = false;
    bool quiet = false;
    bool force = false;
    bool onDisk = false;
    std::string tmpdir;
    std::string memoryBudget;
};

struct ShapeOptions {
    std::string shape;
    long long radius = -1;  // -1: not given
    long long connectivity = -1;
    long long length = -1;
    double angle = 0;
    bool angleGiven = false;
    std::string angles;
    bool anglesGiven = false;
    bool exact = false;
};

// What a morphology command computes from its structuring element.
enum class MorphologyOp { Dilate, Erode, Open, Close, Gradient, TopHat, BlackHat };
// The command's name ("dilate", ..., "blackhat").
const char* morphologyCommand(MorphologyOp op);

int runInfo();
int runExtrema(const std::string& input, const std::vector<std::string>& per, bool json, const CommonOptions& common);
int runMorphology(MorphologyOp op, const std::string& input, const std::string& output, const ShapeOptions& shape,
                  const CommonOptions& common);
int runDemo(const std::string& outDir, long long size, const CommonOptions& common);

} // namespace tool
} // namespace lyn
