#include "photoinputs.h"

#include "console.h"

#include "qutils/fileutils.h"
#include "qutils/platform.h"

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
            QList<SRefusedFile> refused;
            // Listed in natural order by the path below the folder, as the gallery shows them.
            inputs.photos.append(listPhotos(dir, recursive, nullptr, nullptr, &refused));
            std::sort(refused.begin(), refused.end(),
                      [](const SRefusedFile& x, const SRefusedFile& y) { return x.path < y.path; });
            inputs.refused.append(refused);
        }
        else if (!isPhotoFileName(info.fileName()) && (info.exists() || info.isSymLink()))
        {
            inputs.skipped.append(path);
        }
        else if (info.exists() || info.isSymLink() ||
                 QFile::encodeName(path).size() >= qutils::platform::maxPathLength())
        {
            // Named, so it is there (or too long to tell): analysed or refused with the reason.
            const QString reason = refusalReason(QFile::encodeName(path));
            if (reason.isEmpty())
                inputs.photos.append(info);
            else
                inputs.refused.append({path, reason});
        }
        else
        {
            inputs.missing.append(path);
        }
    }
    inputs.total = inputs.photos.size() + inputs.refused.size();
    for (int i = 0; i < inputs.total; ++i)
        inputs.indexes.append(i);
    return inputs;
}

void keepShard(SPhotoInputs& inputs, int number, int count)
{
    QFileInfoList photos;
    QList<SRefusedFile> refused;
    QList<int> indexes;
    const int photoCount = inputs.photos.size();
    for (int i = 0; i < inputs.indexes.size(); ++i)
    {
        const int index = inputs.indexes.at(i);
        if (index % count != number - 1)
            continue;
        indexes.append(index);
        if (i < photoCount)
            photos.append(inputs.photos.at(i));
        else
            refused.append(inputs.refused.at(i - photoCount));
    }
    inputs.photos = photos;
    inputs.refused = refused;
    inputs.indexes = indexes;
}

bool collectShard(const QStringList& paths, bool recursive, int number, int count, SPhotoInputs& inputs)
{
    inputs = collectPhotos(paths, recursive);
    if (!reportInputProblems(inputs))
        return false;
    if (inputs.photos.isEmpty())
    {
        CConsole::error(inputs.refused.isEmpty() ? QStringLiteral("no photos found in the given paths")
                                                 : QStringLiteral("no photo in the given paths can be analyzed"));
        return false;
    }
    // A shard may be empty (more shards than photos): it runs and writes no line.
    keepShard(inputs, number, count);
    return true;
}

QString shardNote(int number, int count, int total)
{
    return count > 1 ? QStringLiteral(" (shard %1/%2 of %3)").arg(number).arg(count).arg(total) : QString();
}

bool reportInputProblems(const SPhotoInputs& inputs)
{
    for (const QString& path : inputs.missing)
        CConsole::error(QStringLiteral("no such file or folder: %1").arg(path));
    if (!inputs.missing.isEmpty())
        return false;
    for (const QString& path : inputs.skipped)
        CConsole::warning(QStringLiteral("skipping %1: not a JPEG, TIFF, BMP or PNG file name").arg(path));
    for (const SRefusedFile& file : inputs.refused)
        CConsole::warning(QStringLiteral("cannot analyze %1: %2").arg(file.path, file.reason));
    return true;
}

namespace
{

// An existing output is replaced only by a newer one of its own kind, so a
// mistyped option value ("--csv photo-01.jpg photo-02.jpg") cannot turn a
// photo, a fingerprint or someone's notes into our output.
bool holdsOwnKind(const QString& option, const QString& path)
{
    QFile file;
    if (!qutils::platform::openRegularFile(path, file))
        return true; // absent: nothing to lose
    const QByteArray head = file.read(16);
    if (head.isEmpty())
        return true;
    if (option == QLatin1String("--json"))
        return head.startsWith("{\"path\":") || head.startsWith("{\"fingerprint\":");
    if (option == QLatin1String("--csv"))
        return head.startsWith("path,");
    if (option == QLatin1String("--report"))
        return head.startsWith("%PDF-");
    return true; // learn -o checks its target as a fingerprint itself
}

} // namespace

QString outputProblem(const QList<OutputOption>& outputs, const QStringList& inputs)
{
    for (int i = 0; i < outputs.size(); ++i)
    {
        const QString& option = outputs.at(i).first;
        const QString& path = outputs.at(i).second;
        const QString problem = qutils::outputTargetProblem(path);
        if (!problem.isEmpty())
            return QStringLiteral("%1 %2: %3").arg(option, path, problem);
        for (const QString& input : inputs)
            if (qutils::isSameFile(path, input))
                return QStringLiteral("%1 %2 would overwrite the input %3").arg(option, path, input);
        for (int j = 0; j < i; ++j)
            if (qutils::isSameFile(path, outputs.at(j).second))
                return QStringLiteral("%1 and %2 cannot write to the same file %3")
                    .arg(outputs.at(j).first, option, path);
        if (!holdsOwnKind(option, path))
            return QStringLiteral("%1 %2: it exists and is not an earlier %1 output; refusing to replace it")
                .arg(option, path);
    }
    return QString();
}

} // namespace cli
