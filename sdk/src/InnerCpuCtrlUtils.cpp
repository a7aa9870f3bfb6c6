#include "sdk/InnerCpuCtrlUtils.h"

#include <time.h>

#include <atomic>
#include <cstdint>

#include <Poco/Thread.h>

#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"

namespace SDK {

namespace {

const char* const kSource = "sdk/src/InnerCpuCtrlUtils";

constexpr unsigned long kRunTickMs = 100;
// Windows shorter than this are too noisy to judge; they are extended.
constexpr int64_t kMinWindowNs = 20 * 1000 * 1000;
// One sleep never exceeds this: a thread that ran long between two throttle
// points has the rest of its debt forgiven instead of stalling for minutes.
constexpr int64_t kMaxSleepNs = 1000LL * 1000 * 1000;

std::atomic<int> g_limitPercent{0};

int64_t ClockNs(clockid_t clock)
{
    struct timespec ts {};
    if (clock_gettime(clock, &ts) != 0) {
        return -1;
    }
    return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

// The calling thread's measuring window: CPU and wall time at its start.
struct ThreadWindow {
    bool open = false;
    int64_t cpuNs = 0;
    int64_t wallNs = 0;
};

thread_local ThreadWindow t_window;

}  // namespace

void InnerCpuCtrlUtils::SetCpuLimit(int percent)
{
    g_limitPercent.store((percent >= 1 && percent <= 100) ? percent : 0,
                         std::memory_order_relaxed);
}

int InnerCpuCtrlUtils::GetCpuLimit()
{
    return g_limitPercent.load(std::memory_order_relaxed);
}

bool InnerCpuCtrlUtils::IsEnabled()
{
    return GetCpuLimit() > 0;
}

unsigned long InnerCpuCtrlUtils::GetSuggestedRunTick()
{
    return kRunTickMs;
}

void InnerCpuCtrlUtils::AdjustThreadCpu(const char* file, int line, const char* taskName,
                                        unsigned long now, unsigned long elapsed)
{
    (void)now;
    (void)elapsed;  // the thread's own window below is exact; these are shared ticks
    const int limit = GetCpuLimit();
    const int64_t cpu = ClockNs(CLOCK_THREAD_CPUTIME_ID);
    const int64_t wall = ClockNs(CLOCK_MONOTONIC);
    if (limit <= 0 || cpu < 0 || wall < 0) {
        t_window.open = false;
        return;
    }
    if (!t_window.open) {
        t_window = ThreadWindow{true, cpu, wall};
        return;
    }
    const int64_t usedCpu = cpu - t_window.cpuNs;
    const int64_t usedWall = wall - t_window.wallNs;
    if (usedWall < kMinWindowNs) {
        return;
    }
    // cpu / (wall + sleep) == limit / 100
    int64_t sleepNs = usedCpu * 100 / limit - usedWall;
    if (sleepNs > kMaxSleepNs) {
        sleepNs = kMaxSleepNs;
    }
    if (sleepNs >= 1000 * 1000) {
        const long sleepMs = static_cast<long>(sleepNs / 1000000);
        SDK_LOG(LoggerUtils::GetInstance()->GetRootLogger(), Poco::Message::PRIO_DEBUG, kSource,
                "CPU limit: task %s used %ld ms CPU in %ld ms at %s:%d, sleeping %ld ms to stay "
                "at %d%% of one core.",
                std::string(taskName != nullptr ? taskName : "?"),
                static_cast<long>(usedCpu / 1000000), static_cast<long>(usedWall / 1000000),
                std::string(file != nullptr ? file : "?"), line, sleepMs, limit);
        Poco::Thread::sleep(sleepMs);
    }
    // The next window starts now, after the sleep.
    t_window = ThreadWindow{true, ClockNs(CLOCK_THREAD_CPUTIME_ID), ClockNs(CLOCK_MONOTONIC)};
}

}  // namespace SDK
