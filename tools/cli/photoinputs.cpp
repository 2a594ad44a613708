#include "photoinputs.h"

#include "console.h"
#include "photolisting.h"

#include <QDir>

#include <algorithm>

namespace cli
{

SPhotoInputs collectPhotos(const QStringList& paths, bool recursive)
{
    SPhotoInputs inputs;
    for (const QString& path : paths)
    {
        const QFileInfo info(path);
        if (info.isDir())
        {
            const QDir dir(path);
            QFileInfoList listed = listPhotos(dir, recursive);
            // The directory iterator's order depends on the file system; runs
            // must be repeatable, so sort by the path below the folder.
            std::sort(listed.begin(), listed.end(),
                      [&dir](const QFileInfo& a, const QFileInfo& b)
                      { return dir.relativeFilePath(a.filePath()) < dir.relativeFilePath(b.filePath()); });
            inputs.photos.append(listed);
        }
        else if (info.isFile())
        {
            if (isPhotoFileName(info.fileName()))
                inputs.photos.append(info);
            else
                inputs.skipped.append(path);
        }
        else
        {
            inputs.missing.append(path);
        }
    }
    return inputs;
}

bool reportInputProblems(const SPhotoInputs& inputs)
{
    for (const QString& path : inputs.missing)
        CConsole::error(QStringLiteral("no such file or folder: %1").arg(path));
    if (!inputs.missing.isEmpty())
        return false;
    for (const QString& path : inputs.skipped)
        CConsole::warning(QStringLiteral("skipping %1: not a JPEG, TIFF, BMP or PNG file name").arg(path));
    return true;
}

} // namespace cli
