#include "fingerprintlibrary.h"

#include "fingerprint.h"
#include "photolisting.h"

#include "lumicrest_identify.h"

#include "qutils/debugutils.h"
#include "qutils/platform.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

using qutils::CQuorvexAPI;

namespace
{

QString tr(const char* text)
{
    return QCoreApplication::translate("CFingerprintLibrary", text);
}

QString takeText(wchar_t* text)
{
    const QString result = text ? QString::fromWCharArray(text) : QString();
    std::free(text);
    return result;
}

QString jsonText(const QJsonValue& value)
{
    return value.toVariant().toString();
}

bool isFingerprintName(const QByteArray& path)
{
    return path.right(4).toLower() == ".fnp";
}

} // namespace

QStringList CFingerprintLibrary::listFiles(const QString& folder, QList<SFile>* refused)
{
    QFileInfoList files;
    qutils::platform::walkFolder(
        QFile::encodeName(folder), true,
        [&](const qutils::platform::SFolderEntry& entry)
        {
            if (entry.kind == qutils::platform::EEntryKind::Directory || !isFingerprintName(entry.path))
                return true;
            const QString reason = entryRefusalReason(entry);
            if (reason.isEmpty())
                files.append(QFileInfo(QFile::decodeName(entry.path)));
            else if (refused)
                refused->append({displayPath(entry.path), CQuorvexAPI::CannotOpenFingerprint, reason});
            return true;
        });
    // Fingerprints are looked for by name, as photos are.
    sortPhotosNaturally(files, QDir(folder));
    QStringList paths;
    for (const QFileInfo& file : files)
        paths.append(file.absoluteFilePath());
    return paths;
}

QByteArray CFingerprintLibrary::folderStamp(const QString& folder)
{
    QList<SFile> refused;
    QByteArray stamp;
    for (const QString& path : listFiles(folder, &refused))
    {
        const QFileInfo file(path);
        stamp += QFile::encodeName(path) + '\0' + QByteArray::number(file.size()) + '\0' +
                 QByteArray::number(file.lastModified().toMSecsSinceEpoch()) + '\n';
    }
    for (const SFile& file : refused)
        stamp += file.path.toUtf8() + '\0' + '\n';
    return stamp;
}

std::shared_ptr<CFingerprintLibrary> CFingerprintLibrary::open(const QString& folder, QString* error)
{
    QString ignored;
    QString& why = error ? *error : ignored;
    const QFileInfo info(folder);
    if (!info.isDir())
    {
        why = info.exists() ? tr("not a folder") : tr("no such folder");
        return nullptr;
    }
    std::shared_ptr<CFingerprintLibrary> library(new CFingerprintLibrary);
    library->m_folder = info.absoluteFilePath();
    QList<SFile> refused;
    library->m_enginePaths = listFiles(library->m_folder, &refused);
    if (library->m_enginePaths.isEmpty())
    {
        if (refused.isEmpty())
        {
            why = tr("it holds no fingerprint file (.fnp)");
            return nullptr;
        }
        // Only unusable entries: each is named, and nothing is identified.
        library->m_files = refused;
        return library;
    }

    std::vector<std::wstring> paths;
    std::vector<const wchar_t*> pointers;
    for (const QString& path : qAsConst(library->m_enginePaths))
        paths.push_back(QDir::toNativeSeparators(path).toStdWString());
    for (const std::wstring& path : paths)
        pointers.push_back(path.c_str());
    wchar_t* json = nullptr;
    lumicrest_library_s* opened = nullptr;
    const lumicrest_error_code code = lumicrest_open_library(
        pointers.data(), static_cast<int>(pointers.size()), LUMICREST_LIBRARY_WRITE_DIGESTS, &opened, &json);
    const QString answer = takeText(json);
    if (code != 200 || !opened)
    {
        lumicrest_close_library(opened);
        QX_WARNING << "The engine refuses the library " << library->m_folder << ": " << static_cast<int>(code)
                   << " " << answer;
        why = CQuorvexAPI::statusText(CQuorvexAPI::fromEngineCode(code));
        return nullptr;
    }
    library->m_library = opened;

    const QJsonArray reports =
        QJsonDocument::fromJson(answer.toUtf8()).object().value(QStringLiteral("fingerprints")).toArray();
    for (int i = 0; i < library->m_enginePaths.size(); ++i)
    {
        SFile file{library->m_enginePaths.at(i), CQuorvexAPI::FingerprintFileBroken,
                   tr("the engine gave no account of it"), 0, 0};
        for (const QJsonValue& value : reports)
        {
            const QJsonObject report = value.toObject();
            if (jsonText(report.value(QStringLiteral("index"))).toInt() != i)
                continue;
            const int status = jsonText(report.value(QStringLiteral("status"))).toInt();
            file.width = jsonText(report.value(QStringLiteral("width"))).toInt();
            file.height = jsonText(report.value(QStringLiteral("height"))).toInt();
            // A file the engine can open but not use is damaged, whatever its code says about photos.
            file.status = status == 200   ? CQuorvexAPI::Success
                          : status == 410 ? CQuorvexAPI::CannotOpenFingerprint
                                          : CQuorvexAPI::FingerprintFileBroken;
            file.reason =
                file.status == CQuorvexAPI::Success ? QString() : CQuorvexAPI::statusText(file.status);
        }
        if (file.status != CQuorvexAPI::Success)
            QX_WARNING << "Fingerprint left out of the library: " << file.path << ": " << file.reason;
        library->m_files.append(file);
    }
    library->m_files.append(refused);
    return library;
}

CFingerprintLibrary::~CFingerprintLibrary()
{
    lumicrest_close_library(m_library);
}

int CFingerprintLibrary::usableCount() const
{
    int count = 0;
    for (const SFile& file : m_files)
        if (file.status == CQuorvexAPI::Success)
            ++count;
    return count;
}

CFingerprintLibrary::SIdentification CFingerprintLibrary::identify(const QFileInfo& photo) const
{
    const QString prepared = CFingerprint::preparedPath(photo);
    const std::wstring path = prepared.toStdWString();
    wchar_t* json = nullptr;
    const lumicrest_error_code code = lumicrest_identify(m_library, path.c_str(), &json);
    return readAnswer(CQuorvexAPI::fromEngineCode(code), takeText(json), prepared, m_enginePaths);
}

CFingerprintLibrary::SIdentification CFingerprintLibrary::readAnswer(EStatus status, const QString& answer,
                                                                     const QString& preparedPath,
                                                                     const QStringList& paths)
{
    const QJsonObject object = QJsonDocument::fromJson(answer.toUtf8()).object();
    SIdentification identification;
    identification.compared = qMax(0, jsonText(object.value(QStringLiteral("compared"))).toInt());
    for (const QJsonValue& value : object.value(QStringLiteral("failed")).toArray())
    {
        const int index = value.toInt(-1);
        if (index >= 0 && index < paths.size())
            identification.damaged.append(paths.at(index));
    }
    // The photo's own status, by the rule a single match follows.
    SAnalysisResult photo;
    photo.status = status;
    CFingerprint::applyEngineReason(photo, jsonText(object.value(QStringLiteral("reason"))), preparedPath);
    if (photo.status == CQuorvexAPI::Success && identification.compared == 0)
    {
        // Compared with nothing is never "no camera in the library".
        photo.status = CQuorvexAPI::ImageFingerprintInconsistentSize;
        photo.reason = tr("no fingerprint of the library could be compared with it");
    }
    identification.status = photo.status;
    identification.reason = photo.reason;
    if (identification.status != CQuorvexAPI::Success)
        return identification;

    // An entry that names no file of the library is dropped: a result is
    // never given to the wrong camera.
    const auto candidate = [&paths](const QJsonObject& entry, SCandidate* out)
    {
        bool ok = false;
        const int index = jsonText(entry.value(QStringLiteral("index"))).toInt(&ok);
        if (!ok || index < 0 || index >= paths.size())
            return false;
        out->fingerprintPath = paths.at(index);
        out->result = CFingerprint::readEngineResult(entry);
        return true;
    };
    for (const QJsonValue& value : object.value(QStringLiteral("matches")).toArray())
    {
        SCandidate match;
        if (candidate(value.toObject(), &match) && match.result.matched)
            identification.matches.append(match);
    }
    std::stable_sort(identification.matches.begin(), identification.matches.end(),
                     [](const SCandidate& a, const SCandidate& b) { return a.result.pce > b.result.pce; });
    const QJsonValue best = object.value(QStringLiteral("best"));
    if (best.isObject())
        identification.hasBest = candidate(best.toObject(), &identification.best);
    // The strongest match is the best candidate, whatever the answer says.
    if (!identification.matches.isEmpty())
    {
        identification.best = identification.matches.first();
        identification.hasBest = true;
    }
    return identification;
}
