#pragma once

#include <QFileInfoList>
#include <QString>
#include <QStringList>

namespace cli
{

struct SPhotoInputs
{
    QFileInfoList photos;
    QStringList missing; // paths that name neither a file nor a folder
    QStringList skipped; // files given by name that are not photo files
};

// The photos of the PATHs in the order given: a file as it is, a folder's
// photo files sorted by their path below the folder (subfolders only when
// recursive). Paths keep the form they were given in.
SPhotoInputs collectPhotos(const QStringList& paths, bool recursive);

// Tells the user about missing and skipped paths; false when any is missing.
bool reportInputProblems(const SPhotoInputs& inputs);

} // namespace cli
