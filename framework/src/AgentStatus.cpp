// Engine::Status: the figures of the whole agent for `ctl status`. Typed
// figures of the engine's parts are rendered here; components add theirs
// under "components" through the StatusBoard.

#include <unistd.h>

#include <set>

#include "framework/Engine.h"
#include "framework/Health.h"
#include "framework/StatusBoard.h"
#include "sdk/TimeUtils.h"

namespace Framework {

namespace {

const char* StateName(Poco::Task::TaskState state)
{
    switch (state) {
    case Poco::Task::TASK_IDLE:
        return "idle";
    case Poco::Task::TASK_STARTING:
        return "starting";
    case Poco::Task::TASK_RUNNING:
        return "running";
    case Poco::Task::TASK_CANCELLING:
        return "cancelling";
    case Poco::Task::TASK_FINISHED:
        return "finished";
    }
    return "unknown";
}

Json::Value RenderTask(Task& task)
{
    Json::Value t(Json::objectValue);
    t["name"] = task.GetTaskName();
    t["feature"] = task.GetFeatureName();
    t["type"] = TaskCondition::TypeName(task.GetTaskType());
    t["state"] = StateName(task.GetState());
    t["queue_depth"] = task.QueueDepth();
    t["dropped_messages"] = static_cast<Json::UInt64>(task.DroppedMessages());
    t["runs"] = static_cast<Json::UInt64>(task.RunCount());
    t["last_run_start_ms"] = static_cast<Json::Int64>(task.LastRunStartMs());
    t["last_run_end_ms"] = static_cast<Json::Int64>(task.LastRunEndMs());
    if (task.GetTaskType() == TaskCondition::TASK_TYPE_SCHEDULED) {
        t["schedule"] = task.GetCondition().Describe();
        t["next_fire_ms"] = static_cast<Json::Int64>(task.NextFireMs());
    }
    t["has_policy"] = task.GetFeaturePolicy() != nullptr;
    return t;
}

}  // namespace

void Engine::CheckHealth()
{
    if (!m_controlMutex.tryLock()) {
        return;
    }
    std::vector<std::pair<std::string, std::vector<std::string>>> modules;
    try {
        modules = m_modules.PolicyIdsByModule();
    } catch (...) {
        m_controlMutex.unlock();
        throw;
    }
    m_controlMutex.unlock();
    Poco::FastMutex::ScopedLock lock(m_healthMutex);
    std::set<std::string> applied;
    for (const auto& entry : m_policies.Current()) {
        applied.insert(entry.id);
    }
    std::set<std::string> keys;
    for (const auto& module : modules) {
        const std::string key = "framework.policy." + module.first;
        keys.insert(key);
        std::string ids;
        bool any = false;
        for (const auto& id : module.second) {
            any = any || applied.count(id) != 0;
            ids += (ids.empty() ? "" : ", ") + id;
        }
        if (any) {
            Health::Clear(key);
        } else {
            // Without its policy a feature module runs no pass and watches nothing.
            Health::Raise(key, Health::Severity::Failing,
                          "module " + module.first + " is loaded but no policy is applied to it (policy id " +
                              ids + ")");
        }
    }
    // A module unloaded since the last round leaves no stale reason behind.
    for (const auto& key : m_healthPolicyKeys) {
        if (keys.count(key) == 0) {
            Health::Clear(key);
        }
    }
    m_healthPolicyKeys = keys;
}

Json::Value Engine::Status()
{
    CheckHealth();
    Json::Value status(Json::objectValue);
    status["agent"]["pid"] = static_cast<int>(getpid());
    status["agent"]["install_dir"] = InstallDir();
    status["agent"]["uptime_s"] =
        static_cast<Json::Int64>((SDK::TimeUtils::GetCurrentTimestampMS() - m_startMs) / 1000);
    status["modules"] = Json::Value(Json::arrayValue);
    for (auto& name : m_modules.Names()) {
        status["modules"].append(name);
    }
    status["tasks"] = Json::Value(Json::arrayValue);
    for (auto& task : m_tasks.Tasks()) {
        status["tasks"].append(RenderTask(*task));
    }
    status["policies"] = Json::Value(Json::objectValue);
    for (const auto& entry : m_policies.Current()) {
        Json::Value& p = status["policies"][entry.id];
        if (entry.inForce) {
            p["feature"] = entry.feature;
            p["hash"] = entry.hash;
            p["enabled"] = entry.enabled;
        }
        if (!entry.rejected.empty()) {
            p["rejected"] = entry.rejected;
        }
    }
    status["tasklets_running"] = Json::Value(Json::arrayValue);
    for (auto& id : m_tasklets.Running()) {
        status["tasklets_running"].append(id);
    }
    status["health"] = Health::Render();
    status["verdict"] = status["health"]["verdict"];
    status["components"] = StatusBoard::Snapshot();
    return status;
}

}  // namespace Framework
