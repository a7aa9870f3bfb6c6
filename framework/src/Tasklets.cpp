#include "framework/Tasklets.h"

#include "framework/ModuleLoader.h"
#include "framework/TaskRegistry.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"

namespace Framework {

namespace {

const char* const kSource = "framework/src/Tasklets";

Poco::Logger* Log()
{
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("framework", false);
}

}  // namespace

void Tasklets::Reap()
{
    for (auto it = m_runs.begin(); it != m_runs.end();) {
        if (it->second.done->load()) {
            if (it->second.thread && it->second.thread->joinable()) {
                it->second.thread->join();
            }
            it = m_runs.erase(it);
        } else {
            ++it;
        }
    }
}

TaskletResult Tasklets::Invoke(const std::string& id, const std::string& argument, bool wait,
                               int& result)
{
    AbstractTaskletCallback* callback = m_modules.TaskletCallback(id);
    if (callback == nullptr) {
        return TASKLET_UNKNOWN;
    }
    auto done = std::make_shared<std::atomic<bool>>(false);
    {
        Poco::FastMutex::ScopedLock lock(m_mutex);
        Reap();
        if (m_runs.count(id) != 0) {
            SDK_LOG(Log(), Poco::Message::PRIO_NOTICE, kSource,
                    "Tasklet %s requested while it runs; answered 'already running', not queued", id);
            return TASKLET_ALREADY_RUNNING;
        }
        m_runs[id].done = done;
    }
    auto body = [this, id, argument, done]() -> int {
        int rc = -1;
        {
            Poco::Mutex::ScopedLock control(m_control);
            // Looked up again: the module may have gone while this waited.
            if (AbstractTaskletCallback* cb = m_modules.TaskletCallback(id)) {
                m_onDemand->HandlePending();
                SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "Tasklet %s started", id);
                try {
                    rc = cb->invoke(argument);
                } catch (const std::exception& e) {
                    SDK_LOG(Log(), Poco::Message::PRIO_ERROR, kSource, "Tasklet %s threw: %s", id,
                            std::string(e.what()));
                }
                SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource,
                        "Tasklet %s finished (result %d)", id, rc);
            }
        }
        done->store(true);
        return rc;
    };
    if (wait || !callback->IsLongAction()) {
        result = body();
        Poco::FastMutex::ScopedLock lock(m_mutex);
        Reap();
        return TASKLET_DONE;
    }
    Poco::FastMutex::ScopedLock lock(m_mutex);
    m_runs[id].thread = std::make_unique<std::thread>([body] { body(); });
    result = 0;
    return TASKLET_STARTED;
}

std::vector<std::pair<std::string, TaskletResult>> Tasklets::InvokeAll(bool wait)
{
    std::vector<std::pair<std::string, TaskletResult>> results;
    for (auto& id : m_modules.TaskletIds()) {
        int rc = 0;
        results.emplace_back(id, Invoke(id, "", wait, rc));
    }
    return results;
}

void Tasklets::WaitAll()
{
    std::map<std::string, Run> running;
    {
        Poco::FastMutex::ScopedLock lock(m_mutex);
        running.swap(m_runs);
    }
    for (auto& entry : running) {
        if (entry.second.thread && entry.second.thread->joinable()) {
            entry.second.thread->join();
        }
    }
}

std::vector<std::string> Tasklets::Running()
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    std::vector<std::string> ids;
    for (auto& entry : m_runs) {
        if (!entry.second.done->load()) {
            ids.push_back(entry.first);
        }
    }
    return ids;
}

}  // namespace Framework
