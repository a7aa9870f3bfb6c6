#include <time.h>

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/TimeUtils.h"

using SDK::InnerCpuCtrlUtils;

namespace {

double ClockSeconds(clockid_t clock)
{
    struct timespec ts {};
    clock_gettime(clock, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

struct Share {
    double cpu = 0;
    double wall = 0;
};

// A busy loop with a throttle point, as a scan has: runs until the thread has
// used `cpuSeconds` of CPU and reports the wall time that took.
Share BurnWithThrottle(double cpuSeconds)
{
    const double cpu0 = ClockSeconds(CLOCK_THREAD_CPUTIME_ID);
    const double wall0 = ClockSeconds(CLOCK_MONOTONIC);
    unsigned long last = 0;
    volatile unsigned long sink = 0;
    while (ClockSeconds(CLOCK_THREAD_CPUTIME_ID) - cpu0 < cpuSeconds) {
        for (int i = 0; i < 20000; ++i) {
            sink = sink + static_cast<unsigned long>(i) * 31;
        }
        if (InnerCpuCtrlUtils::IsEnabled()) {
            const unsigned long now = SDK::TimeUtils::GetCurrentSystemTickUsed();
            const unsigned long elapsed = now > last ? now - last : last - now;
            if (elapsed > InnerCpuCtrlUtils::GetSuggestedRunTick()) {
                InnerCpuCtrlUtils::AdjustThreadCpu(__FILE__, __LINE__, "cpu_test_task", now, elapsed);
                last = now;
            }
        }
    }
    return Share{ClockSeconds(CLOCK_THREAD_CPUTIME_ID) - cpu0, ClockSeconds(CLOCK_MONOTONIC) - wall0};
}

}  // namespace

// Two busy threads at a 10% limit: each is slowed to about a tenth of a
// core. Without the limiter a busy thread gets a whole core, and usually on a
// loaded two-core machine still over a fifth of one; the bound allows twice the
// limit because machines in CI are shared and noisy.
TEST(InnerCpuCtrlUtils, BusyThreadsAreHeldNearTheLimit)
{
    constexpr int kLimit = 10;
    constexpr double kCpuSeconds = 0.3;
    // Out of range switches the limiter off.
    for (int off : {0, -1, 101}) {
        InnerCpuCtrlUtils::SetCpuLimit(off);
        EXPECT_FALSE(InnerCpuCtrlUtils::IsEnabled()) << off;
    }
    InnerCpuCtrlUtils::SetCpuLimit(kLimit);
    EXPECT_EQ(kLimit, InnerCpuCtrlUtils::GetCpuLimit());
    std::vector<Share> shares(2);
    std::vector<std::thread> threads;
    for (auto& share : shares) {
        threads.emplace_back([&share] { share = BurnWithThrottle(kCpuSeconds); });
    }
    for (auto& t : threads) {
        t.join();
    }
    InnerCpuCtrlUtils::SetCpuLimit(0);
    for (const Share& s : shares) {
        EXPECT_GE(s.cpu, kCpuSeconds);
        EXPECT_LE(s.cpu / s.wall, 2.0 * kLimit / 100.0)
            << "cpu " << s.cpu << " s in " << s.wall << " s of wall time";
    }
}
