#pragma once

// A page of the main window that may be running long work (a learn screen, an
// analysis). The main window asks before closing over it and waits for it.
class CWorkingPage
{
public:
    virtual ~CWorkingPage() = default;
    // Safe to call from any thread: the close guard's waiter polls it.
    virtual bool isWorking() const = 0;
    // Asks the work to stop early (an analysis is cancelled; learning runs to its end).
    virtual void cancelWork() {}
};
