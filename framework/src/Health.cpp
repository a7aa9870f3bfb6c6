#include "framework/Health.h"

#include <map>

#include <Poco/Mutex.h>

#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"
#include "sdk/TimeUtils.h"

namespace Framework {

namespace {

struct Problem {
    Health::Severity severity;
    std::string reason;
    int64_t sinceMs;
};

Poco::FastMutex g_mutex;
std::map<std::string, Problem>& Problems()
{
    static std::map<std::string, Problem> problems;
    return problems;
}
std::string g_lastVerdict = "ok";
bool g_logChanges = true;

const char* Name(Health::Severity severity)
{
    return severity == Health::Severity::Failing ? "failing" : "degraded";
}

// Under g_mutex.
std::string VerdictLocked()
{
    int worst = 0;
    for (const auto& entry : Problems()) {
        worst = std::max(worst, static_cast<int>(entry.second.severity));
    }
    return worst == 0 ? "ok" : Name(static_cast<Health::Severity>(worst));
}

// Under g_mutex: logs once when the verdict changes.
void NoteChangeLocked()
{
    const std::string verdict = VerdictLocked();
    if (verdict == g_lastVerdict) {
        return;
    }
    if (!g_logChanges) {
        g_lastVerdict = verdict;
        return;
    }
    std::string reasons;
    for (const auto& entry : Problems()) {
        reasons += (reasons.empty() ? "" : "; ") + entry.first + ": " + entry.second.reason;
    }
    Poco::Logger* log = SDK::LoggerUtils::GetInstance()->GetModuleLogger("framework", false);
    if (verdict == "ok") {
        SDK_LOG(log, Poco::Message::PRIO_WARNING, "framework/src/Health", "Agent health is ok again (was %s)", g_lastVerdict);
    } else {
        SDK_LOG(log, Poco::Message::PRIO_WARNING, "framework/src/Health", "Agent health is %s (was %s): %s", verdict,
                g_lastVerdict, reasons);
    }
    g_lastVerdict = verdict;
}

}  // namespace

void Health::Raise(const std::string& key, Severity severity, const std::string& reason)
{
    Poco::FastMutex::ScopedLock lock(g_mutex);
    auto it = Problems().find(key);
    if (it == Problems().end()) {
        Problems()[key] = Problem{severity, reason, SDK::TimeUtils::GetCurrentTimestampMS()};
    } else {
        it->second.severity = severity;
        it->second.reason = reason;
    }
    NoteChangeLocked();
}

void Health::Clear(const std::string& key)
{
    Poco::FastMutex::ScopedLock lock(g_mutex);
    if (Problems().erase(key) != 0) {
        NoteChangeLocked();
    }
}

void Health::ClearPrefix(const std::string& prefix)
{
    Poco::FastMutex::ScopedLock lock(g_mutex);
    bool changed = false;
    for (auto it = Problems().begin(); it != Problems().end();) {
        if (it->first.compare(0, prefix.size(), prefix) == 0) {
            it = Problems().erase(it);
            changed = true;
        } else {
            ++it;
        }
    }
    if (changed) {
        NoteChangeLocked();
    }
}

void Health::LogVerdictChanges(bool on)
{
    Poco::FastMutex::ScopedLock lock(g_mutex);
    g_logChanges = on;
}

std::string Health::Verdict()
{
    Poco::FastMutex::ScopedLock lock(g_mutex);
    return VerdictLocked();
}

Json::Value Health::Render()
{
    Poco::FastMutex::ScopedLock lock(g_mutex);
    Json::Value out(Json::objectValue);
    out["verdict"] = VerdictLocked();
    out["reasons"] = Json::Value(Json::arrayValue);
    for (const auto& entry : Problems()) {
        Json::Value r(Json::objectValue);
        r["key"] = entry.first;
        r["severity"] = Name(entry.second.severity);
        r["reason"] = entry.second.reason;
        r["since_ms"] = static_cast<Json::Int64>(entry.second.sinceMs);
        out["reasons"].append(r);
    }
    return out;
}

}  // namespace Framework
