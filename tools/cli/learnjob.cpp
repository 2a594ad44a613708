#include "learnjob.h"

#include "console.h"

namespace cli
{

CLearnJob::CLearnJob(const QFileInfoList& photos) : m_photos(photos) {}

CLearnJob::EStatus CLearnJob::run(const QFileInfo& target)
{
    m_reported = 0;
    m_engineCode = LUMICREST_OK;
    return CFingerprint::createFingerprint(
        m_photos, target,
        [this](int, float nmse, float seconds) {
            // The opening and closing calls carry no photo: both floats are zero only there.
            if (nmse != 0.0f || seconds != 0.0f)
                report(nmse);
        },
        &m_engineCode);
}

QString CLearnJob::photoLine(int number, int total, float nmse, const QString& path)
{
    // Four decimals while the estimate still moves visibly, then exponent form.
    const QString value = nmse >= 0.001f ? QString::number(nmse, 'f', 4) : QString::number(nmse, 'e', 2);
    const int width = QString::number(total).size();
    return QStringLiteral("photo %1/%2  NMSE %3  %4").arg(number, width).arg(total).arg(value, path);
}

void CLearnJob::report(float nmse)
{
    if (m_reported >= m_photos.size())
        return;
    ++m_reported;
    CConsole::out(photoLine(m_reported, m_photos.size(), nmse, m_photos.at(m_reported - 1).filePath()));
}

} // namespace cli
