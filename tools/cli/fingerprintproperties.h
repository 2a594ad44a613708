#pragma once

#include <QJsonObject>
#include <QStringList>

class CFingerprint;

namespace cli
{

// "Photo width:  1600" and so on, in the order of the property ids, the
// display texts aligned.
QStringList propertyLines(const CFingerprint& fingerprint);

// The properties under their keys: numbers as numbers, the date in ISO form.
QJsonObject propertyObject(const CFingerprint& fingerprint);

} // namespace cli
