#pragma once

#include <QMap>
#include <QString>
#include <QStringList>

namespace qutils
{

// Named constants for the application's style sheet. A constants file holds
// lines "CONSTANT_NAME = VALUE" ("//" starts a comment); values may refer to
// other constants, and apply() puts the resolved values in place of every
// whole-token occurrence of a name in a style sheet. Every error is a
// CException with code 1287.
class CStyleSheetsParser
{
public:
    using Constants = QMap<QString, QString>;

    CStyleSheetsParser() = default;

    // Reads the file whole and parses it. A missing or unreadable file is
    // logged and treated as empty text (no constants are added).
    void readConstants(const QString& filePath);

    // Adds the definitions of the text to the constants. All or nothing: when
    // a line is wrong, nothing of the text is kept.
    void parseConstants(const QString& text);

    void addConstant(const QString& name, const QString& value);
    void setConstant(const QString& name, const QString& value);
    const Constants& constants() const { return m_constants; }

    // The constants with every reference to another constant replaced;
    // throws "Constants circular dependence" when that cannot be done, and
    // "Constants expand beyond N characters" past MaxResolutionGrowth.
    Constants resolvedConstants() const;

    // Resolves the constants and substitutes them into the style sheet, in
    // name order.
    QString apply(const QString& styleSheet) const;

    // True for the twelve characters of "[ \t\n:;={}()]", the token
    // separators of both the constants and the style sheet.
    static bool isSeparator(QChar c);

    static bool isValidName(const QString& name);

    // Start index of the first whole-token occurrence of name in text at or
    // after from (from is taken as the start of a token), or -1.
    static int findConstant(const QString& text, const QString& name, int from = 0);

    // True when text holds a whole-token occurrence of any of the names.
    static bool containsAnyConstant(const QString& text, const QStringList& names);

    // Puts value in place of every whole-token occurrence of name. Inserted
    // values are not searched again, so a value may contain its own name.
    // With maxLength >= 0, a result longer than that throws "Constants expand
    // beyond N characters" instead of being built.
    static QString replaceConstant(const QString& text, const QString& name, const QString& value,
                                   qint64 maxLength = -1);

    // How far substitution may grow texts, in characters: resolution beyond the
    // constants' own length, apply() beyond the style sheet's. Constants that
    // refer to each other can otherwise name values that double at every step
    // ("B = A A", "C = B B", ...) and exhaust memory from a few lines.
    static constexpr qint64 MaxResolutionGrowth = 1 << 16;
    static constexpr qint64 MaxApplyGrowth = 1 << 18;

private:
    Constants m_constants;
};

} // namespace qutils
