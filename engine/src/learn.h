#pragma once

#include "fingerprint.h"
#include "options.h"

#include <string>
#include <vector>

namespace lumicrest
{

using LearnProgress = void (*)(int, float, float);

struct LearnOutcome
{
    int32_t code = 200;       // first failure, or 200
    int failedIndex = -1;     // the photo that ended learning
    std::string diagnostics;  // JSON: one entry per photo looked at
    std::string warnings;     // JSON: photos used despite a weakness
};

// Learns a fingerprint from the photos in list order. With checks on, the
// first photo that fails a reference check ends learning with its value.
LearnOutcome learnFingerprint(const std::vector<std::string>& paths, const LearnOptions& options, bool checks,
                              LearnProgress progress, FingerprintData& out);

} // namespace lumicrest
