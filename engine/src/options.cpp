#include "options.h"

#include "constants.h"
#include "lumicrest.h"
#include "status.h"

#include <charconv>

namespace lumicrest
{

namespace
{

std::string trimmed(const std::string& s)
{
    const auto begin = s.find_first_not_of(" \t\r\n");
    if (begin == std::string::npos)
        return std::string();
    const auto end = s.find_last_not_of(" \t\r\n");
    return s.substr(begin, end - begin + 1);
}

double number(const std::string& key, const std::string& value, double low, double high)
{
    double v = 0.0;
    const auto result = std::from_chars(value.data(), value.data() + value.size(), v);
    if (result.ec != std::errc() || result.ptr != value.data() + value.size() || !(v >= low && v <= high))
        fail(LUMICREST_INVALID_OPTION, "option " + key + " has an invalid value: " + value);
    return v;
}

} // namespace

LearnOptions defaultLearnOptions()
{
    return LearnOptions{constants::DefaultSigma0, constants::DefaultSigma0, 0};
}

LearnOptions parseLearnOptions(const std::string& text)
{
    LearnOptions options = defaultLearnOptions();
    size_t start = 0;
    while (start <= text.size())
    {
        size_t end = text.find(';', start);
        if (end == std::string::npos)
            end = text.size();
        const std::string item = trimmed(text.substr(start, end - start));
        start = end + 1;
        if (item.empty())
            continue;
        const auto equals = item.find('=');
        if (equals == std::string::npos)
            fail(LUMICREST_INVALID_OPTION, "option without a value: " + item);
        const std::string key = trimmed(item.substr(0, equals));
        const std::string value = trimmed(item.substr(equals + 1));
        if (key == "sigma_ref")
            options.sigmaRef = static_cast<float>(number(key, value, constants::MinSigma0, constants::MaxSigma0));
        else if (key == "sigma_match")
            options.sigmaMatch = static_cast<float>(number(key, value, constants::MinSigma0, constants::MaxSigma0));
        else if (key == "threads")
            options.threads = static_cast<int>(number(key, value, 0.0, 256.0));
        else
            fail(LUMICREST_INVALID_OPTION, "unknown option: " + key);
    }
    return options;
}

} // namespace lumicrest
