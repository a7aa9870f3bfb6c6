#pragma once
// A framework task: a Poco::Task with a name, a feature, a task type and a
// mailbox (its inbound queue and wake-up, see Mailbox.h).
//
// Registered tasks of type 1 and 4 each get their own thread (TaskRegistry).
// Their inbound messages are handled on that thread: by a scheduled task
// while it waits for its next fire, by a resident task inside its own
// EventWaiter::WaitAndHandleEvent loop. On-demand tasks (type 3) have no
// thread: Init enrols them with the registry, which handles their messages on
// the caller's thread right before it invokes a tasklet or policy callback,
// when they cannot be running; UnInit (or the destructor) withdraws them.
//
// Shutdown order: cancel (state flag, then wake the mailbox), join the
// thread, drop the registry's reference; the mailbox closes with the task and
// undelivered messages die with it.

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/Mutex.h>
#include <Poco/Task.h>

#include "framework/Mailbox.h"
#include "framework/Message.h"
#include "framework/Policy.h"
#include "framework/TaskCondition.h"

namespace Framework {

class Task;
class OnDemandTasks;

class EventWaiter {
public:
    explicit EventWaiter(Task* task) : m_task(task) {}
    virtual ~EventWaiter() = default;

    // Waits up to timeoutMs for a wake-up (returns at once when messages are
    // pending or the task is cancelling), then handles up to maxEvents
    // inbound messages: InterceptMsg, then HandleMsg. An exception from a
    // handler is logged and the next message is handled. Returns the number
    // of messages handled.
    int WaitAndHandleEvent(int timeoutMs, int maxEvents);
    // Handles what is queued now, without waiting.
    int HandlePending(int maxEvents);

private:
    Task* m_task;
};

class MessageProductor {
public:
    struct MsgKeyCompare {
        bool operator()(const std::pair<unsigned long, std::string>& a,
                        const std::pair<unsigned long, std::string>& b) const
        {
            return a < b;
        }
    };
    using ConsumerKey = std::pair<unsigned long, std::string>;
    // One (kind, name) key can have several consumers.
    using ConsumerTable = std::multimap<ConsumerKey, MailboxRef, MsgKeyCompare>;

    virtual ~MessageProductor() = default;

    ConsumerTable m_consumers;
    Poco::FastMutex m_mutex;
};

class MessageConsumer {
public:
    MessageConsumer(const std::string& name, unsigned int size, TaskCondition::TaskType type)
        : m_mailbox(std::make_shared<Mailbox>(name, size, type)) {}
    virtual ~MessageConsumer() { m_mailbox->Close(); }

    std::shared_ptr<Mailbox> m_mailbox;
};

class Task : public Poco::Task {
public:
    // `size` is the capacity of the inbound queue.
    Task(const std::string& name, const std::string& feature, TaskCondition::TaskType type,
         unsigned int size);
    ~Task() override;

    // Poco::Task: run() drives runTask() and keeps the state race-free;
    // cancel() marks the task cancelling and wakes it.
    void run() override;
    void cancel() override;
    // Type 1: wait for the schedule (handling messages), Run, repeat.
    // Type 4: Run once. Type 3: nothing.
    void runTask() override;

    virtual int Init();
    virtual int UnInit();
    virtual int Run() = 0;

    // Posts a message to this task's own mailbox. 1 if queued, 0 if not.
    virtual int EnqueueMsg(std::shared_ptr<Message> msg);
    // Non-zero swallows the message before HandleMsg.
    virtual int InterceptMsg(std::shared_ptr<Message>& msg)
    {
        (void)msg;
        return 0;
    }
    // Default: msg->MessageHandle(this).
    virtual int HandleMsg(std::shared_ptr<Message>& msg);

    // Delivers `msg` to the registered task named `target`. The framework
    // owns `msg` from here on. false (message freed, rate-limited warning)
    // for an unknown target or a full queue.
    bool SendDirectMsg(const std::string& target, Message* msg);

    // The handle others keep to send to this task.
    MailboxRef GetMailbox() const { return MailboxRef(m_consumer.m_mailbox); }

    // Consumer table of this task as a producer. AddConsumer returns the
    // number of consumers of `kind` after the call; adding one twice is a
    // no-op. DelConsumer returns the number removed. The Task* forms take the
    // consumer's handle at the call, so the consumer must be alive then.
    int AddConsumer(unsigned long kind, const char* name, const MailboxRef& consumer);
    int AddConsumer(unsigned long kind, const char* name, Task* consumer);
    int DelConsumer(unsigned long kind, const char* name, const MailboxRef& consumer);
    int DelConsumer(unsigned long kind, const char* name, const Task* consumer);
    std::vector<MailboxRef> GetConsumers(unsigned long kind);

    // Feature policy of the task; null until one is stored. The raw pointer
    // stays valid until the task's own thread reaches its next wait.
    FeaturePolicy* GetFeaturePolicy();
    void SetFeaturePolicy(FeaturePolicy* policy);
    // Frees policies replaced since the last call. Called by the framework
    // where this task cannot be reading one.
    void ReleaseRetiredPolicies();

    TaskCondition GetCondition();
    void SetCondition(const TaskCondition& condition);  // keeps the task type
    // A held schedule never fires (a one-shot scan runs its one pass itself).
    void HoldSchedule(bool held);

    const std::string& GetTaskName() const { return name(); }
    const std::string& GetFeatureName() const { return m_feature; }
    TaskCondition::TaskType GetTaskType() const { return m_type; }
    // Race-free copy of the Poco::Task state.
    Poco::Task::TaskState GetState() const { return m_state.load(std::memory_order_acquire); }
    bool IsCancelling() const { return GetState() == Poco::Task::TASK_CANCELLING; }

    EventWaiter& GetEventWaiter() { return m_eventWaiter; }
    void Wake() { m_consumer.m_mailbox->Wake(); }
    bool WaitWake(long timeoutMs) { return m_consumer.m_mailbox->Wait(timeoutMs); }
    bool DequeueMsg(std::shared_ptr<Message>& out) { return m_consumer.m_mailbox->Take(out); }

    // Figures for `ctl status`.
    unsigned int QueueDepth() const { return m_consumer.m_mailbox->Depth(); }
    uint64_t DroppedMessages() const { return m_consumer.m_mailbox->Dropped(); }
    uint64_t RunCount() const { return m_runs.load(std::memory_order_relaxed); }
    int64_t LastRunStartMs() const { return m_lastRunStartMs.load(std::memory_order_relaxed); }
    int64_t LastRunEndMs() const { return m_lastRunEndMs.load(std::memory_order_relaxed); }
    int64_t NextFireMs() const { return m_nextFireMs.load(std::memory_order_relaxed); }

    // Back to idle before the registry starts the task (again).
    void ResetForStart();
    // Where the health register keeps "this task is not running".
    std::string HealthKey() const { return "framework.task." + GetTaskName(); }

private:
    friend class OnDemandTasks;

    void RunScheduled();
    void RunOnce();
    void SetState(Poco::Task::TaskState state);
    int64_t FirstFire(const TaskCondition& condition) const;
    void Withdraw();

    // Members in the order the platform fixes: feature, condition, waiter,
    // producer, consumer (the mailbox holds the wake-up event).
    std::string m_feature;
    TaskCondition m_condition;
    EventWaiter m_eventWaiter;
    MessageProductor m_productor;
    MessageConsumer m_consumer;

    TaskCondition::TaskType m_type;
    std::atomic<Poco::Task::TaskState> m_state{Poco::Task::TASK_IDLE};
    Poco::FastMutex m_stateMutex;
    Poco::FastMutex m_policyMutex;  // guards the policy, the retired list and the condition
    Poco::AutoPtr<FeaturePolicy> m_featurePolicy;
    std::vector<Poco::AutoPtr<Policy>> m_retiredPolicies;
    std::atomic<bool> m_conditionChanged{false};
    std::atomic<bool> m_scheduleHeld{false};
    std::atomic<uint64_t> m_runs{0};
    std::atomic<int64_t> m_lastRunStartMs{0};
    std::atomic<int64_t> m_lastRunEndMs{0};
    std::atomic<int64_t> m_nextFireMs{-1};
    Poco::FastMutex m_enrolMutex;
    std::weak_ptr<OnDemandTasks> m_enrolledIn;  // guarded by m_enrolMutex
};

}  // namespace Framework
