#pragma once

#include <QString>

namespace qcontrols
{

// Keeps the application's style sheet once it has been loaded, so that
// widgets created later (dialogs, message boxes) can take the same sheet.
// Process-wide; every member is static and safe to call from any thread.
class CStyleSheetManager
{
public:
    CStyleSheetManager() = delete;

    // Reads the sheet (a file or a ":/..." resource), substitutes the
    // constants of constantsPath when it is given, scales the pixel sizes,
    // keeps the result and returns it. A missing sheet is logged and gives
    // (and keeps) empty text. Errors in the constants file are thrown as
    // qutils::CException and keep nothing.
    static QString load(const QString& styleSheetPath, const QString& constantsPath = QString(),
                        double scale = 1.0);

    // The kept sheet; before one was set this writes a Debug record and
    // returns empty text.
    static QString styleSheet();
    static void setStyleSheet(const QString& styleSheet);
    static bool hasStyleSheet();
    // Forgets the kept sheet, as if none had been set.
    static void clear();

    // Multiplies every whole-token "<number>px" length by scale, rounded to
    // whole pixels; a non-zero length never drops below 1px. A scale of 1
    // leaves the text as it is.
    static QString scalePixelSizes(const QString& styleSheet, double scale);
};

} // namespace qcontrols
