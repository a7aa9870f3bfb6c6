#include "framework/Task.h"

#include "framework/Engine.h"
#include "framework/Health.h"
#include "framework/TaskRegistry.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"
#include "sdk/TimeUtils.h"

namespace Framework {

namespace {

const char* const kSource = "framework/src/Task";
// Longest wait of a scheduled task between two looks at its schedule.
const long kScheduledWaitMs = 1000;
const int kScheduledBatch = 128;

Poco::Logger* FrameworkLogger()
{
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("framework", false);
}

int64_t NowMs()
{
    return SDK::TimeUtils::GetCurrentTimestampMS();
}

}  // namespace

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
      m_consumer(name, size, type), m_type(type)
{
}

Task::~Task()
{
    Withdraw();
}

void Task::Withdraw()
{
    std::shared_ptr<OnDemandTasks> enrolled;
    {
        Poco::FastMutex::ScopedLock lock(m_enrolMutex);
        enrolled = m_enrolledIn.lock();
        m_enrolledIn.reset();
    }
    if (enrolled) {
        enrolled->Withdraw(this);
    }
}

void Task::SetState(Poco::Task::TaskState state)
{
    Poco::FastMutex::ScopedLock lock(m_stateMutex);
    if (state == TASK_RUNNING && m_state.load() == TASK_CANCELLING) {
        return;  // cancelled before its thread got going: stay cancelling
    }
    setState(state);
    m_state.store(state, std::memory_order_release);
    m_consumer.m_mailbox->SetOwnerState(state);
}

void Task::run()
{
    SetState(TASK_RUNNING);
    std::string ended = "its thread ended";
    try {
        // A registered task starts and stops its own side on its own thread,
        // so Init, the messages it handles and UnInit never overlap.
        const int rc = Init();
        if (rc == 0) {
            runTask();
        } else {
            ended = "Init returned " + std::to_string(rc);
            SDK_LOG(FrameworkLogger(), Poco::Message::PRIO_ERROR, kSource,
                    "Task %s: Init returned %d; the task does not run", GetTaskName(), rc);
        }
        UnInit();
    } catch (const std::exception& e) {
        ended = std::string("stopped by an exception: ") + e.what();
        SDK_LOG(FrameworkLogger(), Poco::Message::PRIO_ERROR, kSource,
                "Task %s stopped by an exception: %s", GetTaskName(), std::string(e.what()));
    } catch (...) {
        ended = "stopped by an unknown exception";
        SDK_LOG(FrameworkLogger(), Poco::Message::PRIO_ERROR, kSource,
                "Task %s stopped by an unknown exception", GetTaskName());
    }
    // Only a cancel ends a registered task on purpose; anything else leaves
    // its service missing until it is registered again.
    if (!IsCancelling()) {
        Health::Raise(HealthKey(), Health::Severity::Degraded,
                      "task " + GetTaskName() + " is not running: " + ended);
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
            m_consumer.m_mailbox->SetOwnerState(TASK_CANCELLING);
        }
    }
    Wake();
}

void Task::ResetForStart()
{
    Poco::FastMutex::ScopedLock lock(m_stateMutex);
    reset();
    m_state.store(TASK_IDLE, std::memory_order_release);
    m_consumer.m_mailbox->SetOwnerState(TASK_IDLE);
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
    m_lastRunStartMs.store(NowMs(), std::memory_order_relaxed);
    m_runs.fetch_add(1, std::memory_order_relaxed);
    Run();
    m_lastRunEndMs.store(NowMs(), std::memory_order_relaxed);
}

int64_t Task::FirstFire(const TaskCondition& condition) const
{
    if (m_scheduleHeld.load() || !condition.HasSchedule()) {
        return -1;
    }
    return condition.FirstFireMs(NowMs());
}

void Task::RunScheduled()
{
    m_conditionChanged.store(false);
    TaskCondition condition = GetCondition();
    int64_t next = FirstFire(condition);
    m_nextFireMs.store(next, std::memory_order_relaxed);
    while (!IsCancelling()) {
        if (m_conditionChanged.exchange(false)) {
            condition = GetCondition();
            next = FirstFire(condition);
            m_nextFireMs.store(next, std::memory_order_relaxed);
        }
        const int64_t now = NowMs();
        if (next >= 0 && now >= next) {
            ReleaseRetiredPolicies();
            RunOnce();
            ReleaseRetiredPolicies();
            // Fires that passed during the run collapse into at most one.
            next = condition.NextFireMs(next, NowMs());
            m_nextFireMs.store(next, std::memory_order_relaxed);
            continue;
        }
        long wait = kScheduledWaitMs;
        if (next >= 0 && next - now < wait) {
            wait = static_cast<long>(next - now);
        }
        m_eventWaiter.WaitAndHandleEvent(static_cast<int>(wait), kScheduledBatch);
    }
}

int Task::Init()
{
    ReleaseRetiredPolicies();
    // An on-demand task has no thread: the registry handles its messages.
    if (m_type == TaskCondition::TASK_TYPE_ONDEMAND) {
        if (Engine* engine = Engine::GetInstance()) {
            engine->Tasks().OnDemand()->Enrol(this);
        }
    }
    return 0;
}

int Task::UnInit()
{
    Withdraw();
    return 0;
}

int Task::EnqueueMsg(std::shared_ptr<Message> msg)
{
    return m_consumer.m_mailbox->Post(msg) ? 1 : 0;
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
    std::shared_ptr<Message> owned(msg);
    Engine* engine = Engine::GetInstance();
    if (engine == nullptr) {
        Mailbox::WarnDropped(target, "no engine");
        return false;
    }
    return engine->Tasks().Send(target, owned);
}

int Task::AddConsumer(unsigned long kind, const char* name, const MailboxRef& consumer)
{
    Poco::FastMutex::ScopedLock lock(m_productor.m_mutex);
    const MessageProductor::ConsumerKey key(kind, name ? name : "");
    bool present = false;
    auto range = m_productor.m_consumers.equal_range(key);
    for (auto it = range.first; it != range.second; ++it) {
        present = present || it->second == consumer;
    }
    if (!present && !consumer.Empty()) {
        m_productor.m_consumers.emplace(key, consumer);
    }
    int count = 0;
    for (auto& entry : m_productor.m_consumers) {
        count += entry.first.first == kind ? 1 : 0;
    }
    return count;
}

int Task::AddConsumer(unsigned long kind, const char* name, Task* consumer)
{
    return AddConsumer(kind, name, consumer != nullptr ? consumer->GetMailbox() : MailboxRef());
}

int Task::DelConsumer(unsigned long kind, const char* name, const MailboxRef& consumer)
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

int Task::DelConsumer(unsigned long kind, const char* name, const Task* consumer)
{
    return DelConsumer(kind, name, consumer != nullptr ? consumer->GetMailbox() : MailboxRef());
}

std::vector<MailboxRef> Task::GetConsumers(unsigned long kind)
{
    Poco::FastMutex::ScopedLock lock(m_productor.m_mutex);
    std::vector<MailboxRef> out;
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
    Wake();
}

void Task::HoldSchedule(bool held)
{
    m_scheduleHeld.store(held);
    m_conditionChanged.store(true);
    Wake();
}

}  // namespace Framework
