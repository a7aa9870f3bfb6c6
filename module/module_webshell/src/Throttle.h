#pragma once
// Throttle points: places in long loops where a scan cooperates with the
// agent's CPU limiter. Each point remembers its own last tick, shared by all
// tasks (relaxed atomics: the value only paces the limiter).

#include <atomic>
#include <string>

#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/TimeUtils.h"

namespace Engine {
namespace Detail {

inline void ThrottlePoint(std::atomic<unsigned long>& lastTick, const char* file, int line,
                          const std::string& taskName)
{
    if (!SDK::InnerCpuCtrlUtils::IsEnabled()) {
        return;
    }
    const unsigned long now = SDK::TimeUtils::GetCurrentSystemTickUsed();
    const unsigned long last = lastTick.load(std::memory_order_relaxed);
    const unsigned long elapsed = now >= last ? now - last : last - now;
    if (elapsed > SDK::InnerCpuCtrlUtils::GetSuggestedRunTick()) {
        SDK::InnerCpuCtrlUtils::AdjustThreadCpu(file, line, taskName.c_str(), now, elapsed);
        lastTick.store(now, std::memory_order_relaxed);
    }
}

}  // namespace Detail
}  // namespace Engine

// One throttle point with its own remembered tick.
#define WEBSHELL_THROTTLE_POINT(file, taskName)                                       \
    do {                                                                              \
        static std::atomic<unsigned long> s_throttleTick{0};                          \
        ::Engine::Detail::ThrottlePoint(s_throttleTick, (file), __LINE__, (taskName)); \
    } while (0)
