#include "sdk/TimeUtils.h"

#include <time.h>

namespace SDK {

namespace {

int64_t ReadClockMs(clockid_t clock)
{
    struct timespec ts {};
    if (clock_gettime(clock, &ts) != 0) {
        return 0;
    }
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace

int64_t TimeUtils::GetCurrentTimestampS()
{
    return ReadClockMs(CLOCK_REALTIME) / 1000;
}

int64_t TimeUtils::GetCurrentTimestampMS()
{
    return ReadClockMs(CLOCK_REALTIME);
}

unsigned long TimeUtils::GetCurrentSystemTickUsed()
{
    return static_cast<unsigned long>(ReadClockMs(CLOCK_MONOTONIC));
}

}  // namespace SDK
