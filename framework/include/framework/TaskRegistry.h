#pragma once
// The registered tasks of one engine: registration, their threads, and
// routing by name. A task of type 1 or 4 starts on its own thread, which
// calls its Init first and its UnInit last; a task of type 3 gets both on
// the caller's thread. Unregistering cancels, wakes, joins and releases.

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/Mutex.h>
#include <Poco/Thread.h>

#include "framework/Mailbox.h"
#include "framework/Message.h"
#include "framework/Task.h"

namespace Framework {

class Module;

// On-demand tasks enrolled by their Init. Their messages are handled by
// HandlePending, which callers run under the engine's control mutex (where
// no tasklet or policy callback can be running them, and no module deletes
// them); CancelAll marks them cancelling at shutdown so a running scan ends
// early.
class OnDemandTasks : public std::enable_shared_from_this<OnDemandTasks> {
public:
    void Enrol(Task* task);
    void Withdraw(Task* task);
    void HandlePending();
    void CancelAll();

private:
    Poco::FastMutex m_mutex;
    std::vector<Task*> m_tasks;
};

class TaskRegistry {
public:
    TaskRegistry();
    ~TaskRegistry();
    TaskRegistry(const TaskRegistry&) = delete;
    TaskRegistry& operator=(const TaskRegistry&) = delete;

    // Takes a reference. 0, or -1 for a null task or a name registered already.
    int Register(Task* task, Module* owner);
    // 1 when a registered task was stopped and removed, 0 otherwise.
    int UnRegister(const std::string& name);
    // Unregisters every task `owner` registered; returns how many.
    int UnRegisterOwnedBy(Module* owner);
    int UnRegisterAll();

    Task* Find(const std::string& name);
    std::vector<std::string> Names();
    std::vector<Poco::AutoPtr<Task>> Tasks();

    // Routing by name onto the task's mailbox. false (dropped, rate-limited
    // warning) for an unknown name or a full queue.
    bool Send(const std::string& target, const std::shared_ptr<Message>& msg);

    // While held, scheduled tasks registered from now on never fire.
    void HoldSchedules(bool held) { m_holdSchedules.store(held); }

    const std::shared_ptr<OnDemandTasks>& OnDemand() const { return m_onDemand; }
    // Shutdown: every registered and enrolled task is marked cancelling, so
    // long loops (a scan in progress) stop early.
    void CancelAll();

private:
    struct Registered {
        Poco::AutoPtr<Task> task;
        Module* owner = nullptr;
        std::unique_ptr<Poco::Thread> thread;
    };
    void Stop(const std::string& name, Registered& entry);

    Poco::FastMutex m_mutex;
    std::map<std::string, Registered> m_tasks;
    std::shared_ptr<OnDemandTasks> m_onDemand;
    std::atomic<bool> m_holdSchedules{false};
};

}  // namespace Framework
