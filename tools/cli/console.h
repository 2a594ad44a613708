#pragma once

#include <QString>

namespace cli
{

// Standard output carries results, standard error messages and progress.
// Everything is written from the main thread, UTF-8, flushed per line.
class CConsole
{
public:
    // A result line on standard output.
    static void out(const QString& line);
    // A message line on standard error.
    static void err(const QString& line);
    // "quorvex-cli: <message>" on standard error.
    static void error(const QString& message);
    static void warning(const QString& message);
    static void note(const QString& message);

    // Raw text on standard error, for the updating progress line.
    static void errRaw(const QString& text);

    static bool errIsTerminal();

    // True once a write to standard output failed (its reader has gone);
    // later result lines are dropped and the run must end as failed.
    static bool outFailed();
};

} // namespace cli
