#pragma once

#include "fingerprint.h"
#include "fingerprintlibrary.h"

#include <QSet>
#include <QString>
#include <QStringList>

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <utility>
#include <vector>

// The headless integration mode: reads request lines, writes answer lines
// that begin with the answer marker. One request at a time; the fingerprints
// used by "match" are kept per file (the few most recent ones), and a path
// whose fingerprint failed to load keeps failing for the life of the server.
// "identify" keeps the library of the last folder it was asked about open
// while that folder's fingerprint files stay as they were.
class CIntegrationServer
{
public:
    using EStatus = qutils::CQuorvexAPI::EStatus;
    using Loader = std::function<std::shared_ptr<CFingerprint>(const QFileInfo&, EStatus*)>;

    // Bytes of a request line before its line feed (a CR before it not
    // counted). Longer lines are read in pieces, never whole, and answered
    // with "fatal"; a path is never near this long.
    static constexpr std::size_t MaxLineLength = 64 * 1024;
    // Loaded fingerprints kept at once; a file used again after this many
    // others is read again.
    static constexpr int CachedFingerprints = 8;

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
    std::string identifyAnswer(const QStringList& fields);
    std::shared_ptr<const CFingerprintLibrary> cachedLibrary(const QString& folder);
    std::string overlongAnswer(const std::string& start) const;
    std::shared_ptr<CFingerprint> cachedFingerprint(const QString& path);

    bool m_licenceActive;
    Loader m_loader;
    // Keyed by the canonical file path, so every spelling of one file (".",
    // "..", doubled separators, links) shares one entry; most recent first.
    std::vector<std::pair<QString, std::shared_ptr<CFingerprint>>> m_recent;
    // Paths whose load failed, both as received and canonical: they keep
    // failing without a new attempt, even after the file appears or is fixed.
    QSet<QString> m_failed;
    // The last library opened (null when it had no usable fingerprint), its
    // folder's canonical path and the stamp of its files then.
    QString m_libraryFolder;
    QByteArray m_libraryStamp;
    std::shared_ptr<const CFingerprintLibrary> m_library;
};
