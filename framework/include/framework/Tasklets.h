#pragma once
// Tasklets: actions a module offers on request (`ctl scan-now`, SIGUSR1).
// A long action runs on a worker thread; a request that arrives while the
// same tasklet runs is answered "already running", not queued. Tasklets run
// under the engine's control mutex, after the messages of on-demand tasks
// were handled.

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <Poco/Mutex.h>

namespace Framework {

class ModuleLoader;
class OnDemandTasks;

enum TaskletResult { TASKLET_DONE, TASKLET_STARTED, TASKLET_ALREADY_RUNNING, TASKLET_UNKNOWN };

class Tasklets {
public:
    Tasklets(ModuleLoader& modules, std::shared_ptr<OnDemandTasks> onDemand, Poco::Mutex& control)
        : m_modules(modules), m_onDemand(std::move(onDemand)), m_control(control) {}
    ~Tasklets() { WaitAll(); }

    // With `wait` false a long action runs on a worker thread (`result` 0).
    TaskletResult Invoke(const std::string& id, const std::string& argument, bool wait, int& result);
    // Every tasklet of every module (scan-now / SIGUSR1).
    std::vector<std::pair<std::string, TaskletResult>> InvokeAll(bool wait);
    void WaitAll();
    std::vector<std::string> Running();

private:
    struct Run {
        std::unique_ptr<std::thread> thread;
        std::shared_ptr<std::atomic<bool>> done;
    };
    void Reap();  // under m_mutex

    ModuleLoader& m_modules;
    std::shared_ptr<OnDemandTasks> m_onDemand;
    Poco::Mutex& m_control;
    Poco::FastMutex m_mutex;
    std::map<std::string, Run> m_runs;
};

}  // namespace Framework
