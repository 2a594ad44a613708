#pragma once

namespace htmltopdf
{

// SIGINT and SIGTERM (where they exist) stop the conversion with
// ExitInterrupted. Normally they only set a flag, checked between pages, so
// the converter can drop the output it is writing. While a
// CInterruptsEndAtOnce lives (nothing is open for writing: reading and
// layout, which Qt cannot break off), the handler ends the program at once.
void catchInterrupts();
bool interruptRequested();

class CInterruptsEndAtOnce
{
public:
    CInterruptsEndAtOnce();
    ~CInterruptsEndAtOnce();
    CInterruptsEndAtOnce(const CInterruptsEndAtOnce&) = delete;
    CInterruptsEndAtOnce& operator=(const CInterruptsEndAtOnce&) = delete;
};

} // namespace htmltopdf
