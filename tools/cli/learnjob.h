#pragma once

#include "fingerprint.h"

#include <QFileInfoList>

namespace cli
{

// Learning a fingerprint with one line per reference photo on standard output
// as the engine reports it.
class CLearnJob
{
public:
    using EStatus = qutils::CQuorvexAPI::EStatus;

    explicit CLearnJob(const QFileInfoList& photos);

    // Learns and saves to target; runs on the calling thread.
    EStatus run(const QFileInfo& target);

    // Photos the engine reported as done; when it refuses one, the refused
    // photo is the first not reported.
    int reportedPhotos() const { return m_reported; }
    // The engine ran out of memory: the computer's fault, not the photo's.
    bool ranOutOfMemory() const { return m_engineCode == LUMICREST_OUT_OF_MEMORY; }

    // "photo 3/12  NMSE 0.0421  path".
    static QString photoLine(int number, int total, float nmse, const QString& path);

private:
    void report(float nmse);

    QFileInfoList m_photos;
    int m_reported = 0;
    lumicrest_error_code m_engineCode = LUMICREST_OK;
};

} // namespace cli
