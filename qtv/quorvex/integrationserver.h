#pragma once

#include "fingerprint.h"

#include <QHash>
#include <QString>
#include <QStringList>

#include <functional>
#include <iosfwd>
#include <memory>
#include <string>

// The headless integration mode: reads request lines, writes answer lines
// that begin with the answer marker. One request at a time; fingerprints used
// by "match" are loaded once per path and kept for the life of the server.
class CIntegrationServer
{
public:
    using EStatus = qutils::CQuorvexAPI::EStatus;
    using Loader = std::function<std::shared_ptr<CFingerprint>(const QFileInfo&, EStatus*)>;

    // With licenceActive false the server only says so. The loader reads a
    // fingerprint file (tests give their own).
    explicit CIntegrationServer(bool licenceActive, Loader loader = &CFingerprint::load);

    // Greets, then answers the requests read from in until "quitQuorvex" or
    // the end of input. Every answer is flushed at once. Returns the exit code.
    int run(std::istream& in, std::ostream& out);

    // The answer line (without its line end) to one request line; empty for
    // requests that get no answer. "quitQuorvex" is run()'s to handle.
    std::string answerTo(const std::string& line);

    // Six significant digits, exponent form only below 1e-4 or from 1e6 on;
    // the same in every locale.
    static std::string formatNumber(double value);

private:
    std::string matchAnswer(const QStringList& fields);
    std::string fingerprintStatusAnswer(const QStringList& fields);
    std::shared_ptr<CFingerprint> cachedFingerprint(const QString& path);

    bool m_licenceActive;
    Loader m_loader;
    // Keyed by the path exactly as received; a failed load stays as null, so
    // the path keeps failing without a new attempt.
    QHash<QString, std::shared_ptr<CFingerprint>> m_cache;
};
