#include "text.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace lumicrest
{

namespace
{

void appendUtf8(std::string& out, char32_t c)
{
    if (c < 0x80)
    {
        out += static_cast<char>(c);
    }
    else if (c < 0x800)
    {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
    else if (c < 0x10000)
    {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
    else
    {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

void appendWide(std::wstring& out, char32_t c)
{
    if (sizeof(wchar_t) == 2 && c >= 0x10000)
    {
        c -= 0x10000;
        out += static_cast<wchar_t>(0xD800 + (c >> 10));
        out += static_cast<wchar_t>(0xDC00 + (c & 0x3FF));
    }
    else
    {
        out += static_cast<wchar_t>(c);
    }
}

constexpr char32_t Replacement = 0xFFFD;

} // namespace

std::string toUtf8(const wchar_t* text)
{
    std::string out;
    if (!text)
        return out;
    for (const wchar_t* p = text; *p; ++p)
    {
        char32_t c = static_cast<char32_t>(*p);
        if (sizeof(wchar_t) == 2 && c >= 0xD800 && c <= 0xDBFF && p[1] >= 0xDC00 && p[1] <= 0xDFFF)
        {
            c = 0x10000 + ((c - 0xD800) << 10) + (static_cast<char32_t>(p[1]) - 0xDC00);
            ++p;
        }
        else if ((c >= 0xD800 && c <= 0xDFFF) || c > 0x10FFFF)
        {
            c = Replacement;
        }
        appendUtf8(out, c);
    }
    return out;
}

std::wstring fromUtf8(const std::string& text)
{
    std::wstring out;
    const auto* s = reinterpret_cast<const unsigned char*>(text.data());
    const size_t n = text.size();
    for (size_t i = 0; i < n;)
    {
        const unsigned char b = s[i];
        char32_t c = Replacement;
        size_t len = 1;
        if (b < 0x80)
            c = b;
        else if ((b & 0xE0) == 0xC0)
            len = 2, c = b & 0x1F;
        else if ((b & 0xF0) == 0xE0)
            len = 3, c = b & 0x0F;
        else if ((b & 0xF8) == 0xF0)
            len = 4, c = b & 0x07;
        if (len > 1)
        {
            if (i + len > n)
            {
                c = Replacement;
                len = 1;
            }
            else
            {
                for (size_t k = 1; k < len; ++k)
                {
                    if ((s[i + k] & 0xC0) != 0x80)
                    {
                        c = Replacement;
                        len = 1;
                        break;
                    }
                    c = (c << 6) | (s[i + k] & 0x3F);
                }
            }
        }
        appendWide(out, c);
        i += len;
    }
    return out;
}

wchar_t* mallocWide(const std::string& utf8)
{
    const std::wstring wide = fromUtf8(utf8);
    auto* out = static_cast<wchar_t*>(std::malloc((wide.size() + 1) * sizeof(wchar_t)));
    if (!out)
        return nullptr;
    std::memcpy(out, wide.c_str(), (wide.size() + 1) * sizeof(wchar_t));
    return out;
}

void appendJsonString(std::string& out, const std::string& text)
{
    out += '"';
    for (const char ch : text)
    {
        const auto c = static_cast<unsigned char>(ch);
        switch (c)
        {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            if (c < 0x20)
            {
                char buffer[8];
                std::snprintf(buffer, sizeof(buffer), "\\u%04x", c);
                out += buffer;
            }
            else
            {
                out += ch;
            }
        }
    }
    out += '"';
}

void appendJsonNumber(std::string& out, double value)
{
    if (!std::isfinite(value))
        value = 0.0;
    // to_chars is locale-independent (a host program may have set a decimal
    // comma) and gives the shortest text that reads back the same.
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof(buffer), value);
    out.append(buffer, result.ptr);
}

void JsonWriter::separate()
{
    if (m_afterValue)
        m_out += ',';
    m_afterValue = false;
}

JsonWriter& JsonWriter::open(char bracket)
{
    separate();
    m_out += bracket;
    return *this;
}

JsonWriter& JsonWriter::close(char bracket)
{
    m_out += bracket;
    m_afterValue = true;
    return *this;
}

JsonWriter& JsonWriter::key(const char* name)
{
    separate();
    appendJsonString(m_out, name);
    m_out += ':';
    return *this;
}

JsonWriter& JsonWriter::number(double value)
{
    separate();
    appendJsonNumber(m_out, value);
    m_afterValue = true;
    return *this;
}

JsonWriter& JsonWriter::integer(long long value)
{
    separate();
    m_out += std::to_string(value);
    m_afterValue = true;
    return *this;
}

JsonWriter& JsonWriter::string(const std::string& value)
{
    separate();
    appendJsonString(m_out, value);
    m_afterValue = true;
    return *this;
}

JsonWriter& JsonWriter::null()
{
    separate();
    m_out += "null";
    m_afterValue = true;
    return *this;
}

} // namespace lumicrest
