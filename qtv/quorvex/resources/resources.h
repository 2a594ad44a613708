#pragma once

#include <QString>

namespace quorvex
{

// Registers the compiled-in resources (":/Quorvex/..." and ":/qcontrols/...").
// They live in a static library, so every program or test that uses them calls
// this once before the first access; further calls do nothing.
void initResources();

// Paths of the application's style sheet and its constants in the resources.
QString styleSheetResourcePath();
QString styleConstantsResourcePath();

// The resolved value of one of the style's constants ("" when it is not
// defined), for what is painted by hand in the style's own colours.
QString styleConstant(const QString& name);

} // namespace quorvex
