// lyn: command-line front end of the lyn image-processing framework.
#include <csignal>
#include <cstdio>
#include <iostream>

#include <CLI/CLI.hpp>

#include "host/Exceptions.h"
#include "host/Shapes.h"
#include "tools/Commands.h"
#include "tools/Npy.h"
#include "tools/OnDisk.h"
#include "tools/Output.h"
#include "tools/Signals.h"

using namespace lyn::tool;

namespace {

// CLI11's own number checks print their bound as a 300-digit double and say nothing useful about
// "abc" or "1.5"; this says plainly what the option takes.
// Decimal digits only, so "010" is ten and "0x10" an error (CLI11 alone reads them as 8 and 16).
bool decimal(const std::string& text, long long& value) {
    if (text.empty() || text.size() > 18) return false;
    value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + (c - '0');
    }
    return true;
}

CLI::Validator integerAtLeast(long long least) {
    const std::string what = least == 0 ? "a non-negative integer" : "an integer of at least " + std::to_string(least);
    return CLI::Validator(
        [least, what](std::string& text) -> std::string {
            long long value = 0;
            if (decimal(text, value) && value >= least) {
                text = std::to_string(value);  // what CLI11 converts next: no leading zeros left to misread
                return {};
            }
            return "must be " + what + " in decimal digits, not '" + text + "'";
        },
        least == 0 ? "NONNEGATIVE" : least == 1 ? "POSITIVE" : ">=" + std::to_string(least));
}

void addCommon(CLI::App* cmd, CommonOptions& c) {
    cmd->add_option("--threads", c.threads, "At most N worker threads (default: all cores)")
        ->transform(integerAtLeast(1));
    cmd->add_flag("--generic", c.generic, "Do not use the plug-in: the host's generic code computes everything");
    cmd->add_flag("--quiet", c.quiet, "No progress bar");
    cmd->add_flag("--force", c.force, "Overwrite an existing OUTPUT");
    cmd->add_flag("--on-disk", c.onDisk, "Operate on the files without loading them into memory");
    cmd->add_option("--tmpdir", c.tmpdir, "Where temporary images on disk go");
    cmd->add_option("--memory-budget", c.memoryBudget, "Extra memory the algorithms may use (suffixes K, M, G)");
}

void addShape(CLI::App* cmd, ShapeOptions& s) {
    cmd->add_option("--shape", s.shape, "square, cube, disk, ball, line, disk3d or line3d (see below)")->required();
    cmd->add_option("--radius", s.radius, "Radius R")->transform(integerAtLeast(0));
    cmd->add_option("--connectivity", s.connectivity, "square: 8 or 4; cube: 26, 18 or 6")
        ->transform(integerAtLeast(0));
    cmd->add_option("--length", s.length, "Line length L in pixels (at least 1)")->transform(integerAtLeast(0));
    cmd->add_option("--angle", s.angle, "Line angle in degrees from the column axis")->each([&s](const std::string&) {
        s.angleGiven = true;
    });
    cmd->add_option("--angles", s.angles, "disk3d and line3d: azimuth and elevation in degrees, DEG1,DEG2")
        ->each([&s](const std::string&) { s.anglesGiven = true; });
    cmd->add_flag("--exact", s.exact, "disk and ball: all offsets within Euclidean distance R");
}

} // namespace

int main(int argc, char** argv) {
    // A file size limit (ulimit -f) then fails the write with a message instead of killing the process.
    std::signal(SIGXFSZ, SIG_IGN);
    installSignalHandlers();
    CLI::App app{"lyn: grey-level morphology and intensity extrema for 2D images and 3D volumes"};
    app.require_subcommand(1);
    app.set_version_flag("--version", "lyn 0.1.0");

    app.add_subcommand("info", "Processor features, the plug-in and its runners");

    CommonOptions common;
    std::string input, output;
    std::vector<std::string> per;
    bool json = false;
    auto* extrema = app.add_subcommand("extrema", "Minimum and maximum voxel value");
    extrema->add_option("INPUT", input, "Input image (.npy, .tif)")->required();
    extrema->add_option("--per", per, "Comma-separated subset of plan, axis3, axis4")->delimiter(',');
    extrema->add_flag("--json", json, "Print JSON");
    addCommon(extrema, common);

    ShapeOptions shape;
    const std::pair<MorphologyOp, const char*> ops[] = {
        {MorphologyOp::Dilate, "Grey-level dilation (maximum over a structuring element)"},
        {MorphologyOp::Erode, "Grey-level erosion (minimum over a structuring element)"},
        {MorphologyOp::Open, "Opening: erosion, then dilation by the mirrored element"},
        {MorphologyOp::Close, "Closing: dilation, then erosion by the mirrored element"},
        {MorphologyOp::Gradient, "Morphological gradient: dilation minus erosion"},
        {MorphologyOp::TopHat, "White top-hat: the input minus its opening"},
        {MorphologyOp::BlackHat, "Black top-hat: the closing minus the input"},
    };
    constexpr int nOps = sizeof ops / sizeof ops[0];
    CLI::App* morph[nOps];
    for (int i = 0; i < nOps; ++i) {
        morph[i] = app.add_subcommand(morphologyCommand(ops[i].first), ops[i].second);
        morph[i]->add_option("INPUT", input, "Input image (.npy, .tif)")->required();
        morph[i]->add_option("OUTPUT", output, "Output image (.npy, .tif)")->required();
        addShape(morph[i], shape);
        morph[i]->footer("Shapes:\n" + lyn::shapes::describeShapes());
        addCommon(morph[i], common);
    }

    std::string outDir = "lyn-demo";
    long long size = 0;
    auto* demo = app.add_subcommand("demo", "Runs every operation on a built-in synthetic volume");
    demo->add_option("--out", outDir, "Where the demo writes its images");
    demo->add_option("--size", size, "Edge of the demo volume in voxels (default 256)")->transform(integerAtLeast(1));
    addCommon(demo, common);

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        std::cerr << "lyn: " << e.what() << "\n";
        return 2;
    }

    try {
        if (app.got_subcommand("info")) return runInfo();
        if (extrema->parsed()) return runExtrema(input, per, json, common);
        for (int i = 0; i < nOps; ++i)
            if (morph[i]->parsed()) return runMorphology(ops[i].first, input, output, shape, common);
        if (demo->parsed()) return runDemo(outDir, size, common);
    } catch (const UsageError& e) {
        std::cerr << "lyn: " << e.what() << "\n";
        return 2;
    } catch (const lyn::io::OutputError& e) {
        std::cerr << "lyn: " << e.what() << "\n";
        return 2;
    } catch (const lyn::io::InputError& e) {
        std::cerr << "lyn: " << e.what() << "\n";
        return 2;
    } catch (const lyn::ExceptionCancelation&) {
        std::cerr << "lyn: cancelled\n";
        return 130;
    } catch (const lyn::Exception& e) {
        std::cerr << "lyn: " << e.kind() << ": " << e.what() << "\n";
        if (const std::string advice = adviceFor(e); !advice.empty()) std::cerr << "lyn: " << advice << "\n";
        return 1;
    } catch (const std::bad_alloc&) {
        std::cerr << "lyn: not enough memory\n";
        return 1;
    } catch (const std::exception& e) {
        std::cerr << "lyn: " << e.what() << "\n";
        return 1;
    }
    return 2;
}
