#pragma once

#include <cstdint>

namespace SDK {

class TimeUtils {
public:
    static int64_t GetCurrentTimestampS();   // wall clock, seconds since the epoch
    static int64_t GetCurrentTimestampMS();  // wall clock, milliseconds since the epoch
    static unsigned long GetCurrentSystemTickUsed();  // monotonic milliseconds
};

}  // namespace SDK
