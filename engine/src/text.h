#pragma once

#include <cwchar>
#include <string>

namespace lumicrest
{

// Wide strings cross the boundary as UTF-32 (Linux) or UTF-16 (Windows); inside
// the engine text is UTF-8.
std::string toUtf8(const wchar_t* text);
std::wstring fromUtf8(const std::string& text);

// A malloc'ed copy for out-parameters the caller frees with free(); null when
// memory is short.
wchar_t* mallocWide(const std::string& utf8);

// Appends text as a JSON string literal (quotes and escapes included).
void appendJsonString(std::string& out, const std::string& text);
// Appends a finite number in the shortest form that reads back the same;
// non-finite values become 0 (JSON has no NaN).
void appendJsonNumber(std::string& out, double value);

// Builds a JSON text member by member, placing the commas itself.
class JsonWriter
{
public:
    JsonWriter& beginObject() { return open('{'); }
    JsonWriter& endObject() { return close('}'); }
    JsonWriter& beginArray() { return open('['); }
    JsonWriter& endArray() { return close(']'); }
    JsonWriter& key(const char* name);
    JsonWriter& number(double value);
    JsonWriter& integer(long long value);
    JsonWriter& string(const std::string& value);
    JsonWriter& null();
    const std::string& text() const { return m_out; }

private:
    JsonWriter& open(char bracket);
    JsonWriter& close(char bracket);
    void separate();

    std::string m_out;
    bool m_afterValue = false;
};

} // namespace lumicrest
