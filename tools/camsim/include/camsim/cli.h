#pragma once

#include "camsim/camera.h"
#include "camsim/profiles.h"

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace camsim
{

// What the command line asks for. Photo n (first, first + 1, ...) uses the
// scene seed combineSeeds(seed, n), so a longer run repeats a shorter one.
struct CommandLine
{
    CameraConfig camera;
    ShotConfig shot;
    int count = 1;
    int first = 1;
    uint64_t seed = 1;
    std::string outDir;
    std::string prefix = "img";
    bool help = false;
    // Not Plain: the camera is the profile's, and every photo's scene kind,
    // exposure, quality and processing are drawn from its mix (flat scenes
    // from its reference shots).
    profiles::Profile profile = profiles::Profile::Plain;
};

std::string usageText();

// Parses the arguments (without the program name). Returns an empty text on
// success, otherwise what is wrong.
std::string parseCommandLine(const std::vector<std::string>& args, CommandLine& result);

// The whole program: usage on `out` for --help; one line per file written on
// `out`; errors on `err`. Returns 0, 1 (a photo could not be written) or 2 (bad arguments).
int runCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

} // namespace camsim
