#pragma once

#include "lumicrest.h"

#include <cstdint>
#include <exception>
#include <string>

namespace lumicrest
{

// Inside the engine failures travel as this exception; the C boundary turns it
// into its result value and never lets anything escape.
class Failure : public std::exception
{
public:
    Failure(int32_t code, std::string detail) : m_code(code), m_detail(std::move(detail)) {}
    int32_t code() const noexcept { return m_code; }
    const std::string& detail() const noexcept { return m_detail; }
    const char* what() const noexcept override { return m_detail.c_str(); }

private:
    int32_t m_code;
    std::string m_detail;
};

[[noreturn]] inline void fail(int32_t code, std::string detail)
{
    throw Failure(code, std::move(detail));
}

} // namespace lumicrest
