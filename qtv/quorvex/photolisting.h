#pragma once

#include <QDir>
#include <QFileInfoList>
#include <QStringList>

#include <functional>

// The photo files Quorvex lists: JPEG, TIFF, BMP and PNG by name, in both cases.
QStringList photoNameFilters();

// True when the name matches one of the photo patterns (in any case, as the
// folder listing matches them).
bool isPhotoFileName(const QString& fileName);

// Lists the photo files of a folder (and of its subfolders when recursive), in
// the order the directory iterator gives them; hidden files are left out.
// cancelled is polled before each entry: a cancelled listing is empty.
// progress gets the running count.
QFileInfoList listPhotos(const QDir& dir, bool recursive, const std::function<bool()>& cancelled = nullptr,
                         const std::function<void(int)>& progress = nullptr);
