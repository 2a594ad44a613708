#pragma once

#include <QString>

// What the Qt-based fuzz targets share: one QCoreApplication for the process,
// standard locations in Qt's test mode (the user's real settings are never
// read or written), and a throwaway folder that holds the log. Set up once,
// from LLVMFuzzerInitialize; everything stays until the process ends.
class CFuzzQtEnvironment
{
public:
    static void setUp(int* argc, char*** argv);

    // The throwaway folder, removed at exit.
    static QString workFolder();

    // Makes the throwaway folder the working folder, so relative paths in an
    // input reach only what the target puts there. libFuzzer reads its corpus
    // and writes its findings after initialisation: give such a target
    // absolute paths.
    static void enterWorkFolder();
};
