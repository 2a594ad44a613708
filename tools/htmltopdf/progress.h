#pragma once

namespace htmltopdf
{

// "NN%" lines on standard output, flushed, for the calling program's
// progress bar. A line only when the figure grows.
class CProgress
{
public:
    void report(int percent);
    // Share done of a stage running from startPercent to endPercent.
    void report(int startPercent, int endPercent, int done, int total);

private:
    int m_last = -1;
};

} // namespace htmltopdf
