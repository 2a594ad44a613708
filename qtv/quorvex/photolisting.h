#pragma once

#include <QDir>
#include <QFileInfoList>
#include <QList>
#include <QStringList>

#include <functional>

// The photo files Quorvex lists: JPEG, TIFF, BMP and PNG by name, in both cases.
QStringList photoNameFilters();

// True when the name matches one of the photo patterns (in any case, as the
// folder listing matches them).
bool isPhotoFileName(const QString& fileName);

// A file with a photo's name that cannot be analysed, and why.
struct SRefusedFile
{
    QString path; // readable: bytes that are not valid UTF-8 shown as \xNN
    QString reason;
};

// Why the file at this exact byte path cannot be analysed (its name is not
// valid UTF-8, the path is too long, it is not a regular file), or an empty
// text when it can.
QString refusalReason(const QByteArray& path);

namespace qutils::platform
{
struct SFolderEntry;
}
// The same for an entry of a folder walk, whose kind is known without opening
// it: special files are never opened (opening a pipe would wait for a writer).
QString entryRefusalReason(const qutils::platform::SFolderEntry& entry);

// The path as text, each byte that is not part of valid UTF-8 written \xNN.
QString displayPath(const QByteArray& path);

// Sorts photos by their path below base in natural order, in the user's
// locale: "IMG_2" before "IMG_10". Equal names keep a repeatable order by
// their exact paths.
void sortPhotosNaturally(QFileInfoList& files, const QDir& base);

// Lists the photo files of a folder (and of its subfolders when recursive),
// sorted by sortPhotosNaturally; hidden files are left out.
// Entries with a photo's name that cannot be analysed go to refused (when
// given) with the reason, never silently away. cancelled is polled before
// each entry: a cancelled listing is empty. progress gets the running count.
QFileInfoList listPhotos(const QDir& dir, bool recursive, const std::function<bool()>& cancelled = nullptr,
                         const std::function<void(int)>& progress = nullptr,
                         QList<SRefusedFile>* refused = nullptr);
