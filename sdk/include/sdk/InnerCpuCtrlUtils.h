#pragma once
// Process-wide CPU limiter for long loops. A loop calls AdjustThreadCpu at
// its throttle points; the calling thread then sleeps long enough that the
// CPU time it used over the elapsed window stays at the configured share of
// one core.

namespace SDK {

class InnerCpuCtrlUtils {
public:
    // percent of one core, 1..100; 0 (or anything out of range) switches it off.
    static void SetCpuLimit(int percent);
    static int GetCpuLimit();
    static bool IsEnabled();
    // Milliseconds a throttle point lets pass between two adjustments.
    static unsigned long GetSuggestedRunTick();
    // `now` and `elapsed` are monotonic milliseconds (TimeUtils); the thread's
    // own CPU time is read here. May sleep the calling thread.
    static void AdjustThreadCpu(const char* file, int line, const char* taskName,
                                unsigned long now, unsigned long elapsed);
};

}  // namespace SDK
