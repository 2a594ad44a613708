#pragma once

class QThread;

namespace qutils
{

// Debian's Qt 5 is not built for ThreadSanitizer, so it cannot see Qt's own
// synchronisation: that QThread::wait() has joined a thread, or that a
// blocking queued call has run. Everything on the far side would look racy
// with what follows (down to the reuse of freed memory). These calls make such
// hand-offs of ours visible to it; in other builds they cost nothing beyond
// the wait itself.

// Call once before the thread first starts; its last step then announces the end.
void announceThreadEnd(QThread* thread);
// Waits for the thread to end, then takes over everything it did.
void joinThread(QThread* thread);

// Everything this thread did before handOff(token) is seen as done before
// whatever another thread does after takeOver(token).
void handOff(const void* token);
void takeOver(const void* token);

} // namespace qutils
