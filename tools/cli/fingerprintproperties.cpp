#include "fingerprintproperties.h"

#include "fingerprint.h"

#include <QDateTime>

namespace cli
{

namespace
{

QString valueText(CFingerprint::EInfoType id, const QVariant& value)
{
    switch (id)
    {
    case CFingerprint::NMSE:
        return QString::number(value.toDouble(), 'g', 6);
    case CFingerprint::CreationDate:
        return value.toDateTime().toString(Qt::ISODate);
    default:
        return value.toString();
    }
}

} // namespace

QStringList propertyLines(const CFingerprint& fingerprint)
{
    const CFingerprint::Properties& properties = fingerprint.properties();
    int width = 0;
    for (auto it = properties.constBegin(); it != properties.constEnd(); ++it)
        width = qMax(width, CFingerprint::displayText(it.key()).size() + 1);
    QStringList lines;
    for (auto it = properties.constBegin(); it != properties.constEnd(); ++it)
    {
        const QString label = CFingerprint::displayText(it.key()) + QLatin1Char(':');
        const QString value = valueText(it.key(), it.value());
        lines.append(QStringLiteral("  %1 %2")
                         .arg(label, -width)
                         .arg(value.isEmpty() ? QStringLiteral("(none)") : value));
    }
    return lines;
}

QJsonObject propertyObject(const CFingerprint& fingerprint)
{
    const CFingerprint::Properties& properties = fingerprint.properties();
    QJsonObject object;
    for (auto it = properties.constBegin(); it != properties.constEnd(); ++it)
    {
        const QString key = CFingerprint::key(it.key());
        if (key.isEmpty())
            continue;
        switch (it.key())
        {
        case CFingerprint::Width:
        case CFingerprint::Height:
        case CFingerprint::TrainingImagesCount:
            object.insert(key, it.value().toInt());
            break;
        case CFingerprint::NMSE:
            object.insert(key, it.value().toDouble());
            break;
        default:
            object.insert(key, valueText(it.key(), it.value()));
            break;
        }
    }
    return object;
}

} // namespace cli
