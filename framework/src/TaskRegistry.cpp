#include "framework/TaskRegistry.h"

#include <algorithm>
#include <set>

#include <Poco/Exception.h>

#include "framework/Health.h"

#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"

namespace Framework {

namespace {

const char* const kSource = "framework/src/TaskRegistry";
const int kOnDemandBatch = 1024;
const long kJoinWarnMs = 5000;

Poco::Logger* Log()
{
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("framework", false);
}

// Names of every task registered in this process, and of the unknown
// targets already mentioned. A message for a task that was never registered
// is for a service this command does not load (`scan` has no asset or
// file-notify service): said once, not warned about on every pass.
Poco::FastMutex g_namesMutex;
std::set<std::string> g_everRegistered;
std::set<std::string> g_absentNoted;

void NoteRegistered(const std::string& name)
{
    Poco::FastMutex::ScopedLock lock(g_namesMutex);
    g_everRegistered.insert(name);
}

// true when a message for `target` should be warned about as a drop.
bool WarnAboutDrop(const std::string& target)
{
    {
        Poco::FastMutex::ScopedLock lock(g_namesMutex);
        if (g_everRegistered.count(target) != 0) {
            return true;
        }
        if (!g_absentNoted.insert(target).second) {
            return false;
        }
    }
    SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource,
            "Messages for task %s are not delivered: no loaded module provides it", target);
    return false;
}

}  // namespace

// ----------------------------------------------------------- on-demand tasks

void OnDemandTasks::Enrol(Task* task)
{
    {
        Poco::FastMutex::ScopedLock lock(m_mutex);
        if (std::find(m_tasks.begin(), m_tasks.end(), task) == m_tasks.end()) {
            m_tasks.push_back(task);
        }
    }
    Poco::FastMutex::ScopedLock lock(task->m_enrolMutex);
    task->m_enrolledIn = shared_from_this();
}

void OnDemandTasks::Withdraw(Task* task)
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    m_tasks.erase(std::remove(m_tasks.begin(), m_tasks.end(), task), m_tasks.end());
}

void OnDemandTasks::HandlePending()
{
    std::vector<Task*> tasks;
    {
        Poco::FastMutex::ScopedLock lock(m_mutex);
        tasks = m_tasks;
    }
    for (Task* task : tasks) {
        task->GetEventWaiter().HandlePending(kOnDemandBatch);
    }
}

void OnDemandTasks::CancelAll()
{
    // Under the lock a task's destructor waits in Withdraw, so the base part
    // is alive; the non-virtual call does not reach a derived part that may
    // already be gone.
    Poco::FastMutex::ScopedLock lock(m_mutex);
    for (Task* task : m_tasks) {
        task->Task::cancel();
    }
}

// -------------------------------------------------------------- registry

TaskRegistry::TaskRegistry() : m_onDemand(std::make_shared<OnDemandTasks>()) {}

TaskRegistry::~TaskRegistry()
{
    UnRegisterAll();
}

int TaskRegistry::Register(Task* task, Module* owner)
{
    if (task == nullptr) {
        return -1;
    }
    Poco::FastMutex::ScopedLock lock(m_mutex);
    const std::string name = task->GetTaskName();
    if (m_tasks.count(name) != 0) {
        SDK_LOG(Log(), Poco::Message::PRIO_WARNING, kSource,
                "Task %s is registered already; second registration refused", name);
        return -1;
    }
    Registered& entry = m_tasks[name];
    entry.task = Poco::AutoPtr<Task>(task, true);
    entry.owner = owner;
    task->ResetForStart();
    NoteRegistered(name);
    Health::Clear(task->HealthKey());
    task->HoldSchedule(m_holdSchedules.load());
    const TaskCondition::TaskType type = task->GetTaskType();
    if (type == TaskCondition::TASK_TYPE_SCHEDULED || type == TaskCondition::TASK_TYPE_RESIDENT) {
        // Init, the runs and UnInit happen on the task's own thread (Task::run).
        entry.thread = std::make_unique<Poco::Thread>(name.substr(0, 15));
        try {
            entry.thread->start(*task);
        } catch (const Poco::Exception& e) {
            SDK_LOG(Log(), Poco::Message::PRIO_ERROR, kSource,
                    "Task %s not started: cannot create its thread (%s)", name, e.displayText());
            Health::Raise(task->HealthKey(), Health::Severity::Degraded,
                          "task " + name + " never started: " + e.displayText());
            m_tasks.erase(name);
            return -1;
        }
    } else {
        task->Init();
    }
    SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "Registered task %s (%s, feature %s)",
            name, std::string(TaskCondition::TypeName(type)), task->GetFeatureName());
    return 0;
}

void TaskRegistry::Stop(const std::string& name, Registered& entry)
{
    entry.task->cancel();
    if (!entry.thread) {
        entry.task->UnInit();
    } else if (Poco::Thread::current() == entry.thread.get()) {
        SDK_LOG(Log(), Poco::Message::PRIO_WARNING, kSource,
                "Task %s unregistered itself; its thread ends on its own", name);
    } else {
        while (!entry.thread->tryJoin(kJoinWarnMs)) {
            SDK_LOG(Log(), Poco::Message::PRIO_WARNING, kSource,
                    "Task %s has not stopped 5 s after it was cancelled; still waiting", name);
        }
    }
    Health::Clear(entry.task->HealthKey());
    SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "Unregistered task %s", name);
}

int TaskRegistry::UnRegister(const std::string& name)
{
    Registered entry;
    {
        Poco::FastMutex::ScopedLock lock(m_mutex);
        auto it = m_tasks.find(name);
        if (it == m_tasks.end()) {
            return 0;
        }
        entry = std::move(it->second);
        m_tasks.erase(it);
    }
    Stop(name, entry);
    return 1;
}

int TaskRegistry::UnRegisterOwnedBy(Module* owner)
{
    std::vector<std::string> names;
    {
        Poco::FastMutex::ScopedLock lock(m_mutex);
        for (auto& entry : m_tasks) {
            if (entry.second.owner == owner) {
                names.push_back(entry.first);
            }
        }
    }
    int count = 0;
    for (auto& name : names) {
        count += UnRegister(name);
    }
    return count;
}

int TaskRegistry::UnRegisterAll()
{
    int count = 0;
    for (auto& name : Names()) {
        count += UnRegister(name);
    }
    return count;
}

Task* TaskRegistry::Find(const std::string& name)
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    auto it = m_tasks.find(name);
    return it == m_tasks.end() ? nullptr : it->second.task.get();
}

std::vector<std::string> TaskRegistry::Names()
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    std::vector<std::string> names;
    for (auto& entry : m_tasks) {
        names.push_back(entry.first);
    }
    return names;
}

std::vector<Poco::AutoPtr<Task>> TaskRegistry::Tasks()
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    std::vector<Poco::AutoPtr<Task>> tasks;
    for (auto& entry : m_tasks) {
        tasks.push_back(entry.second.task);
    }
    return tasks;
}

bool TaskRegistry::Send(const std::string& target, const std::shared_ptr<Message>& msg)
{
    MailboxRef mailbox;
    {
        Poco::FastMutex::ScopedLock lock(m_mutex);
        auto it = m_tasks.find(target);
        if (it != m_tasks.end()) {
            mailbox = it->second.task->GetMailbox();
        }
    }
    if (mailbox.Empty()) {
        if (WarnAboutDrop(target)) {
            Mailbox::WarnDropped(target, "no task of that name is registered");
        }
        return false;
    }
    return mailbox.Post(msg);
}

void TaskRegistry::CancelAll()
{
    for (auto& task : Tasks()) {
        task->cancel();
    }
    m_onDemand->CancelAll();
}

}  // namespace Framework
