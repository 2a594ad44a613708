#include "jsonfields.h"

#include "resultformat.h"

#include <QJsonDocument>

#include <cmath>
#include <limits>

namespace cli
{

CJsonFields::CJsonFields(const QJsonObject& object, const QString& prefix)
    : m_object(object), m_prefix(prefix)
{
}

bool CJsonFields::parse(const QByteArray& line, QJsonObject* object, QString* error)
{
    if (line.size() > MaximumJsonLineBytes)
    {
        *error = QStringLiteral("the line is too long for a result line");
        return false;
    }
    QJsonParseError parseError{};
    const QJsonDocument document = QJsonDocument::fromJson(line, &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject())
    {
        *error = QStringLiteral("not a JSON object");
        return false;
    }
    *object = document.object();
    return true;
}

QJsonValue CJsonFields::value(const char* key) const
{
    return m_object.value(QLatin1String(key));
}

QString CJsonFields::text(const char* key, bool nullable)
{
    const QJsonValue v = value(key);
    if (!v.isString() && !(nullable && v.isNull()))
        addProblem(QLatin1String(key));
    return v.toString();
}

bool CJsonFields::flag(const char* key)
{
    const QJsonValue v = value(key);
    if (!v.isBool())
        addProblem(QLatin1String(key));
    return v.toBool();
}

double CJsonFields::number(const char* key)
{
    const QJsonValue v = value(key);
    if (v.isNull())
        return std::numeric_limits<double>::quiet_NaN();
    if (!v.isDouble())
        addProblem(QLatin1String(key));
    return v.toDouble();
}

int CJsonFields::whole(const char* key, int minimum)
{
    const QJsonValue v = value(key);
    const double d = v.toDouble(-1.0);
    if (!v.isDouble() || d != std::floor(d) || d < minimum || d > std::numeric_limits<int>::max())
    {
        addProblem(QLatin1String(key));
        return 0;
    }
    return static_cast<int>(d);
}

void CJsonFields::addProblem(const QString& key)
{
    const QString named = m_prefix + key;
    if (!m_problems.contains(named))
        m_problems << named;
}

void CJsonFields::addProblems(const QStringList& keys)
{
    for (const QString& key : keys)
        addProblem(key);
}

QString CJsonFields::problemText() const
{
    return m_problems.isEmpty()
               ? QString()
               : QStringLiteral("missing or wrong type: %1").arg(m_problems.join(QStringLiteral(", ")));
}

} // namespace cli
