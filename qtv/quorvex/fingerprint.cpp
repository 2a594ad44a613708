#include "fingerprint.h"

#include "qutils/debugutils.h"
#include "qutils/fileutils.h"
#include "qutils/platform.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDataStream>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>
#include <QSet>
#include <QTemporaryFile>
#include <QtEndian>

#include <cstdlib>
#include <vector>

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
    static const QList<SInfoEntry> s_table = []
    {
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
            {F::TrainingImagesCount, "TrainingImagesCount",
             QT_TRANSLATE_NOOP("InfoType", "Number of reference photos")},
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
    CFingerprint::Width,       CFingerprint::Height,       CFingerprint::TrainingImagesCount,
    CFingerprint::NMSE,        CFingerprint::Manufacturer, CFingerprint::Model,
    CFingerprint::Description, CFingerprint::LensInfo,     CFingerprint::CreationDate,
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
    case CFingerprint::CreationDate:
    {
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

// The member of the metadata object that guards the others; older files lack it.
const QString ChecksumKey = QStringLiteral("checksum");

// A SHA-256 over the stored properties' texts (each member's name, the length
// of its text and the text, so no two sets read alike) and the engine bytes.
// The engine bytes enter by their length and their CRC-32 trailer: the engine
// verifies that trailer against every byte on load and before every match, and
// hashing the 20 MB of a 10 MP fingerprint here would cost 0.2 s per load.
QString propertiesChecksum(const QStringList& texts, const QByteArray& engineBytes)
{
    QCryptographicHash hash(QCryptographicHash::Sha256);
    int i = 0;
    for (CFingerprint::EInfoType id : StoredProperties)
    {
        const QByteArray text = texts.value(i++).toUtf8();
        hash.addData(CFingerprint::key(id).toUtf8() + '\0' + QByteArray::number(text.size()) + ':' + text);
    }
    hash.addData(QByteArray::number(engineBytes.size()) + ':' + engineBytes.right(4));
    return QString::fromLatin1(hash.result().toHex());
}

// What the engine's own header says about a fingerprint.
struct SEngineHeader
{
    int width = 0;
    int height = 0;
    int photos = 0;
    double lastNmse = 0.0;
    QString make;
    QString model;
    quint32 crc = 0;
};

// Reads the header of a fingerprint file (the engine's bytes or a ".fnp" that
// holds them) through the engine, which verifies the bytes as it goes.
CFingerprint::EStatus readEngineHeader(const QString& path, SEngineHeader& header)
{
    const std::wstring native = QDir::toNativeSeparators(path).toStdWString();
    wchar_t* json = nullptr;
    const lumicrest_error_code code = get_metadata_sensor_fingerprint(native.c_str(), &json);
    const QString text = json ? QString::fromWCharArray(json) : QString();
    std::free(json);
    if (code != LUMICREST_OK)
    {
        QX_WARNING << "The engine cannot read the fingerprint " << path << ": " << QString::number(code);
        return CQuorvexAPI::fromEngineCode(code);
    }
    const QJsonObject object = QJsonDocument::fromJson(text.toUtf8()).object();
    const QJsonArray nmse = object.value(QStringLiteral("nmse")).toArray();
    header.width = jsonText(object.value(QStringLiteral("width"))).toInt(nullptr, 10);
    header.height = jsonText(object.value(QStringLiteral("height"))).toInt(nullptr, 10);
    header.photos = nmse.size();
    header.lastNmse = nmse.isEmpty() ? 0.0 : jsonText(nmse.last()).toDouble();
    header.make = jsonText(object.value(QStringLiteral("make")));
    header.model = jsonText(object.value(QStringLiteral("model")));
    header.crc = jsonText(object.value(QStringLiteral("crc32"))).toUInt(nullptr, 10);
    return CQuorvexAPI::Success;
}

// The fingerprint keeps at most this many UTF-8 bytes of a camera name, cut
// at a character boundary.
constexpr int MaxCameraTextBytes = 4096;

// A camera name as it is compared: up to the first NUL, cut where the
// fingerprint cuts it, ASCII case folded as the engine folds it, outer blanks gone.
QByteArray cameraKey(const QString& text)
{
    QByteArray bytes = text.toUtf8();
    const int nul = bytes.indexOf('\0');
    if (nul >= 0)
        bytes.truncate(nul);
    if (bytes.size() > MaxCameraTextBytes)
    {
        int n = MaxCameraTextBytes;
        while (n > 0 && (static_cast<uchar>(bytes.at(n)) & 0xC0) == 0x80)
            --n;
        bytes.truncate(n);
    }
    for (char& c : bytes)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return bytes.trimmed();
}

// A digest of a photo's content: of its first 64 KiB, or of all of it. Empty
// when the file is not a regular file or cannot be read.
QByteArray contentDigest(const QFileInfo& photo, bool whole)
{
    if (whole)
        return qutils::fileSha256(photo.absoluteFilePath()).toLatin1();
    QFile file;
    if (!qutils::platform::openRegularFile(photo.absoluteFilePath(), file))
        return QByteArray();
    QCryptographicHash hash(QCryptographicHash::Sha256);
    hash.addData(file.read(64 * 1024));
    return hash.result();
}

// The engine's progress callback is a plain function called on the learning
// thread, so the caller's function is found through a thread-local pointer;
// this is the program's only adapter. The engine's opening call is dropped:
// createFingerprint already made the one it promises its caller.
thread_local const CFingerprint::ProgressFunction* t_progress = nullptr;
thread_local bool t_openingSeen = false;

void forwardProgress(int percent, float nmse, float seconds)
{
    if (!t_openingSeen && percent == 0 && nmse == 0.0f && seconds == 0.0f)
    {
        t_openingSeen = true;
        return;
    }
    if (t_progress && *t_progress)
        (*t_progress)(percent, nmse, seconds);
}

void ignoreProgress(int) {}

void freeText(wchar_t* text)
{
    std::free(text);
}

} // namespace

CFingerprint::~CFingerprint() = default;

// The bytes are taken over, not shared: the engine needs a writable pointer,
// and a shared array would be copied whole to give one.
CFingerprint::CFingerprint(const Properties& properties, QByteArray bytes)
    : m_bytes(std::move(bytes)), m_properties(properties)
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

QString CFingerprint::loadErrorText(const QFileInfo& file, EStatus status)
{
    const char* why = nullptr;
    switch (status)
    {
    case CQuorvexAPI::CannotOpenFingerprint:
        why = !file.exists()  ? QT_TRANSLATE_NOOP("CFingerprint", "the file does not exist")
              : !file.isFile() ? QT_TRANSLATE_NOOP("CFingerprint", "it is not a regular file")
                               : QT_TRANSLATE_NOOP("CFingerprint", "the file cannot be opened for reading");
        break;
    case CQuorvexAPI::FingerprintFileBroken:
        why = QT_TRANSLATE_NOOP("CFingerprint", "the file is damaged or is not a fingerprint file");
        break;
    case CQuorvexAPI::FingerprintUnsupportedVersion:
        // Any file that is not a fingerprint usually fails here first.
        why = QT_TRANSLATE_NOOP("CFingerprint", "it is not a fingerprint file, or one in a format this version cannot read");
        break;
    default:
        break;
    }
    const QString reason = why ? QCoreApplication::translate("CFingerprint", why) : CQuorvexAPI::statusText(status);
    return QCoreApplication::translate("CFingerprint", "%1 cannot be used as a fingerprint: %2.")
        .arg(file.fileName(), reason);
}

std::shared_ptr<CFingerprint> CFingerprint::load(const QFileInfo& file, EStatus* status)
{
    EStatus ignored = CQuorvexAPI::Success;
    EStatus& result = status ? *status : ignored;
    result = CQuorvexAPI::Success;

    const QString path = file.absoluteFilePath();
    QFile in;
    if (!qutils::platform::openRegularFile(path, in))
    {
        result = CQuorvexAPI::CannotOpenFingerprint;
        return nullptr;
    }
    const auto broken = [&](const char* why)
    {
        QX_WARNING << "Fingerprint file " << path << " is broken: " << why;
        result = CQuorvexAPI::FingerprintFileBroken;
        return nullptr;
    };
    if (in.size() > MaxFileSize)
        return broken("larger than any fingerprint");
    QDataStream stream(&in);
    stream.setVersion(QDataStream::Qt_5_0);
    qint64 version = 0;
    stream >> version;
    if (stream.status() != QDataStream::Ok)
        return broken("shorter than its version");
    if (version != FileVersion)
    {
        result = CQuorvexAPI::FingerprintUnsupportedVersion;
        return nullptr;
    }
    QByteArray metadata;
    QByteArray bytes;
    stream >> metadata >> bytes;
    if (stream.status() != QDataStream::Ok || !stream.atEnd())
        return broken("its parts are incomplete or followed by other bytes");
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(metadata, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return broken("its metadata is not a JSON object");
    const QJsonObject object = document.object();
    QStringList texts;
    for (EInfoType id : StoredProperties)
        texts.append(jsonText(object.value(key(id))));
    if (object.contains(ChecksumKey) &&
        jsonText(object.value(ChecksumKey)) != propertiesChecksum(texts, bytes))
        return broken("its properties do not match their checksum");

    // The engine verifies its bytes (magic, version, length, checksum, values)
    // from the file itself: reading them from this copy would need a new
    // engine function or a temporary file per load. The CRC-32 it reports ties
    // its reading to this copy, whose trailer must carry the same value.
    SEngineHeader header;
    if (readEngineHeader(path, header) != CQuorvexAPI::Success)
        return broken("the engine refuses its fingerprint bytes");
    if (bytes.size() < 4 || header.crc != qFromLittleEndian<quint32>(bytes.constData() + bytes.size() - 4))
        return broken("it changed while it was read");

    Properties properties;
    int i = 0;
    for (EInfoType id : StoredProperties)
    {
        const QString& text = texts.at(i++);
        if (object.contains(key(id)))
            properties.insert(id, propertyFromText(id, text));
    }
    // Properties the engine's header also holds must agree with it. Left empty
    // they claim nothing and stay empty (shown as unknown).
    const QList<QPair<EInfoType, QVariant>> engineSays = {
        {Width, header.width},       {Height, header.height}, {TrainingImagesCount, header.photos},
        {Manufacturer, header.make}, {Model, header.model},
    };
    for (const auto& pair : engineSays)
    {
        if (!jsonText(object.value(key(pair.first))).isEmpty() &&
            properties.value(pair.first).toString() != pair.second.toString())
            return broken("its properties disagree with its fingerprint bytes");
    }
    return std::shared_ptr<CFingerprint>(new CFingerprint(properties, std::move(bytes)));
}

bool CFingerprint::save(const QFileInfo& file, const fingerprint_binary_s& fp) const
{
    QJsonObject object;
    QStringList texts;
    const QByteArray bytes =
        QByteArray::fromRawData(reinterpret_cast<const char*>(fp.data), fp.data ? fp.size : 0);
    for (EInfoType id : StoredProperties)
    {
        const QVariant value = m_properties.value(id);
        texts.append(value.isValid() ? value.toString() : QString());
        object.insert(key(id), texts.last());
    }
    object.insert(ChecksumKey, propertiesChecksum(texts, bytes));

    // Written to a temporary file and renamed over the target on success, so a
    // failed save never destroys an existing fingerprint.
    QSaveFile out(file.absoluteFilePath());
    if (!qutils::outputTargetProblem(file.absoluteFilePath()).isEmpty() || !out.open(QIODevice::WriteOnly))
        return false;
    QDataStream stream(&out);
    stream.setVersion(QDataStream::Qt_5_0);
    stream << FileVersion << QJsonDocument(object).toJson(QJsonDocument::Compact) << bytes;
    if (stream.status() != QDataStream::Ok)
    {
        out.cancelWriting();
        return false;
    }
    return out.commit();
}

CFingerprint::EStatus CFingerprint::readEngineMetadata(const fingerprint_binary_s& fp,
                                                       const QFileInfo& target)
{
    // The engine describes a fingerprint only from a file. It goes beside the
    // target, whose folder must be writable anyway (the temporary folder need
    // not be), and disappears with this object.
    QTemporaryFile file(target.absolutePath() + QStringLiteral("/.") + target.fileName() +
                        QStringLiteral(".XXXXXX"));
    if (!file.open() || file.write(reinterpret_cast<const char*>(fp.data), fp.size) != fp.size ||
        !file.flush())
    {
        QX_WARNING << "Cannot write the fingerprint beside " << target.absoluteFilePath() << ": "
                   << file.errorString();
        return CQuorvexAPI::CannotStoreFingerprint;
    }
    SEngineHeader header;
    const EStatus status = readEngineHeader(file.fileName(), header);
    if (status != CQuorvexAPI::Success)
        return status;
    setProperty(Width, header.width);
    setProperty(Height, header.height);
    setProperty(TrainingImagesCount, header.photos);
    setProperty(Manufacturer, header.make);
    setProperty(Model, header.model);
    setProperty(CreationDate, QDateTime::currentDateTime());
    setProperty(NMSE, header.lastNmse);
    return CQuorvexAPI::Success;
}

CFingerprint::EStatus CFingerprint::createFingerprint(const QFileInfoList& photos, const QFileInfo& target,
                                                      const ProgressFunction& progress,
                                                      lumicrest_error_code* engineCode)
{
    const QString duplicate = duplicatePhotoMessage(photos);
    if (!duplicate.isEmpty())
    {
        QX_WARNING << "Fingerprint creation refused: " << duplicate;
        return CQuorvexAPI::CannotCreateFingerprint;
    }
    std::vector<std::wstring> paths;
    paths.reserve(static_cast<size_t>(photos.size()));
    for (const QFileInfo& photo : photos)
        paths.push_back(photo.absoluteFilePath().toStdWString());
    std::vector<const wchar_t*> pointers;
    for (const std::wstring& p : paths)
        pointers.push_back(p.c_str());

    if (progress)
        progress(0, 0.0f, 0.0f);
    t_progress = &progress;
    t_openingSeen = false;
    fingerprint_binary_s fp{};
    wchar_t* diagnostics = nullptr;
    wchar_t* warnings = nullptr;
    const lumicrest_error_code code =
        get_sensor_fingerprint(pointers.data(), static_cast<int>(pointers.size()), &fp, &diagnostics, L"",
                               true, &warnings, &forwardProgress);
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

    // Never saved without the metadata: a fingerprint without its size, camera
    // and photo count would mislead every later use.
    CFingerprint record;
    record.setProperty(LensInfo, lens);
    EStatus saved = record.readEngineMetadata(fp, target);
    if (saved == CQuorvexAPI::Success && !record.save(target, fp))
        saved = CQuorvexAPI::CannotStoreFingerprint;
    release_fingerprint(&fp);
    return saved;
}

QString CFingerprint::duplicatePhotoMessage(const QFileInfoList& photos)
{
    const auto message = [&](int first, int second)
    {
        return QCoreApplication::translate(
                   "CFingerprint", "The reference photos %1 and %2 are the same photo. Each photo may be "
                                   "used only once.")
            .arg(QDir::toNativeSeparators(photos.at(first).filePath()),
                 QDir::toNativeSeparators(photos.at(second).filePath()));
    };
    // The same file under another spelling or through a link.
    QHash<QString, int> byPath;
    QHash<qint64, int> sizeCount;
    for (int i = 0; i < photos.size(); ++i)
    {
        const QString canonical = photos.at(i).canonicalFilePath();
        if (!canonical.isEmpty())
        {
            const auto it = byPath.constFind(canonical);
            if (it != byPath.constEnd())
                return message(it.value(), i);
            byPath.insert(canonical, i);
        }
        ++sizeCount[photos.at(i).size()];
    }
    // Copies and hard links: only files of one size can be equal; their heads
    // are compared first, so only look-alikes are read whole.
    QHash<QByteArray, int> byHead;
    QHash<QByteArray, int> byContent;
    QSet<int> readWhole;
    // Index of an earlier photo with the same content, or -1.
    const auto earlierCopy = [&](int i)
    {
        if (readWhole.contains(i))
            return -1;
        readWhole.insert(i);
        const QByteArray digest = contentDigest(photos.at(i), true);
        if (digest.isEmpty())
            return -1;
        const auto it = byContent.constFind(digest);
        if (it != byContent.constEnd())
            return it.value();
        byContent.insert(digest, i);
        return -1;
    };
    for (int i = 0; i < photos.size(); ++i)
    {
        // An empty file is no photo (the engine refuses it by name), so two are no copies.
        const qint64 size = photos.at(i).size();
        if (size == 0 || sizeCount.value(size) < 2)
            continue;
        const QByteArray head = contentDigest(photos.at(i), false);
        if (head.isEmpty())
            continue;
        const QByteArray headKey = QByteArray::number(size) + ':' + head;
        const auto it = byHead.constFind(headKey);
        if (it == byHead.constEnd())
        {
            byHead.insert(headKey, i);
            continue;
        }
        earlierCopy(it.value());
        const int copy = earlierCopy(i);
        if (copy >= 0)
            return message(copy, i);
    }
    return QString();
}

bool CFingerprint::sameCamera(const QString& makeA, const QString& modelA, const QString& makeB,
                              const QString& modelB)
{
    const QByteArray a = cameraKey(makeA);
    const QByteArray b = cameraKey(makeB);
    if (a.isEmpty() || b.isEmpty())
        return true;
    return a == b && cameraKey(modelA) == cameraKey(modelB);
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
    return qutils::platform::engineOpenablePath(QDir::toNativeSeparators(path));
}

QString CFingerprint::notComparedReason(const QString& engineReason)
{
    if (engineReason == QLatin1String("size"))
        return QCoreApplication::translate(
            "CFingerprint", "the photo's size fits the fingerprint at no orientation and scale tried");
    if (engineReason == QLatin1String("too small"))
        return QCoreApplication::translate("CFingerprint", "the photo is too small to compare");
    return engineReason;
}

CFingerprint::SAnalysisResult CFingerprint::match(const QFileInfo& photo, bool skipDifferentCamera) const
{
    if (skipDifferentCamera)
    {
        qutils::EXIFInfo::Properties exif;
        if (qutils::EXIFInfo::read(photo.absoluteFilePath(), exif))
        {
            const QString make = exif.value(qutils::EXIFMetadataProperty::CameraManufacturer).toString();
            const QString model = exif.value(qutils::EXIFMetadataProperty::CameraModel).toString();
            if (!sameCamera(property(Manufacturer).toString(), property(Model).toString(), make, model))
            {
                SAnalysisResult skipped{false, 0.0, 0.0, CQuorvexAPI::InconsistentMetadata};
                skipped.reason =
                    QCoreApplication::translate("CFingerprint",
                                                "the photo was taken with %1 %2, the fingerprint is of %3 %4")
                        .arg(make, model, property(Manufacturer).toString(), property(Model).toString());
                return skipped;
            }
        }
    }

    const QString prepared = preparedPath(photo);
    const std::wstring path = prepared.toStdWString();
    wchar_t* json = nullptr;
    const lumicrest_error_code code =
        match_device_origins(&m_fingerprint, path.c_str(), 2, &json, &ignoreProgress);
    const QString text = json ? QString::fromWCharArray(json) : QString();
    freeText(json);
    return readMatchAnswer(CQuorvexAPI::fromEngineCode(code), text, prepared);
}

CFingerprint::SAnalysisResult CFingerprint::readMatchAnswer(EStatus status, const QString& text,
                                                            const QString& preparedPath)
{
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
    SAnalysisResult result = readEngineResult(answer);
    result.status = status;
    applyEngineReason(result, jsonText(answer.value(QStringLiteral("reason"))), preparedPath);
    return result;
}

CFingerprint::SAnalysisResult CFingerprint::readEngineResult(const QJsonObject& answer)
{
    SAnalysisResult result;
    result.status = CQuorvexAPI::Success;
    result.matched = jsonText(answer.value(QStringLiteral("sensor_matched"))).toInt(nullptr, 10) == 1;
    result.probability = jsonText(answer.value(QStringLiteral("probability"))).toDouble();
    result.correlation = jsonText(answer.value(QStringLiteral("corr"))).toDouble();
    result.pce = jsonText(answer.value(QStringLiteral("pce"))).toDouble();
    // A missing or senseless scale is the fingerprint's own size.
    bool scaleRead = false;
    const double scale = jsonText(answer.value(QStringLiteral("scale"))).toDouble(&scaleRead);
    if (scaleRead && scale > 0.0)
        result.scale = scale;
    result.orientation = jsonText(answer.value(QStringLiteral("orientation"))).toInt(nullptr, 10);
    const QJsonArray shift = answer.value(QStringLiteral("shift")).toArray();
    result.shiftX = shift.at(0).toInt();
    result.shiftY = shift.at(1).toInt();
    return result;
}

void CFingerprint::applyEngineReason(SAnalysisResult& result, const QString& engineReason,
                                     const QString& preparedPath)
{
    // A failure's account, or why a readable photo could not be compared at
    // all ("size", "too small"): either way it is no verdict on the camera.
    // The engine names the file first; every place that shows the reason
    // shows the photo already.
    result.reason = engineReason;
    const QString named = preparedPath + QStringLiteral(": ");
    if (result.reason.startsWith(named))
        result.reason.remove(0, named.size());
    if (result.status == CQuorvexAPI::Success && !result.reason.isEmpty())
    {
        // Read but not compared: a finding of its own, never "no match".
        result.status = CQuorvexAPI::ImageFingerprintInconsistentSize;
        result.matched = false;
        result.reason = notComparedReason(result.reason);
    }
}
