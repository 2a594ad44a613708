#pragma once

namespace htmltopdf
{

// SIGINT and SIGTERM (where they exist) only set a flag; the converter
// checks it between pages and winds down, so no half file is left behind.
void catchInterrupts();
bool interruptRequested();

} // namespace htmltopdf
