#pragma once

#include "commandline.h"

#include <QFileInfoList>

namespace cli
{

// Each returns the process's exit code (EExitCode).
int runLearn(const SCommandLine& commandLine);
int runAnalyze(const SCommandLine& commandLine);
int runInfo(const SCommandLine& commandLine);
int runDemo(const SCommandLine& commandLine);

// Learns from the photos into target and prints the fingerprint's properties;
// shared by 'learn' and 'demo'.
int learnFingerprint(const QFileInfoList& photos, const QString& target);

// The whole tool: parses the arguments and runs the command.
int runCli(const QStringList& arguments);

} // namespace cli
