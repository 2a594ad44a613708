#include "stylesheetmanager.h"

#include "qutils/debugutils.h"
#include "qutils/stylesheetsparser.h"

#include <QFile>
#include <QMutex>
#include <QMutexLocker>
#include <QRegularExpression>

#include <cmath>

namespace qcontrols
{

namespace
{

struct SState
{
    QMutex mutex;
    QString styleSheet;
    bool isSet = false;
};

SState& state()
{
    static SState s;
    return s;
}

// One length scaled; empty when the token is not a "<number>px" length.
QString scaleLength(const QString& token, double scale)
{
    static const QRegularExpression length(QStringLiteral("^([+-]?)(\\d+(?:\\.\\d*)?|\\.\\d+)px$"));
    const QRegularExpressionMatch match = length.match(token);
    if (!match.hasMatch())
        return QString();
    const double magnitude = match.captured(2).toDouble() * scale;
    long pixels = std::lround(magnitude);
    // A hairline border must not vanish on a small scale.
    if (pixels == 0 && magnitude > 0.0)
        pixels = 1;
    const bool negative = match.captured(1) == QLatin1String("-") && pixels != 0;
    return (negative ? QStringLiteral("-") : QString()) + QString::number(pixels) + QStringLiteral("px");
}

} // namespace

QString CStyleSheetManager::load(const QString& styleSheetPath, const QString& constantsPath, double scale)
{
    QString sheet;
    QFile file(styleSheetPath);
    if (file.open(QIODevice::ReadOnly | QIODevice::Text))
        sheet = QString::fromUtf8(file.readAll());
    else
        QX_WARNING << QStringLiteral("stylesheetmanager: cannot read style sheet \"%1\": %2")
                          .arg(styleSheetPath, file.errorString());

    if (!constantsPath.isEmpty())
    {
        qutils::CStyleSheetsParser parser;
        parser.readConstants(constantsPath);
        sheet = parser.apply(sheet);
    }

    // Sizes are scaled after the constants so that sizes defined by constants
    // are scaled too.
    sheet = scalePixelSizes(sheet, scale);
    setStyleSheet(sheet);
    return sheet;
}

QString CStyleSheetManager::styleSheet()
{
    SState& s = state();
    {
        QMutexLocker locker(&s.mutex);
        if (s.isSet)
            return s.styleSheet;
    }
    // Logged outside our lock: the record takes the logger's lock.
    QX_DEBUG << QStringLiteral("stylesheetmanager: style sheet requested before one was set");
    return QString();
}

void CStyleSheetManager::setStyleSheet(const QString& styleSheet)
{
    SState& s = state();
    QMutexLocker locker(&s.mutex);
    s.styleSheet = styleSheet;
    s.isSet = true;
}

bool CStyleSheetManager::hasStyleSheet()
{
    SState& s = state();
    QMutexLocker locker(&s.mutex);
    return s.isSet;
}

void CStyleSheetManager::clear()
{
    SState& s = state();
    QMutexLocker locker(&s.mutex);
    s.styleSheet.clear();
    s.isSet = false;
}

// Points (pt) already follow the screen's dots per inch, so only pixel
// lengths need the scale; the sheet is written for a 96 dpi screen at 1.0.
QString CStyleSheetManager::scalePixelSizes(const QString& styleSheet, double scale)
{
    if (!std::isfinite(scale) || scale <= 0.0)
    {
        QX_DEBUG << QStringLiteral("stylesheetmanager: ignoring invalid scale %1").arg(scale);
        return styleSheet;
    }
    if (qFuzzyCompare(scale, 1.0))
        return styleSheet;

    QString result;
    result.reserve(styleSheet.size());
    const int size = styleSheet.size();
    int pos = 0;
    while (pos < size)
    {
        if (qutils::CStyleSheetsParser::isSeparator(styleSheet.at(pos)))
        {
            result += styleSheet.at(pos++);
            continue;
        }
        const int start = pos;
        while (pos < size && !qutils::CStyleSheetsParser::isSeparator(styleSheet.at(pos)))
            ++pos;
        const QString token = styleSheet.mid(start, pos - start);
        const QString scaled = scaleLength(token, scale);
        result += scaled.isEmpty() ? token : scaled;
    }
    return result;
}

} // namespace qcontrols
