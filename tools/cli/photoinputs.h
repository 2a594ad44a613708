#pragma once

#include "photolisting.h"

#include <QFileInfoList>
#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

namespace cli
{

struct SPhotoInputs
{
    QFileInfoList photos;
    QStringList missing;         // paths that name neither a file nor a folder
    QStringList skipped;         // files given by name that are not photo files
    QList<SRefusedFile> refused; // photo files that cannot be analysed, with the reason
    // Each photo's position in the whole list (the photos, then the refused
    // files, as they are reported), and that list's length: a shard keeps
    // the positions its lines had in the whole run.
    QList<int> indexes;
    int total = 0;
};

// The photos of the PATHs in the order given: a file as it is, a folder's
// photo files sorted by their path below the folder (subfolders only when
// recursive). Paths keep the form they were given in.
SPhotoInputs collectPhotos(const QStringList& paths, bool recursive);

// Keeps one shard of the whole list so that several runs can share it: the
// entries at positions i with i mod count == number - 1 (number from 1 to
// count). Shard 1/1 is the whole list.
void keepShard(SPhotoInputs& inputs, int number, int count);

// Tells the user about missing, skipped and refused paths; false when any is missing.
bool reportInputProblems(const SPhotoInputs& inputs);

// The photos of a matching command: collected, problems told, then the shard
// kept (number of count; 1 of 1 keeps all). False, having said why, when
// paths are missing or nothing in them can be analyzed at all.
bool collectShard(const QStringList& paths, bool recursive, int number, int count, SPhotoInputs& inputs);
// " (shard 2/3 of 14)" for a shard of a larger run, empty for a whole run.
QString shardNote(int number, int count, int total);

// An output file option and its value.
using OutputOption = QPair<QString, QString>;

// Why the outputs cannot be written as asked (one of them is an input, two
// are the same file, or one would replace a device, pipe, socket or folder),
// or an empty text. Nothing has been written when this is checked.
QString outputProblem(const QList<OutputOption>& outputs, const QStringList& inputs);

} // namespace cli
