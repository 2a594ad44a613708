#include "photolisting.h"

#include "qutils/platform.h"

#include <QCollator>
#include <QCoreApplication>
#include <QFile>
#include <QLocale>
#include <QRegularExpression>
#include <QTextCodec>
#include <QVector>

#include <algorithm>

QStringList photoNameFilters()
{
    const QStringList lower = {QStringLiteral("*.jpg"),  QStringLiteral("*.jpeg"), QStringLiteral("*.jpe"),
                               QStringLiteral("*.tif"),  QStringLiteral("*.tiff"), QStringLiteral("*.bmp"),
                               QStringLiteral("*.png")};
    QStringList all = lower;
    for (const QString& pattern : lower)
        all.append(pattern.toUpper());
    return all;
}

bool isPhotoFileName(const QString& fileName)
{
    for (const QString& pattern : photoNameFilters())
        if (QRegularExpression(QRegularExpression::wildcardToRegularExpression(pattern),
                               QRegularExpression::CaseInsensitiveOption)
                .match(fileName)
                .hasMatch())
            return true;
    return false;
}

namespace
{

QString tr(const char* text)
{
    return QCoreApplication::translate("PhotoListing", text);
}

// Length of the valid UTF-8 sequence at i, or 0 when the bytes there are not one.
int utf8SequenceAt(const QByteArray& bytes, int i)
{
    const auto lead = static_cast<unsigned char>(bytes.at(i));
    const int length = lead < 0x80             ? 1
                       : (lead & 0xE0) == 0xC0 ? 2
                       : (lead & 0xF0) == 0xE0 ? 3
                       : (lead & 0xF8) == 0xF0 ? 4
                                               : 0;
    if (length <= 1 || i + length > bytes.size())
        return length == 1 ? 1 : 0;
    QTextCodec::ConverterState state(QTextCodec::ConvertInvalidToNull);
    QTextCodec::codecForName("UTF-8")->toUnicode(bytes.constData() + i, length, &state);
    return state.invalidChars == 0 && state.remainingChars == 0 ? length : 0;
}

} // namespace

QString displayPath(const QByteArray& path)
{
    QString text;
    for (int i = 0; i < path.size();)
    {
        const int length = utf8SequenceAt(path, i);
        if (length == 0)
        {
            text +=
                QStringLiteral("\\x%1").arg(static_cast<unsigned char>(path.at(i)), 2, 16, QLatin1Char('0'));
            ++i;
            continue;
        }
        text += QString::fromUtf8(path.constData() + i, length);
        i += length;
    }
    return text;
}

QString entryRefusalReason(const qutils::platform::SFolderEntry& entry)
{
    switch (entry.kind)
    {
    case qutils::platform::EEntryKind::Regular:
        return refusalReason(entry.path);
    case qutils::platform::EEntryKind::Broken:
        return tr("the file cannot be reached (a broken link, or no permission)");
    default:
        return tr("not a regular file (a device, pipe, socket or folder)");
    }
}

QString refusalReason(const QByteArray& path)
{
    // The engine and the file functions take the name as text and open its
    // UTF-8 form: a name that does not survive the round trip would open
    // another file, or none.
    const QString text = QFile::decodeName(path);
    if (text.toUtf8() != path || QFile::encodeName(text) != path)
        return tr("the file name is not valid UTF-8");
    // The engine opens the absolute path by name, so that is what must fit.
    if (QFile::encodeName(QFileInfo(text).absoluteFilePath()).size() >= qutils::platform::maxPathLength())
        return tr("the path is too long");
    const QFileInfo info(text);
    if (!info.exists())
        return info.isSymLink() ? tr("it is a link to nothing") : tr("the file does not exist");
    if (!info.isFile())
        return tr("not a regular file (a device, pipe, socket or folder)");
    return QString();
}

void sortPhotosNaturally(QFileInfoList& files, const QDir& base)
{
    // One collator per call: a collator is not to be shared between threads.
    // The C locale states no preference, and its collator compares code
    // points only, without numbers: English rules stand in for it.
    QLocale locale;
    if (locale.language() == QLocale::C)
        locale = QLocale(QLocale::English, QLocale::UnitedStates);
    QCollator collator(locale);
    collator.setNumericMode(true);
    collator.setCaseSensitivity(Qt::CaseInsensitive);
    QVector<QPair<QString, QFileInfo>> keyed;
    keyed.reserve(files.size());
    for (const QFileInfo& file : files)
        keyed.append({base.relativeFilePath(file.filePath()), file});
    std::stable_sort(keyed.begin(), keyed.end(), [&collator](const auto& a, const auto& b) {
        const int order = collator.compare(a.first, b.first);
        return order != 0 ? order < 0 : a.first < b.first;
    });
    for (int i = 0; i < keyed.size(); ++i)
        files[i] = keyed.at(i).second;
}

QFileInfoList listPhotos(const QDir& dir, bool recursive, const std::function<bool()>& cancelled,
                         const std::function<void(int)>& progress, QList<SRefusedFile>* refused)
{
    QFileInfoList files;
    QList<SRefusedFile> refusedHere;
    bool wasCancelled = false;
    qutils::platform::walkFolder(
        QFile::encodeName(dir.path()), recursive,
        [&](const qutils::platform::SFolderEntry& entry)
        {
            if (cancelled && cancelled())
            {
                wasCancelled = true;
                return false;
            }
            if (entry.kind == qutils::platform::EEntryKind::Directory)
                return true;
            const QString name = QFile::decodeName(entry.path.mid(entry.path.lastIndexOf('/') + 1));
            if (!isPhotoFileName(name))
                return true;
            const QString reason = entryRefusalReason(entry);
            if (!reason.isEmpty())
            {
                refusedHere.append({displayPath(entry.path), reason});
                return true;
            }
            files.append(QFileInfo(QFile::decodeName(entry.path)));
            if (progress)
                progress(files.size());
            return true;
        });
    if (wasCancelled)
        return QFileInfoList();
    if (refused)
        refused->append(refusedHere);
    // The directory iterator's order depends on the file system; people look
    // for photos by name.
    sortPhotosNaturally(files, dir);
    return files;
}
