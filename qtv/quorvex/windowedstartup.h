#pragma once

#include <QString>

class CInstanceLock;

// Takes the single-instance lock of the windowed mode; when another instance
// holds it, tells the user and answers false (the program then exits with 1).
bool acquireSingleInstance(CInstanceLock& lock, const QString& displayName);
