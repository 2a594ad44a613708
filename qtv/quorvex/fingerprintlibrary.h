#pragma once

#include "qutils/quorvexapi.h"

#include <QByteArray>
#include <QFileInfo>
#include <QList>
#include <QString>

#include <memory>

struct lumicrest_library_s;

// The fingerprint files of a folder and its subfolders, opened once as one
// library: "which of these cameras took this photo?". identify() may be
// called from many threads at once.
class CFingerprintLibrary
{
public:
    using EStatus = qutils::CQuorvexAPI::EStatus;
    using SAnalysisResult = qutils::CQuorvexAPI::SAnalysisResult;

    // One ".fnp" file of the folder and whether it takes part.
    struct SFile
    {
        QString path;   // absolute
        EStatus status; // Success, or why the file is left out
        QString reason; // the words for a file left out; empty otherwise
        int width = 0;  // of the camera's image, when the engine read it
        int height = 0;
    };

    // A fingerprint compared with the photo: matched, probability,
    // correlation, pce, scale and orientation in result (status Success).
    struct SCandidate
    {
        QString fingerprintPath;
        SAnalysisResult result;
    };

    // One photo against the library.
    struct SIdentification
    {
        // Fingerprints whose size the photo fits, so it was compared with them.
        int compared = 0;
        // The matching fingerprints, strongest first.
        QList<SCandidate> matches;
        // The strongest fingerprint that got the full comparison, matching or
        // not; hasBest is false when none did.
        bool hasBest = false;
        SCandidate best;
        // Success when the photo was compared; 22 with the reason when it fits
        // no fingerprint; the failure (a photo that cannot be read) otherwise.
        EStatus status = qutils::CQuorvexAPI::Invalid;
        QString reason;
        // Files whose fingerprint turned out damaged when it was loaded for
        // this photo: left out, not counted in compared.
        QStringList damaged;
    };

    // The ".fnp" files below folder (subfolders too), in natural order of
    // their path below it, links to files followed. Entries that are no
    // regular file come back in refused with the reason.
    static QStringList listFiles(const QString& folder, QList<SFile>* refused = nullptr);
    // Names, sizes and modification times of those files: it differs when
    // the library would open differently.
    static QByteArray folderStamp(const QString& folder);

    // Opens every ".fnp" file below folder. Null only when the folder cannot
    // be listed or the engine refuses the whole library (error says why); a
    // library whose files are all unusable is returned, with usableCount() 0.
    static std::shared_ptr<CFingerprintLibrary> open(const QString& folder, QString* error = nullptr);
    ~CFingerprintLibrary();
    CFingerprintLibrary(const CFingerprintLibrary&) = delete;
    CFingerprintLibrary& operator=(const CFingerprintLibrary&) = delete;

    QString folder() const { return m_folder; }
    // Every ".fnp" file found, usable or not, in listing order.
    const QList<SFile>& files() const { return m_files; }
    int usableCount() const;

    SIdentification identify(const QFileInfo& photo) const;

    // The identification for the engine's status and JSON answer about the
    // photo at preparedPath; paths are the library's files in the order given
    // to the engine.
    static SIdentification readAnswer(EStatus status, const QString& answer, const QString& preparedPath,
                                      const QStringList& paths);

private:
    CFingerprintLibrary() = default;

    QString m_folder;
    QList<SFile> m_files;
    QStringList m_enginePaths; // the files handed to the engine, by its index
    lumicrest_library_s* m_library = nullptr;
};
