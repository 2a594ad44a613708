// A stream of integration protocol requests, served by a fresh server per
// input through the same loop as standard input (line reading, the length
// cap, quitQuorvex). The server only reads files, but requests name arbitrary paths:
// the working folder is a throwaway one (see CFuzzQtEnvironment) holding a
// usable fingerprint "camera.fnp" and a photo "photo.jpg" of its camera, so
// relative paths in the seeds reach the real load and match, and the log
// goes there too. Being in that folder, this target needs absolute corpus
// and artifact paths when run under libFuzzer.

#include "fuzzqtenvironment.h"

#include "integrationserver.h"

#include <QDir>
#include <QFile>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

namespace
{

[[noreturn]] void broken(const std::string& what)
{
    std::fprintf(stderr, "fuzz_protocol: %s\n", what.c_str());
    std::abort();
}

void copyFixture(const char* name)
{
    const QString from = QDir(QStringLiteral(QUORVEX_FUZZ_FIXTURES_DIR)).filePath(QString::fromLatin1(name));
    if (!QFile::copy(from, QDir(CFuzzQtEnvironment::workFolder()).filePath(QString::fromLatin1(name))))
        broken(std::string("cannot copy the fixture ") + name);
}

// Paths a request could name that would block or never end when opened for
// reading (terminals, pipes, the process's own descriptors); the server is
// meant for regular files, and a fuzzer stuck on its own standard input
// finds nothing.
bool namesSpecialFile(const std::string& line)
{
    for (const char* prefix : {"/dev/", "/proc/", "/sys/", "/run/"})
        if (line.find(prefix) != std::string::npos)
            return true;
    return false;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    CFuzzQtEnvironment::setUp(argc, argv);
    CFuzzQtEnvironment::enterWorkFolder();
    copyFixture("camera.fnp");
    copyFixture("photo.jpg");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string input(reinterpret_cast<const char*>(data), size);
    if (namesSpecialFile(input))
        return 0;

    std::istringstream in(input);
    std::ostringstream out;
    CIntegrationServer server(true);
    if (server.run(in, out) != 0)
        broken("an exit code other than 0");
    // Every line written is an answer (the greeting first), whole on its line.
    std::istringstream answers(out.str());
    std::string answer;
    while (std::getline(answers, answer))
    {
        if (answer.rfind("thisIsNotLibraryAnswer;", 0) != 0)
            broken("an answer without the marker: " + answer);
        if (answer.find('\r') != std::string::npos)
            broken("an answer with a carriage return: " + answer);
    }
    if (!out.str().empty() && out.str().back() != '\n')
        broken("an answer without its line end");
    return 0;
}
