#include "fingerprint.h"

#include "qutils/debugutils.h"
#include "qutils/fileutils.h"
#include "qutils/tempfolder.h"

#include <QCoreApplication>
#include <QDataStream>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>

#include <cstdlib>
#include <vector>

#ifdef Q_OS_WIN
#include <windows.h>
#endif

using qutils::CQuorvexAPI;

namespace
{

struct SInfoEntry
{
    CFingerprint::EInfoType id;
    QString key;
    const char* text;
};

// Entered in this order; looked up by id.
const QList<SInfoEntry>& infoTable()
{
    static const QList<SInfoEntry> s_table = [] {
        using F = CFingerprint;
        const struct
        {
            F::EInfoType id;
            const char* key;
            const char* text;
        } rows[] = {
            {F::Invalid, "Invalid", QT_TRANSLATE_NOOP("InfoType", "invalid")},
            {F::Width, "Width", QT_TRANSLATE_NOOP("InfoType", "Photo width")},
            {F::Height, "Height", QT_TRANSLATE_NOOP("InfoType", "Photo height")},
            {F::Manufacturer, "Manufacturer", QT_TRANSLATE_NOOP("InfoType", "Camera manufacturer (EXIF)")},
            {F::Model, "Model", QT_TRANSLATE_NOOP("InfoType", "Camera model (EXIF)")},
            {F::TrainingImagesCount, "TrainingImagesCount", QT_TRANSLATE_NOOP("InfoType", "Number of reference photos")},
            {F::NMSE, "NMSE", QT_TRANSLATE_NOOP("InfoType", "Normalised mean square error (NMSE)")},
            {F::CreationDate, "CreationDate", QT_TRANSLATE_NOOP("InfoType", "Fingerprint created")},
            {F::Description, "Description", QT_TRANSLATE_NOOP("InfoType", "Fingerprint description")},
            {F::LensInfo, "LensInfo", QT_TRANSLATE_NOOP("InfoType", "Lens model (EXIF)")},
        };
        QList<SInfoEntry> table;
        for (const auto& row : rows)
            table.append(SInfoEntry{row.id, QString::fromLatin1(row.key).toLower(), row.text});
        return table;
    }();
    return s_table;
}

const SInfoEntry* infoEntry(CFingerprint::EInfoType id)
{
    for (const SInfoEntry& e : infoTable())
        if (e.id == id)
            return &e;
    return nullptr;
}

// The properties a file holds, in the order they are written.
const CFingerprint::EInfoType StoredProperties[] = {
    CFingerprint::Width,       CFingerprint::Height,      CFingerprint::TrainingImagesCount,
    CFingerprint::NMSE,        CFingerprint::Manufacturer, CFingerprint::Model,
    CFingerprint::Description, CFingerprint::LensInfo,    CFingerprint::CreationDate,
};

QVariant propertyFromText(CFingerprint::EInfoType id, const QString& text)
{
    switch (id)
    {
    case CFingerprint::Width:
    case CFingerprint::Height:
    case CFingerprint::TrainingImagesCount:
        return text.toInt(); // empty or malformed: 0
    case CFingerprint::NMSE:
        return text.toDouble();
    case CFingerprint::CreationDate: {
        QDateTime date = QDateTime::fromString(text, Qt::ISODateWithMs);
        if (!date.isValid())
            date = QDateTime::fromString(text, Qt::ISODate);
        return date;
    }
    default:
        return text;
    }
}

// Values of the engine's JSON are taken as text and converted, whatever JSON
// type they arrived as.
QString jsonText(const QJsonValue& value)
{
    return value.toVariant().toString();
}

// The engine's opening progress call is already made by createFingerprint,
// which promises its caller exactly one; this forwarder drops the engine's own.
thread_local CFingerprint::ProgressFunction t_progress = nullptr;
thread_local bool t_openingSeen = false;

void forwardProgress(int percent, float nmse, float seconds)
{
    if (!t_openingSeen && percent == 0 && nmse == 0.0f && seconds == 0.0f)
    {
        t_openingSeen = true;
        return;
    }
    if (t_progress)
        t_progress(percent, nmse, seconds);
}

void ignoreProgress(int) {}

void freeText(wchar_t* text)
{
    std::free(text);
}

} // namespace

CFingerprint::~CFingerprint() = default;

CFingerprint::CFingerprint(const Properties& properties, const QByteArray& bytes)
    : m_bytes(bytes), m_properties(properties)
{
    m_fingerprint.data = reinterpret_cast<unsigned char*>(m_bytes.data());
    m_fingerprint.size = m_bytes.size();
}

QString CFingerprint::key(EInfoType id)
{
    const SInfoEntry* e = infoEntry(id);
    return e ? e->key : QString();
}

QString CFingerprint::displayText(EInfoType id)
{
    const SInfoEntry* e = infoEntry(id);
    return e ? QCoreApplication::translate("InfoType", e->text) : QString();
}

QString CFingerprint::fileFilter()
{
    return QCoreApplication::translate("CFingerprint", "Fingerprint Files") + QStringLiteral(" (*.") +
           QStringLiteral("fnp") + QLatin1Char(')');
}

std::shared_ptr<CFingerprint> CFingerprint::load(const QFileInfo& file, EStatus* status)
{
    EStatus ignored = CQuorvexAPI::Success;
    EStatus& result = status ? *status : ignored;
    result = CQuorvexAPI::Success;

    QFile in(file.absoluteFilePath());
    if (!in.open(QIODevice::ReadOnly))
    {
        result = CQuorvexAPI::CannotOpenFingerprint;
        return nullptr;
    }
    QDataStream stream(&in);
    stream.setVersion(QDataStream::Qt_5_0);
    qint64 version = 0;
    stream >> version;
    if (version != FileVersion)
    {
        result = CQuorvexAPI::FingerprintUnsupportedVersion;
        return nullptr;
    }
    // No further checks: damaged bytes are the engine's to report when used.
    QByteArray metadata;
    QByteArray bytes;
    stream >> metadata >> bytes;

    Properties properties;
    const QJsonObject object = QJsonDocument::fromJson(metadata).object();
    for (EInfoType id : StoredProperties)
    {
        const QString name = key(id);
        if (object.contains(name))
            properties.insert(id, propertyFromText(id, jsonText(object.value(name))));
    }
    return std::shared_ptr<CFingerprint>(new CFingerprint(properties, bytes));
}

bool CFingerprint::save(const QFileInfo& file, const fingerprint_binary_s& fp) const
{
    QJsonObject object;
    for (EInfoType id : StoredProperties)
    {
        const QVariant value = m_properties.value(id);
        object.insert(key(id), value.isValid() ? value.toString() : QString());
    }

    // Written to a temporary file and renamed over the target on success, so a
    // failed save never destroys an existing fingerprint.
    QSaveFile out(file.absoluteFilePath());
    if (!qutils::outputTargetProblem(file.absoluteFilePath()).isEmpty() || !out.open(QIODevice::WriteOnly))
        return false;
    QDataStream stream(&out);
    stream.setVersion(QDataStream::Qt_5_0);
    stream << FileVersion << QJsonDocument(object).toJson(QJsonDocument::Compact)
           << QByteArray(reinterpret_cast<const char*>(fp.data), fp.data ? fp.size : 0);
    if (stream.status() != QDataStream::Ok)
    {
        out.cancelWriting();
        return false;
    }
    return out.commit();
}

void CFingerprint::readEngineMetadata(const fingerprint_binary_s& fp)
{
    // The engine describes a fingerprint only through its own file format.
    const qutils::CTempFolder folder;
    if (!folder.isValid())
    {
        QX_WARNING << "No temporary folder for the fingerprint's metadata";
        return;
    }
    const std::wstring path = QDir::toNativeSeparators(folder.filePath(QStringLiteral("fingerPrint"))).toStdWString();
    if (CQuorvexAPI::fromEngineCode(save_fingerprint_to_disk(&fp, path.c_str())) != CQuorvexAPI::Success)
        return;
    wchar_t* json = nullptr;
    const EStatus status = CQuorvexAPI::fromEngineCode(get_metadata_sensor_fingerprint(path.c_str(), &json));
    const QString text = json ? QString::fromWCharArray(json) : QString();
    freeText(json);
    if (status != CQuorvexAPI::Success)
        return;

    const QJsonObject object = QJsonDocument::fromJson(text.toUtf8()).object();
    const QJsonArray nmse = object.value(QStringLiteral("nmse")).toArray();
    setProperty(Width, jsonText(object.value(QStringLiteral("width"))).toInt(nullptr, 10));
    setProperty(Height, jsonText(object.value(QStringLiteral("height"))).toInt(nullptr, 10));
    setProperty(TrainingImagesCount, nmse.size());
    setProperty(Manufacturer, jsonText(object.value(QStringLiteral("make"))));
    setProperty(Model, jsonText(object.value(QStringLiteral("model"))));
    setProperty(CreationDate, QDateTime::currentDateTime());
    setProperty(NMSE, nmse.isEmpty() ? 0.0 : jsonText(nmse.last()).toDouble());
}

CFingerprint::EStatus CFingerprint::createFingerprint(const QFileInfoList& photos, const QFileInfo& target,
                                                      ProgressFunction progress, lumicrest_error_code* engineCode)
{
    std::vector<std::wstring> paths;
    paths.reserve(static_cast<size_t>(photos.size()));
    for (const QFileInfo& photo : photos)
        paths.push_back(photo.absoluteFilePath().toStdWString());
    std::vector<const wchar_t*> pointers;
    for (const std::wstring& p : paths)
        pointers.push_back(p.c_str());

    if (progress)
        progress(0, 0.0f, 0.0f);
    t_progress = progress;
    t_openingSeen = false;
    fingerprint_binary_s fp{};
    wchar_t* diagnostics = nullptr;
    wchar_t* warnings = nullptr;
    const lumicrest_error_code code = get_sensor_fingerprint(pointers.data(), static_cast<int>(pointers.size()), &fp,
                                                             &diagnostics, L"", true, &warnings, &forwardProgress);
    t_progress = nullptr;
    if (engineCode)
        *engineCode = code;
    const EStatus status = CQuorvexAPI::fromEngineCode(code);
    // The engine's own account names the photo and the measured values; the
    // user sees the status text, the log keeps the detail.
    if (status != CQuorvexAPI::Success && diagnostics)
        QX_WARNING << "Fingerprint creation failed: " << QString::fromWCharArray(diagnostics);
    if (warnings && *warnings)
        QX_INFO << "Fingerprint creation warnings: " << QString::fromWCharArray(warnings);
    freeText(diagnostics);
    freeText(warnings);

    if (status != CQuorvexAPI::Success)
    {
        release_fingerprint(&fp);
        return status;
    }

    QString lens;
    for (const QFileInfo& photo : photos)
    {
        qutils::EXIFInfo::Properties exif;
        if (!qutils::EXIFInfo::read(photo.absoluteFilePath(), exif))
            continue;
        lens = exif.value(qutils::EXIFMetadataProperty::LensInfo).value<qutils::EXIFInfo::LensInfo_t>().model;
        if (!lens.isEmpty())
            break;
    }
    if (lens.isEmpty())
        lens = QCoreApplication::translate("CFingerprint", "unknown");

    CFingerprint record;
    record.setProperty(LensInfo, lens);
    record.readEngineMetadata(fp);
    const bool saved = record.save(target, fp);
    release_fingerprint(&fp);
    return saved ? CQuorvexAPI::Success : CQuorvexAPI::CannotStoreFingerprint;
}

QString CFingerprint::preparedPath(const QFileInfo& photo)
{
    const QString path = photo.absoluteFilePath();
    if (path.isEmpty())
        return QString();
    if (!QFileInfo::exists(path))
    {
        QX_WARNING << "Photo does not exist: " << path;
        return path;
    }
    QString native = QDir::toNativeSeparators(path);
#ifdef Q_OS_WIN
    // Old engine builds cannot open paths beyond MAX_PATH; the short form fits.
    if (native.size() >= 251)
    {
        wchar_t buffer[32768];
        const DWORD n = GetShortPathNameW(reinterpret_cast<const wchar_t*>(native.utf16()), buffer, 32768);
        if (n > 0 && n < 32768)
            native = QString::fromWCharArray(buffer, static_cast<int>(n));
        if (native.size() >= 261)
            QX_WARNING << "Photo path too long even in its short form: " << native;
    }
#endif
    return native;
}

CFingerprint::SAnalysisResult CFingerprint::match(const QFileInfo& photo, bool skipDifferentCamera) const
{
    if (skipDifferentCamera)
    {
        qutils::EXIFInfo::Properties exif;
        if (qutils::EXIFInfo::read(photo.absoluteFilePath(), exif))
        {
            const QVariant make = exif.value(qutils::EXIFMetadataProperty::CameraManufacturer);
            const QVariant model = exif.value(qutils::EXIFMetadataProperty::CameraModel);
            if (property(Manufacturer) != make || property(Model) != model)
                return SAnalysisResult{false, 0.0, 0.0, CQuorvexAPI::InconsistentMetadata};
        }
    }

    const std::wstring path = preparedPath(photo).toStdWString();
    wchar_t* json = nullptr;
    const lumicrest_error_code code = match_device_origins(&m_fingerprint, path.c_str(), 2, &json, &ignoreProgress);
    SAnalysisResult result;
    result.status = CQuorvexAPI::fromEngineCode(code);
    const QString text = json ? QString::fromWCharArray(json) : QString();
    freeText(json);

    const QJsonObject answer = QJsonDocument::fromJson(text.toUtf8())
                                   .object()
                                   .value(QStringLiteral("sensors"))
                                   .toArray()
                                   .at(0)
                                   .toObject()
                                   .value(QStringLiteral("images"))
                                   .toArray()
                                   .at(0)
                                   .toObject()
                                   .value(QStringLiteral("result"))
                                   .toObject();
    result.matched = jsonText(answer.value(QStringLiteral("sensor_matched"))).toInt(nullptr, 10) == 1;
    result.probability = jsonText(answer.value(QStringLiteral("probability"))).toDouble();
    result.correlation = jsonText(answer.value(QStringLiteral("corr"))).toDouble();
    result.pce = jsonText(answer.value(QStringLiteral("pce"))).toDouble();
    return result;
}
