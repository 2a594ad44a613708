#include "exception.h"

namespace qutils
{

CException::CException(const QString& message, int code)
    : m_message(message), m_bytes(message.toUtf8()), m_code(code)
{
}

const char* CException::what() const noexcept
{
    return m_bytes.constData();
}

} // namespace qutils
