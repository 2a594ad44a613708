#include "timing.h"

namespace lumicrest
{

StageTimes& threadStageTimes()
{
    thread_local StageTimes times;
    return times;
}

} // namespace lumicrest
