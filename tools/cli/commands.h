#pragma once

#include "commandline.h"
#include "fingerprint.h"
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

// Learns from the photos into target and prints the fingerprint's properties;
// shared by 'learn' and 'demo'.
int learnFingerprint(const QFileInfoList& photos, const QString& target);

// Writes the PDF report of an analysis (every photo, in the order given);
// shared by 'analyze --report' and 'demo'.
int writeReport(const QList<SPhotoOutcome>& outcomes, const QString& fingerprintPath,
                const CFingerprint::Properties& properties, const QString& photosFolder, const QString& reportPath,
                const QString& caseNumber = QString(), const QString& examiner = QString(),
                const QString& notes = QString());

// The whole tool: parses the arguments and runs the command.
int runCli(const QStringList& arguments);

} // namespace cli
