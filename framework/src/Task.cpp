#include "framework/Task.h"

#include <set>

#include <Poco/Timestamp.h>

#include "framework/Engine.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"
#include "sdk/TimeUtils.h"

namespace Framework {

namespace {

const char* const kSource = "framework/src/Task";

Poco::Logger* FrameworkLogger()
{
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("framework", false);
}

// Every constructed task, so that a delivery by pointer can tell a live task
// from a freed one. A task leaves the set at the start of its destruction
// under the same lock deliveries hold.
Poco::FastMutex g_liveMutex;
std::set<Task*>& LiveTasks()
{
    static std::set<Task*> live;
    return live;
}

}  // namespace

// One warning per window for dropped messages, with the number suppressed.
void Task::WarnDropped(const std::string& target, const std::string& why)
{
    static std::atomic<int64_t> lastWarnMs{0};
    static std::atomic<uint64_t> suppressed{0};
    const int64_t now = SDK::TimeUtils::GetCurrentTimestampMS();
    int64_t last = lastWarnMs.load(std::memory_order_relaxed);
    if (now - last < 5000 || !lastWarnMs.compare_exchange_strong(last, now)) {
        suppressed.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    const unsigned long more = suppressed.exchange(0);
    SDK_LOG(FrameworkLogger(), Poco::Message::PRIO_WARNING, kSource,
            "Message for task %s dropped: %s (%lu more dropped messages not logged in the last 5 s)",
            target, why, more);
}

bool Event::Wait(long timeoutMs)
{
    if (timeoutMs < 0) {
        m_event.wait();
        return true;
    }
    return m_event.tryWait(timeoutMs);
}

int EventWaiter::WaitAndHandleEvent(int timeoutMs, int maxEvents)
{
    // Between two waits nothing of this task can still hold a policy pointer.
    m_task->ReleaseRetiredPolicies();
    if (m_task->QueueDepth() == 0 && !m_task->IsCancelling()) {
        m_task->WaitWake(timeoutMs);
    }
    return HandlePending(maxEvents);
}

int EventWaiter::HandlePending(int maxEvents)
{
    int handled = 0;
    while (handled < maxEvents) {
        std::shared_ptr<Message> msg;
        if (!m_task->DequeueMsg(msg)) {
            break;
        }
        ++handled;
        try {
            if (m_task->InterceptMsg(msg) == 0) {
                m_task->HandleMsg(msg);
            }
        } catch (const std::exception& e) {
            SDK_LOG(FrameworkLogger(), Poco::Message::PRIO_ERROR, kSource,
                    "Task %s: handler of message '%s' threw: %s; message dropped, task goes on",
                    m_task->GetTaskName(), msg ? msg->GetName() : std::string(), std::string(e.what()));
        } catch (...) {
            SDK_LOG(FrameworkLogger(), Poco::Message::PRIO_ERROR, kSource,
                    "Task %s: handler of message '%s' threw an unknown exception; message dropped, task goes on",
                    m_task->GetTaskName(), msg ? msg->GetName() : std::string());
        }
    }
    return handled;
}

Task::Task(const std::string& name, const std::string& feature, TaskCondition::TaskType type,
           unsigned int size)
    : Poco::Task(name), m_feature(feature), m_condition(type), m_eventWaiter(this),
      m_consumer(size), m_type(type)
{
    Poco::FastMutex::ScopedLock lock(g_liveMutex);
    LiveTasks().insert(this);
}

Task::~Task()
{
    Poco::FastMutex::ScopedLock lock(g_liveMutex);
    LiveTasks().erase(this);
}

void Task::SetState(Poco::Task::TaskState state)
{
    Poco::FastMutex::ScopedLock lock(m_stateMutex);
    if (state == TASK_RUNNING && m_state.load() == TASK_CANCELLING) {
        return;  // cancelled before its thread got going: stay cancelling
    }
    setState(state);
    m_state.store(state, std::memory_order_release);
}

void Task::run()
{
    SetState(TASK_RUNNING);
    try {
        // A registered task starts and stops its own side on its own thread,
        // so Init, the messages it handles and UnInit never overlap.
        const int rc = Init();
        if (rc == 0) {
            runTask();
        } else {
            SDK_LOG(FrameworkLogger(), Poco::Message::PRIO_ERROR, kSource,
                    "Task %s: Init returned %d; the task does not run", GetTaskName(), rc);
        }
        UnInit();
    } catch (const std::exception& e) {
        SDK_LOG(FrameworkLogger(), Poco::Message::PRIO_ERROR, kSource,
                "Task %s stopped by an exception: %s", GetTaskName(), std::string(e.what()));
    } catch (...) {
        SDK_LOG(FrameworkLogger(), Poco::Message::PRIO_ERROR, kSource,
                "Task %s stopped by an unknown exception", GetTaskName());
    }
    SetState(TASK_FINISHED);
}

void Task::cancel()
{
    {
        Poco::FastMutex::ScopedLock lock(m_stateMutex);
        if (m_state.load() != TASK_FINISHED) {
            Poco::Task::cancel();
            m_state.store(TASK_CANCELLING, std::memory_order_release);
        }
    }
    m_event.Set();
}

void Task::ResetForStart()
{
    Poco::FastMutex::ScopedLock lock(m_stateMutex);
    reset();
    m_state.store(TASK_IDLE, std::memory_order_release);
}

void Task::runTask()
{
    switch (m_type) {
    case TaskCondition::TASK_TYPE_SCHEDULED:
        RunScheduled();
        break;
    case TaskCondition::TASK_TYPE_RESIDENT:
        RunOnce();
        break;
    default:
        break;
    }
}

void Task::RunOnce()
{
    m_lastRunStartMs.store(SDK::TimeUtils::GetCurrentTimestampMS(), std::memory_order_relaxed);
    m_runs.fetch_add(1, std::memory_order_relaxed);
    Run();
    m_lastRunEndMs.store(SDK::TimeUtils::GetCurrentTimestampMS(), std::memory_order_relaxed);
}

void Task::RunScheduled()
{
    TaskCondition condition = GetCondition();
    int64_t next = condition.HasSchedule()
                       ? condition.FirstFireMs(SDK::TimeUtils::GetCurrentTimestampMS())
                       : -1;
    m_nextFireMs.store(next, std::memory_order_relaxed);
    m_conditionChanged.store(false);
    while (!IsCancelling()) {
        if (m_conditionChanged.exchange(false)) {
            condition = GetCondition();
            next = condition.HasSchedule()
                       ? condition.FirstFireMs(SDK::TimeUtils::GetCurrentTimestampMS())
                       : -1;
            m_nextFireMs.store(next, std::memory_order_relaxed);
        }
        int64_t now = SDK::TimeUtils::GetCurrentTimestampMS();
        if (next >= 0 && now >= next) {
            ReleaseRetiredPolicies();
            RunOnce();
            ReleaseRetiredPolicies();
            // Fires that passed during the run collapse into at most one.
            next = condition.NextFireMs(next, SDK::TimeUtils::GetCurrentTimestampMS());
            m_nextFireMs.store(next, std::memory_order_relaxed);
            continue;
        }
        long wait = 1000;
        if (next >= 0 && next - now < wait) {
            wait = static_cast<long>(next - now);
        }
        m_eventWaiter.WaitAndHandleEvent(static_cast<int>(wait), 128);
    }
}

int Task::Init()
{
    ReleaseRetiredPolicies();
    return 0;
}

int Task::UnInit()
{
    return 0;
}

int Task::Deliver(const std::shared_ptr<Message>& msg)
{
    if (m_consumer.m_queue.Enqueue(msg) != 1) {
        m_dropped.fetch_add(1, std::memory_order_relaxed);
        return 0;
    }
    m_event.Set();
    return 1;
}

int Task::EnqueueMsg(std::shared_ptr<Message> msg)
{
    return Deliver(msg);
}

int Task::HandleMsg(std::shared_ptr<Message>& msg)
{
    if (!msg) {
        return -1;
    }
    return msg->MessageHandle(this);
}

bool Task::SendDirectMsg(const std::string& target, Message* msg)
{
    Engine* engine = Engine::GetInstance();
    if (engine == nullptr) {
        delete msg;
        WarnDropped(target, "no engine");
        return false;
    }
    return engine->SendDirectMsg(target, msg);
}

bool Task::SendMsgToTask(Task* target, Message* msg)
{
    std::shared_ptr<Message> owned(msg);
    return DeliverToLive(target, owned);
}

bool Task::DeliverToLive(Task* target, const std::shared_ptr<Message>& msg)
{
    std::string name;
    {
        Poco::FastMutex::ScopedLock lock(g_liveMutex);
        if (target == nullptr || LiveTasks().count(target) == 0) {
            name = "(gone)";
        } else if (target->Deliver(msg) == 1) {
            return true;
        } else {
            name = target->GetTaskName();
        }
    }
    WarnDropped(name, name == "(gone)" ? "the task no longer exists" : "its queue is full");
    return false;
}

std::vector<Task*> Task::LiveTasksOfType(TaskCondition::TaskType type)
{
    std::vector<Task*> out;
    Poco::FastMutex::ScopedLock lock(g_liveMutex);
    for (Task* t : LiveTasks()) {
        if (t->m_type == type) {
            out.push_back(t);
        }
    }
    return out;
}

bool Task::DescribeLive(Task* target, TaskCondition::TaskType& type, Poco::Task::TaskState& state)
{
    Poco::FastMutex::ScopedLock lock(g_liveMutex);
    if (target == nullptr || LiveTasks().count(target) == 0) {
        return false;
    }
    type = target->m_type;
    state = target->GetState();
    return true;
}

void Task::CancelAllLive()
{
    Poco::FastMutex::ScopedLock lock(g_liveMutex);
    for (Task* t : LiveTasks()) {
        t->Task::cancel();  // not virtual: the object may be mid-destruction
    }
}

int Task::AddConsumer(unsigned long kind, const char* name, Task* consumer)
{
    Poco::FastMutex::ScopedLock lock(m_productor.m_mutex);
    const MessageProductor::ConsumerKey key(kind, name ? name : "");
    bool present = false;
    auto range = m_productor.m_consumers.equal_range(key);
    for (auto it = range.first; it != range.second; ++it) {
        present = present || it->second == consumer;
    }
    if (!present && consumer != nullptr) {
        m_productor.m_consumers.emplace(key, consumer);
    }
    int count = 0;
    for (auto& entry : m_productor.m_consumers) {
        count += entry.first.first == kind ? 1 : 0;
    }
    return count;
}

int Task::DelConsumer(unsigned long kind, const char* name, const Task* consumer)
{
    Poco::FastMutex::ScopedLock lock(m_productor.m_mutex);
    const MessageProductor::ConsumerKey key(kind, name ? name : "");
    int removed = 0;
    auto range = m_productor.m_consumers.equal_range(key);
    for (auto it = range.first; it != range.second;) {
        if (it->second == consumer) {
            it = m_productor.m_consumers.erase(it);
            ++removed;
        } else {
            ++it;
        }
    }
    return removed;
}

std::vector<Task*> Task::GetConsumers(unsigned long kind)
{
    Poco::FastMutex::ScopedLock lock(m_productor.m_mutex);
    std::vector<Task*> out;
    for (auto& entry : m_productor.m_consumers) {
        if (entry.first.first == kind) {
            out.push_back(entry.second);
        }
    }
    return out;
}

FeaturePolicy* Task::GetFeaturePolicy()
{
    Poco::FastMutex::ScopedLock lock(m_policyMutex);
    return m_featurePolicy.get();
}

void Task::SetFeaturePolicy(FeaturePolicy* policy)
{
    Poco::FastMutex::ScopedLock lock(m_policyMutex);
    if (policy == m_featurePolicy.get()) {
        return;
    }
    if (m_featurePolicy) {
        m_retiredPolicies.emplace_back(m_featurePolicy.get(), true);
    }
    m_featurePolicy = Poco::AutoPtr<FeaturePolicy>(policy, true);
}

void Task::ReleaseRetiredPolicies()
{
    std::vector<Poco::AutoPtr<Policy>> retired;
    {
        Poco::FastMutex::ScopedLock lock(m_policyMutex);
        retired.swap(m_retiredPolicies);
    }
}

TaskCondition Task::GetCondition()
{
    Poco::FastMutex::ScopedLock lock(m_policyMutex);
    return m_condition;
}

void Task::SetCondition(const TaskCondition& condition)
{
    {
        Poco::FastMutex::ScopedLock lock(m_policyMutex);
        m_condition = condition;
        m_condition.SetType(m_type);
    }
    m_conditionChanged.store(true);
    m_event.Set();
}

}  // namespace Framework
