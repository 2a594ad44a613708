#pragma once

#include <QString>
#include <QStringList>

namespace cli
{

enum class ECommand
{
    None,
    Help,
    Version,
    Learn,
    Analyze,
    Info,
    Demo,
    Validate,
    Merge,
    Identify,
};

// The exit codes scripts rely on.
enum EExitCode
{
    ExitDone = 0,
    ExitUsage = 1,
    ExitFailure = 2,
    ExitInterrupted = 130,
};

// The fewest reference photos a fingerprint is built from, and the most used.
constexpr int MinimumReferencePhotos = 3;
constexpr int MaximumReferencePhotos = 200;

// What the arguments ask for. error is set (and command is None) when they
// cannot be understood.
struct SCommandLine
{
    ECommand command = ECommand::None;
    QString error;

    QString fingerprintFile; // learn -o, analyze -f, info FILE
    QStringList paths;       // photos and folders, in the order given
    bool recursive = false;
    int limit = 0; // learn: 0 means no limit of the user's own
    bool skipDifferentCamera = false;
    int threads = 0;    // 0: every core
    QString jsonFile;   // analyze, merge and validate --json; "-" is standard output for analyze and merge
    QString csvFile;    // analyze and merge --csv
    QString reportFile; // analyze, merge and validate --report
    bool json = false;  // info --json
    QString outDir;     // demo --out
    bool variants = false; // validate --variants
    QString scaleSearch;   // analyze and validate --scale-search; empty: not given
    QString caseNumber;    // analyze --case, for the report
    QString examiner;      // analyze --examiner
    QString notes;         // analyze --notes
    int shardNumber = 1;   // --shard K/N: K, from 1
    int shardCount = 1;    // N; 1: the whole list
    QString libraryFolder; // identify --library
};

// Parses the arguments without the program's name. A --scale-search value is
// handed to the engine here, before any match can start.
SCommandLine parseCommandLine(const QStringList& arguments);

// The full help: every command and every option.
QString helpText();

// "quorvex-cli 2.0.0".
QString versionText();

} // namespace cli
