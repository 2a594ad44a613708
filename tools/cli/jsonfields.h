#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>

namespace cli
{

// The values of one object of a result line by their types. Keys that are
// missing or of another type are collected, so a refused line names all of
// them at once.
class CJsonFields
{
public:
    // prefix names a nested object in the problems ("best.").
    explicit CJsonFields(const QJsonObject& object, const QString& prefix = QString());

    // The line as a JSON object, or why it is none (too long, not JSON).
    static bool parse(const QByteArray& line, QJsonObject* object, QString* error);

    QString text(const char* key, bool nullable = false);
    bool flag(const char* key);
    // Null stands for NaN or infinity, which JSON lacks.
    double number(const char* key);
    int whole(const char* key, int minimum);
    QJsonValue value(const char* key) const;

    void addProblem(const QString& key);
    void addProblems(const QStringList& keys);
    QStringList problems() const { return m_problems; }
    // "missing or wrong type: a, b", or empty.
    QString problemText() const;

private:
    QJsonObject m_object;
    QString m_prefix;
    QStringList m_problems;
};

} // namespace cli
