#pragma once

#include <QString>

#include <functional>

namespace testutils
{

// Runs the event loop until pred() is true or timeoutMs passes; returns pred().
// The default is generous: a loaded CI machine must not turn slowness into failure.
bool waitFor(const std::function<bool()>& pred, int timeoutMs = 30000);

// Reads a whole file as text ("" when it cannot be read).
QString readText(const QString& path);

} // namespace testutils
