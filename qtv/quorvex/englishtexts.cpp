#include "englishtexts.h"

#include <cstring>

namespace
{

struct SText
{
    const char* context;
    const char* source;
    // The text for n == 1 (or for every n when there is no plural).
    const char* one;
    // The text for any other n; null when the text has no number.
    const char* other;
};

constexpr SText Texts[] = {
    {"CAnalyzeDlg", "Do you really want to cancel the current analyze?",
     "Do you really want to cancel the current analysis?", nullptr},
    {"CAnalyzeDlg", "All %n photo(s) selected", "The %n photo selected", "All %n photos selected"},
    {"CAnalyzeDlg", "All %n processed photo(s) selected for report", "The %n processed photo selected for report",
     "All %n processed photos selected for report"},
    {"CAnalyzeDlg", "%n photo(s) selected for report", "%n photo selected for report",
     "%n photos selected for report"},
};

} // namespace

QString CEnglishTexts::translate(const char* context, const char* sourceText, const char*, int n) const
{
    if (!context || !sourceText)
        return QString();
    for (const SText& text : Texts)
    {
        if (std::strcmp(text.context, context) != 0 || std::strcmp(text.source, sourceText) != 0)
            continue;
        // %n is filled in by the caller after this returns.
        return QString::fromUtf8(text.other && n != 1 ? text.other : text.one);
    }
    return QString();
}
