#include "logcapture.h"

#include "qutils/debugutils.h"

#include <QFile>
#include <QRegularExpression>

namespace testutils
{

CLogCapture::CLogCapture() : m_path(m_dir.filePath(QStringLiteral("capture.log")))
{
    qutils::CLogger::instance().setLogFile(m_path);
    qutils::CLogger::instance().setLevel(qutils::LogDebug);
    static int s_count = 0;
    QX_DEBUG << QStringLiteral("log capture %1 starts").arg(++s_count);
    m_start = QFile(m_path).size();
}

CLogCapture::~CLogCapture()
{
    qutils::CLogger::instance().setLevel(qutils::LogWarning);
    // Out of the folder before it is removed.
    qutils::CLogger::instance().setLogFile(m_dir.filePath(QStringLiteral("../quorvex-test-after-capture.log")));
}

QString CLogCapture::text() const
{
    QFile file(m_path);
    if (!file.open(QIODevice::ReadOnly) || !file.seek(m_start))
        return QString();
    return QString::fromUtf8(file.readAll());
}

bool CLogCapture::hasRecord(const QString& levelName, const QString& source) const
{
    const QRegularExpression pattern(QRegularExpression::escape(levelName) + QStringLiteral(" +\\S*") +
                                     QRegularExpression::escape(source) + QStringLiteral("\\("));
    return pattern.match(text()).hasMatch();
}

bool CLogCapture::hasSelfCheck(const QString& source) const
{
    return hasRecord(QStringLiteral("Debug"), source) && text().contains(QStringLiteral("Self-check failed"));
}

} // namespace testutils
