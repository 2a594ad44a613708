#pragma once

namespace htmltopdf
{

// The exit codes the calling program tells apart.
enum EExitCode
{
    ExitDone = 0,
    ExitUsage = 1,
    ExitOutputFailed = 2,
    ExitInputFailed = 3,
    // The caller's code for "stopped on request". POSIX keeps only the low
    // eight bits of an exit status (62097 & 0xFF == 145); Windows keeps it all.
    ExitInterrupted = 62097,
};

} // namespace htmltopdf
