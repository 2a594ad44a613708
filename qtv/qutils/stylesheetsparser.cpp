#include "stylesheetsparser.h"

#include "debugutils.h"
#include "exception.h"

#include <QFile>
#include <QSet>
#include <QRegularExpression>

namespace qutils
{

namespace
{

void insertNew(CStyleSheetsParser::Constants& constants, const QString& name, const QString& value)
{
    if (constants.contains(name))
        throw CException(QStringLiteral("Key already exists."), CException::Unidentified);
    constants.insert(name, value);
}

CException lineError(const QString& pattern, int line)
{
    return CException(pattern.arg(line), CException::Unidentified);
}

// True when a whole token of text is one of names. One pass over the text,
// whatever the number of names: resolution asks this of every pending value
// after every step.
bool containsAnyName(const QString& text, const QSet<QString>& names)
{
    const int size = text.size();
    int pos = 0;
    while (pos < size)
    {
        if (CStyleSheetsParser::isSeparator(text.at(pos)))
        {
            ++pos;
            continue;
        }
        const int start = pos;
        while (pos < size && !CStyleSheetsParser::isSeparator(text.at(pos)))
            ++pos;
        if (names.contains(text.mid(start, pos - start)))
            return true;
    }
    return false;
}

CException expansionError(qint64 maxLength)
{
    return CException(QStringLiteral("Constants expand beyond %1 characters").arg(maxLength),
                      CException::Unidentified);
}

} // namespace

void CStyleSheetsParser::readConstants(const QString& filePath)
{
    QFile file(filePath);
    QString text;
    // Text mode so that files saved with CR LF line ends give clean values.
    if (file.open(QIODevice::ReadOnly | QIODevice::Text))
        text = QString::fromUtf8(file.readAll());
    else
        QX_DEBUG << QStringLiteral("stylesheetsparser: cannot read constants file \"%1\": %2")
                        .arg(filePath, file.errorString());
    parseConstants(text);
}

void CStyleSheetsParser::parseConstants(const QString& text)
{
    if (text.isEmpty())
    {
        QX_DEBUG << QStringLiteral("stylesheetsparser: the constants text is empty");
        return;
    }

    // Parsed into a copy so that a failing text leaves the constants as they were.
    Constants parsed = m_constants;
    const QStringList lines = text.split(QLatin1Char('\n'));
    for (int lineNo = 0; lineNo < lines.size(); ++lineNo)
    {
        QString line = lines.at(lineNo);
        const int comment = line.indexOf(QLatin1String("//"));
        if (comment >= 0)
            line.truncate(comment);

        // Line numbers in the messages are zero-based; callers and existing
        // constants files are used to it.
        const int equals = line.indexOf(QLatin1Char('='));
        if (equals < 0)
        {
            if (line.trimmed().isEmpty())
                continue;
            throw lineError(QStringLiteral("Wrong syntax, line %1, CONSTANT_NAME = VALUE expected."), lineNo);
        }

        const QString name = line.left(equals).trimmed();
        // The value keeps its blanks; they are harmless in a style sheet.
        const QString value = line.mid(equals + 1);
        if (name.isEmpty())
            throw lineError(QStringLiteral("Empty constant name, line %1"), lineNo);
        if (!isValidName(name))
            throw lineError(QStringLiteral("Constant name is incorrect, line %1"), lineNo);
        insertNew(parsed, name, value);
    }
    m_constants.swap(parsed);
}

void CStyleSheetsParser::addConstant(const QString& name, const QString& value)
{
    insertNew(m_constants, name, value);
}

void CStyleSheetsParser::setConstant(const QString& name, const QString& value)
{
    const auto it = m_constants.find(name);
    if (it == m_constants.end())
        throw CException(QStringLiteral("Key does not exist."), CException::Unidentified);
    it.value() = value;
}

CStyleSheetsParser::Constants CStyleSheetsParser::resolvedConstants() const
{
    const QStringList keys = m_constants.keys();
    const QSet<QString> names(keys.cbegin(), keys.cend());
    Constants resolved;
    Constants pending;
    QStringList work;
    // Every value counts against one budget, so neither one long value nor
    // many medium ones can grow without end.
    qint64 total = 0;
    for (const QString& value : m_constants)
        total += value.size();
    const qint64 limit = total + MaxResolutionGrowth;
    for (auto it = m_constants.cbegin(); it != m_constants.cend(); ++it)
    {
        if (containsAnyName(it.value(), names))
        {
            pending.insert(it.key(), it.value());
        }
        else
        {
            resolved.insert(it.key(), it.value());
            work.append(it.key());
        }
    }

    // Each resolved constant is substituted into the pending values once; a
    // value free of names is resolved and feeds the work list in turn.
    while (!work.isEmpty())
    {
        const QString name = work.takeFirst();
        const QString value = resolved.value(name);
        for (auto it = pending.begin(); it != pending.end();)
        {
            const qint64 before = it.value().size();
            try
            {
                it.value() = replaceConstant(it.value(), name, value, limit - (total - before));
            }
            catch (const CException&)
            {
                throw expansionError(limit); // the budget, not what was left of it
            }
            total += it.value().size() - before;
            if (containsAnyName(it.value(), names))
            {
                ++it;
                continue;
            }
            resolved.insert(it.key(), it.value());
            work.append(it.key());
            it = pending.erase(it);
        }
    }

    // What is still pending refers to itself, to a cycle, or to something
    // that depends on a cycle.
    if (resolved.size() < m_constants.size())
        throw CException(QStringLiteral("Constants circular dependence"), CException::Unidentified);
    return resolved;
}

QString CStyleSheetsParser::apply(const QString& styleSheet) const
{
    const Constants resolved = resolvedConstants();
    const qint64 limit = styleSheet.size() + MaxApplyGrowth;
    // One pass, token by token: resolved values hold no names, so this equals
    // replacing the constants one after another, at a cost independent of
    // their number.
    QString result;
    result.reserve(styleSheet.size());
    const int size = styleSheet.size();
    int pos = 0;
    while (pos < size)
    {
        const int start = pos;
        const bool separators = isSeparator(styleSheet.at(pos));
        while (pos < size && isSeparator(styleSheet.at(pos)) == separators)
            ++pos;
        const QStringRef piece(&styleSheet, start, pos - start);
        const auto found = separators ? resolved.cend() : resolved.constFind(piece.toString());
        if (found == resolved.cend())
            result += piece;
        else
            result += found.value();
        if (result.size() > limit)
            throw expansionError(limit);
    }
    return result;
}

bool CStyleSheetsParser::isSeparator(QChar c)
{
    switch (c.unicode())
    {
    case '[':
    case ' ':
    case '\t':
    case '\n':
    case ':':
    case ';':
    case '=':
    case '{':
    case '}':
    case '(':
    case ')':
    case ']':
        return true;
    default:
        return false;
    }
}

bool CStyleSheetsParser::isValidName(const QString& name)
{
    static const QRegularExpression pattern(QStringLiteral("^[a-zA-Z_0-9]+$"));
    return pattern.match(name).hasMatch();
}

int CStyleSheetsParser::findConstant(const QString& text, const QString& name, int from)
{
    if (name.isEmpty())
        return -1;
    const int size = text.size();
    int pos = qMax(from, 0);
    while (pos < size)
    {
        if (isSeparator(text.at(pos)))
        {
            ++pos;
            continue;
        }
        const int start = pos;
        while (pos < size && !isSeparator(text.at(pos)))
            ++pos;
        // pos is now at a separator or at the end: the token is whole.
        if (pos - start == name.size() && QStringRef(&text, start, pos - start) == name)
            return start;
    }
    return -1;
}

bool CStyleSheetsParser::containsAnyConstant(const QString& text, const QStringList& names)
{
    return containsAnyName(text, QSet<QString>(names.cbegin(), names.cend()));
}

QString CStyleSheetsParser::replaceConstant(const QString& text, const QString& name, const QString& value,
                                            qint64 maxLength)
{
    if (name.isEmpty())
    {
        QX_DEBUG << QStringLiteral("stylesheetsparser: replacing an empty constant name");
        return text;
    }

    QString result;
    result.reserve(text.size());
    int from = 0;
    // Every search runs on the unchanged input, so inserted values are never
    // searched again.
    // The length is known before anything is appended, so an over-long
    // result is refused before it takes memory.
    qint64 length = text.size();
    for (int match = findConstant(text, name, from); match >= 0; match = findConstant(text, name, from))
    {
        length += value.size() - name.size();
        if (maxLength >= 0 && length > maxLength)
            throw expansionError(maxLength);
        result += QStringRef(&text, from, match - from);
        result += value;
        from = match + name.size();
    }
    result += QStringRef(&text, from, text.size() - from);
    return result;
}

} // namespace qutils
