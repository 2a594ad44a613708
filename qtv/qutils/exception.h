#pragma once

#include <QByteArray>
#include <QString>

#include <exception>

namespace qutils
{

// The one exception type of the utility layer: a user-readable message and a
// system-style error code (1223 cancelled by the user, 1287 unidentified
// failure, 112 target full or not writable).
class CException : public std::exception
{
public:
    enum ECode
    {
        Cancelled = 1223,
        Unidentified = 1287,
        TargetFull = 112,
    };

    CException() = default;
    explicit CException(const QString& message, int code = Unidentified);

    const char* what() const noexcept override;
    const QString& message() const { return m_message; }
    int code() const { return m_code; }
    bool isEmpty() const { return m_message.isEmpty() && m_code == 0; }

private:
    QString m_message;
    QByteArray m_bytes;
    int m_code = 0;
};

} // namespace qutils
