#include "fuzzqtenvironment.h"

#include "fuzztempfile.h"

#include "qutils/debugutils.h"

#include <QCoreApplication>
#include <QDir>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace
{

// Removed at exit with its content; the application object is deliberately
// never destroyed, as Qt objects may still refer to it during static teardown.
std::unique_ptr<QTemporaryDir> s_workFolder;

} // namespace

void CFuzzQtEnvironment::setUp(int* argc, char*** argv)
{
    if (QCoreApplication::instance())
        return;
    QStandardPaths::setTestModeEnabled(true);
    new QCoreApplication(*argc, *argv);
    QCoreApplication::setApplicationName(QStringLiteral("QuorvexFuzz"));

    s_workFolder = std::make_unique<QTemporaryDir>(QString::fromStdString(CFuzzTempFile::scratchFolder()) +
                                                   QStringLiteral("/quorvex-fuzz-XXXXXX"));
    if (!s_workFolder->isValid())
    {
        std::fprintf(stderr, "fuzz: no throwaway folder\n");
        std::abort();
    }
    // The log goes to the throwaway folder, never where the fuzzer was
    // started; a small size limit keeps rotation in play.
    qutils::CLogger& logger = qutils::CLogger::instance();
    logger.setLogFile(QDir(s_workFolder->path()).filePath(QStringLiteral("fuzz.log")));
    logger.setMaxLogSize(1 << 20);
}

void CFuzzQtEnvironment::enterWorkFolder()
{
    if (!s_workFolder || !QDir::setCurrent(s_workFolder->path()))
    {
        std::fprintf(stderr, "fuzz: cannot enter the throwaway folder\n");
        std::abort();
    }
}

QString CFuzzQtEnvironment::workFolder()
{
    return s_workFolder ? s_workFolder->path() : QString();
}
