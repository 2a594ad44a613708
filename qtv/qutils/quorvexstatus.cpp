// The status table of CQuorvexAPI: codes, keys and display texts, and the
// mapping from the engine's result values.
#include "quorvexapi.h"

#include "debugutils.h"

#include <QCoreApplication>
#include <QHash>
#include <QMap>

#include <mutex>

namespace qutils
{

namespace
{

struct SStatusEntry
{
    QString key;
    const char* text;
};

class CStatusTable
{
public:
    CStatusTable()
    {
        using S = CQuorvexAPI;
        add(S::Invalid, "Invalid", QT_TRANSLATE_NOOP("CQuorvexAPI", "Unknown error"));
        add(S::Success, "Success", QT_TRANSLATE_NOOP("CQuorvexAPI", "Success"));
        add(S::Fatal, "Fatal", QT_TRANSLATE_NOOP("CQuorvexAPI", "Fatal error"));
        add(S::CannotWriteToTempFolder, "CannotWriteToTempFolder",
            QT_TRANSLATE_NOOP("CQuorvexAPI", "Cannot write to temporary folder"));
        add(S::BrokenImage, "BrokenImage", QT_TRANSLATE_NOOP("CQuorvexAPI", "File cannot be opened"));
        add(S::BrokenMetadata, "BrokenMetadata",
            QT_TRANSLATE_NOOP("CQuorvexAPI", "Photo header contains incorrect length"));
        add(S::NotSupportedFormat, "NotSupportedFormat", QT_TRANSLATE_NOOP("CQuorvexAPI", "Photo format is not supported"));
        add(S::InconsistentMetadata, "InconsistentMetadata",
            QT_TRANSLATE_NOOP("CQuorvexAPI", "Photo metadata is inconsistent"));
        add(S::VariousResolution, "VariousResolution", QT_TRANSLATE_NOOP("CQuorvexAPI", "Photos have different size"));
        add(S::SmallResolution, "SmallResolution", QT_TRANSLATE_NOOP("CQuorvexAPI", "Photo has too small resolution"));
        add(S::LargeResolution, "LargeResolution", QT_TRANSLATE_NOOP("CQuorvexAPI", "Photo has too large resolution"));
        add(S::TooDarkForTrain, "TooDarkForTrain", QT_TRANSLATE_NOOP("CQuorvexAPI", "Photo is too dark for learning"));
        add(S::NoisyTrainImage, "NoisyTrainImage",
            QT_TRANSLATE_NOOP("CQuorvexAPI", "Photo has too much noise for learning"));
        add(S::TooMuchConstantColorAreas, "TooMuchConstantColorAreas",
            QT_TRANSLATE_NOOP("CQuorvexAPI", "Photo has too many constant color areas"));
        add(S::CannotStoreFingerprint, "CannotStoreFingerprint",
            QT_TRANSLATE_NOOP("CQuorvexAPI", "Unable to store fingerprint"));
        add(S::CannotOpenFingerprint, "CannotOpenFingerprint",
            QT_TRANSLATE_NOOP("CQuorvexAPI", "Unable to open fingerprint"));
        add(S::FingerprintFileBroken, "FingerprintFileBroken", QT_TRANSLATE_NOOP("CQuorvexAPI", "Fingerprint file is broken"));
        add(S::FingerprintUnsupportedVersion, "FingerprintUnsupportedVersion",
            QT_TRANSLATE_NOOP("CQuorvexAPI", "Unsupported version of fingerprint"));
        add(S::NotActivated, "NotActivated", QT_TRANSLATE_NOOP("CQuorvexAPI", "Quorvex is not activated"));
        add(S::NotInstalled, "NotInstalled", QT_TRANSLATE_NOOP("CQuorvexAPI", "Quorvex is not installed"));
        add(S::OneChannelImage, "OneChannelImage", QT_TRANSLATE_NOOP("CQuorvexAPI", "Photo has just one channel"));
        add(S::ImageNotJpg, "ImageNotJpg", QT_TRANSLATE_NOOP("CQuorvexAPI", "Photo is not a valid JPG file"));
        add(S::ImageFingerprintInconsistentSize, "ImageFingerprintInconsistentSize",
            QT_TRANSLATE_NOOP("CQuorvexAPI", "Size is incompatible with fingerprint"));
        add(S::DifferentDeviceType, "DifferentDeviceType", QT_TRANSLATE_NOOP("CQuorvexAPI", "Different camera type"));
        add(S::AnalysisFailed, "AnalysisFailed", QT_TRANSLATE_NOOP("CQuorvexAPI", "Analysis failed"));
        add(S::OverExposedForTrain, "OverExposedForTrain",
            QT_TRANSLATE_NOOP("CQuorvexAPI", "Photo is too bright for learning"));
        add(S::TooMuchTextureForTrain, "TooMuchTextureForTrain",
            QT_TRANSLATE_NOOP("CQuorvexAPI", "Photo contains too many textures for learning"));
        add(S::InconsistentImagesSize, "InconsistentImagesSize",
            QT_TRANSLATE_NOOP("CQuorvexAPI", "Photos have different size"));
        add(S::CannotCreateFingerprint, "CannotCreateFingerprint",
            QT_TRANSLATE_NOOP("CQuorvexAPI", "Unable to create fingerprint"));
    }

    const SStatusEntry* entry(CQuorvexAPI::EStatus status) const
    {
        const auto it = m_byCode.constFind(status);
        return it == m_byCode.constEnd() ? nullptr : &it.value();
    }

    bool find(const QString& key, CQuorvexAPI::EStatus* status) const
    {
        const auto it = m_byKey.constFind(key);
        if (it == m_byKey.constEnd())
            return false;
        *status = it.value();
        return true;
    }

private:
    void add(CQuorvexAPI::EStatus status, const char* key, const char* text)
    {
        const QString lower = QString::fromLatin1(key).toLower();
        m_byCode.insert(status, SStatusEntry{lower, text});
        m_byKey.insert(lower, status);
    }

    QMap<CQuorvexAPI::EStatus, SStatusEntry> m_byCode;
    QHash<QString, CQuorvexAPI::EStatus> m_byKey;
};

const CStatusTable& table()
{
    // Built once, on first use, then only read.
    static const CStatusTable s_table;
    return s_table;
}

} // namespace

const char* const CQuorvexAPI::AnswerMarker = "thisIsNotLibraryAnswer";

QString CQuorvexAPI::statusKey(EStatus status)
{
    const SStatusEntry* e = table().entry(status);
    return e ? e->key : QString();
}

QString CQuorvexAPI::statusText(EStatus status)
{
    const SStatusEntry* e = table().entry(status);
    return e ? QCoreApplication::translate("CQuorvexAPI", e->text) : QString();
}

CQuorvexAPI::EStatus CQuorvexAPI::statusFromKey(const QString& key, bool* ok)
{
    EStatus status = Invalid;
    const bool found = table().find(key, &status);
    if (ok)
        *ok = found;
    return found ? status : Invalid;
}

CQuorvexAPI::EStatus CQuorvexAPI::fromEngineCode(lumicrest_error_code code)
{
    switch (code)
    {
    case 200:
        return Success;
    case 410:
    case 412:
    case 440:
    case 490:
        return BrokenImage;
    case 430:
        return CannotStoreFingerprint;
    case 450:
        return CannotOpenFingerprint;
    case 491:
        return NotSupportedFormat;
    case 701:
        return VariousResolution;
    case 705:
        return InconsistentMetadata;
    case 715:
        return SmallResolution;
    case 720:
        return LargeResolution;
    case 730:
        return TooDarkForTrain;
    case 735:
        return NoisyTrainImage;
    case 740:
        return TooMuchConstantColorAreas;
    case 500:
    case 501:
    case 502:
    case 503:
    case 504:
    case 550:
    case 570:
    case 571:
    case 771:
    case 773:
    case 870:
    case 950:
    case 951:
    case 970:
    case 971:
    case 990:
    case 998:
    case 999:
        return Fatal;
    default:
        QX_WARNING << "Unknown engine result value " << code << ", taken as a fatal error";
        return Fatal;
    }
}

} // namespace qutils
