#pragma once

#include <string>

namespace lumicrest
{

// Tuning of fingerprint creation, from the "key=value;..." option text.
struct LearnOptions
{
    float sigmaRef;   // "sigma_ref": wavelet noise level for reference photos
    float sigmaMatch; // "sigma_match": stored with the fingerprint, used for questioned photos
    int threads;      // "threads": 0 = as many as the machine has
};

LearnOptions defaultLearnOptions();
// Throws Failure(504) on an unknown key or a value out of range.
LearnOptions parseLearnOptions(const std::string& text);

} // namespace lumicrest
