#pragma once

#include "lumicrest.h"
#include "qutils/quorvexapi.h"

#include <QByteArray>
#include <QFileInfo>
#include <QJsonObject>
#include <QMap>
#include <QVariant>

#include <functional>
#include <memory>

// The program's fingerprint record: the engine's fingerprint bytes and a small
// table of metadata properties, read from and written to ".fnp" files. The
// only class that talks to the engine.
class CFingerprint
{
public:
    using EStatus = qutils::CQuorvexAPI::EStatus;
    using SAnalysisResult = qutils::CQuorvexAPI::SAnalysisResult;
    // Learning progress: (percent, nmse, seconds).
    using ProgressFunction = std::function<void(int, float, float)>;

    enum EInfoType : qint32
    {
        Invalid = 0,
        Width = 1,
        Height = 2,
        TrainingImagesCount = 3,
        NMSE = 4,
        Manufacturer = 5,
        Model = 6,
        Description = 7,
        LensInfo = 8,
        Path = 9, // only a row of the properties page, never stored
        CreationDate = 10,
    };
    using Properties = QMap<EInfoType, QVariant>;

    static constexpr qint64 FileVersion = 2;
    // Larger files are refused unread: the engine's bytes are at most 2 GiB.
    static constexpr qint64 MaxFileSize = qint64(1) << 31;

    virtual ~CFingerprint();
    // The engine struct points into the record's own bytes: never copied.
    CFingerprint(const CFingerprint&) = delete;
    CFingerprint& operator=(const CFingerprint&) = delete;

    // Reads a ".fnp" file. Status 1 Success, 15 CannotOpenFingerprint (cannot
    // be opened, or not a regular file), 16 FingerprintFileBroken (damaged:
    // container, engine bytes, or properties disagreeing with them) or 17
    // FingerprintUnsupportedVersion; null on failure.
    static std::shared_ptr<CFingerprint> load(const QFileInfo& file, EStatus* status);
    // Writes the properties and the given engine bytes. False only when the file
    // cannot be written; an existing file is replaced only by a complete new one.
    bool save(const QFileInfo& file, const fingerprint_binary_s& fp) const;

    // Learns a fingerprint from the photos and saves it to target. Photos given
    // twice are refused (28 CannotCreateFingerprint) before any learning.
    // engineCode, when given, receives the engine's own result value (550: out
    // of memory, which the status alone does not tell apart from other fatal errors).
    static EStatus createFingerprint(const QFileInfoList& photos, const QFileInfo& target,
                                     const ProgressFunction& progress,
                                     lumicrest_error_code* engineCode = nullptr);
    // The first photo that is given twice (the same file under another name, or
    // the same content), as a message naming both; empty when there is none.
    static QString duplicatePhotoMessage(const QFileInfoList& photos);
    // Why the fingerprint file could not be used, for a load that gave status:
    // one wording wherever a fingerprint fails to load.
    static QString loadErrorText(const QFileInfo& file, EStatus status);

    // Whether two EXIF cameras are the same, by the rule learning applies:
    // without case and outer blanks, and only as far as the fingerprint keeps
    // the text. True when it cannot be told (either make is empty).
    static bool sameCamera(const QString& makeA, const QString& modelA, const QString& makeB, const QString& modelB);

    // Matches one photo; safe from several threads at once. With
    // skipDifferentCamera, a photo whose EXIF camera differs from the
    // fingerprint's is refused without calling the engine.
    virtual SAnalysisResult match(const QFileInfo& photo, bool skipDifferentCamera) const;

    const fingerprint_binary_s& fingerprint() const { return m_fingerprint; }
    const Properties& properties() const { return m_properties; }
    QVariant property(EInfoType id) const { return m_properties.value(id); }
    void setProperty(EInfoType id, const QVariant& value) { m_properties.insert(id, value); }

    // The property table: lower-case key and translated display text.
    static QString key(EInfoType id);
    static QString displayText(EInfoType id);
    // "Fingerprint Files (*.fnp)" for file dialogs.
    static QString fileFilter();

    // The path as the engine gets it: native separators; long paths pass
    // unchanged where the system has no short form.
    static QString preparedPath(const QFileInfo& photo);
    // The match record from the engine's status and JSON answer for the photo
    // at preparedPath; a photo read but not compared becomes status 22.
    static SAnalysisResult readMatchAnswer(EStatus status, const QString& answer, const QString& preparedPath);
    // The numbers of one engine result object ("sensor_matched", "probability",
    // "corr", "pce", "scale", "orientation", "shift"), status Success.
    static SAnalysisResult readEngineResult(const QJsonObject& answer);
    // The engine's word for why it could not compare ("size") in an examiner's words.
    static QString notComparedReason(const QString& engineReason);
    // Sets the result's reason from the engine's and settles its status: the
    // file name the engine puts first is dropped, and a readable photo the
    // engine did not compare (a reason beside success) becomes status 22. One
    // mapping for matching one fingerprint and identifying against many.
    static void applyEngineReason(SAnalysisResult& result, const QString& engineReason, const QString& preparedPath);

protected:
    CFingerprint() = default;

private:
    // A record over bytes it owns (a loaded file).
    CFingerprint(const Properties& properties, QByteArray bytes);
    // Fills the metadata of a new record from the engine's header; the bytes
    // are written beside target for the engine to read.
    EStatus readEngineMetadata(const fingerprint_binary_s& fp, const QFileInfo& target);

    QByteArray m_bytes;
    fingerprint_binary_s m_fingerprint{};
    Properties m_properties;
};
