#pragma once

#include "commandline.h"
#include "fingerprint.h"
#include "fingerprintlibrary.h"
#include "resultformat.h"

#include <QFileInfoList>

namespace cli
{

// Each returns the process's exit code (EExitCode).
int runLearn(const SCommandLine& commandLine);
int runAnalyze(const SCommandLine& commandLine);
int runInfo(const SCommandLine& commandLine);
int runDemo(const SCommandLine& commandLine);
int runValidate(const SCommandLine& commandLine);
int runMerge(const SCommandLine& commandLine);
int runIdentify(const SCommandLine& commandLine);

// Learns from the photos into target and prints the fingerprint's properties;
// shared by 'learn' and 'demo'.
int learnFingerprint(const QFileInfoList& photos, const QString& target);

// Writes the PDF report of an analysis (every photo, in the order given);
// shared by 'analyze --report' and 'demo'.
int writeReport(const QList<SPhotoOutcome>& outcomes, const QString& fingerprintPath,
                const CFingerprint::Properties& properties, const QString& photosFolder, const QString& reportPath,
                const QString& caseNumber = QString(), const QString& examiner = QString(),
                const QString& notes = QString());

struct SIdentifiedPhoto;
// Writes the PDF report of an identification: the library, the method, a row
// per photo with its verdict.
int writeIdentifyReport(const QList<SIdentifiedPhoto>& photos, const CFingerprintLibrary& library,
                        const QString& reportPath, const QString& caseNumber, const QString& examiner,
                        const QString& notes);

// The whole tool: parses the arguments and runs the command.
int runCli(const QStringList& arguments);

} // namespace cli
