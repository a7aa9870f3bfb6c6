#pragma once
// The inbound side of a task: its bounded message queue, its wake-up and its
// name. The task owns its mailbox (shared_ptr); everyone else holds a
// MailboxRef, a weak handle. Consumer tables, watch registrations and
// outboxes keep handles, never task pointers: a handle whose task is gone
// refuses the message instead of touching freed memory.
//
// Delivery has one path, MailboxRef::Post. A full queue or a task that is
// gone drops the message, returns false, counts it and logs a rate-limited
// warning; the sender decides whether to keep it for a later try.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <Poco/Event.h>
#include <Poco/Mutex.h>
#include <Poco/Task.h>

#include "framework/Message.h"
#include "framework/TaskCondition.h"
#include "sdk/LocklessQueue.h"

namespace Framework {

// One warning per 5 s for messages that could not be delivered, with the
// number suppressed in between.
class DropWarning {
public:
    void Warn(const std::string& target, const std::string& why);

private:
    std::atomic<int64_t> m_lastMs{0};
    std::atomic<uint64_t> m_suppressed{0};
};

// Auto-reset wake-up event.
class Event {
public:
    void Set() { m_event.set(); }
    // true when set within timeoutMs (a negative timeout waits for ever).
    bool Wait(long timeoutMs);

private:
    Poco::Event m_event{Poco::Event::EVENT_AUTORESET};
};

class Mailbox {
public:
    // `ownerType` and the owner state (SetOwnerState) let a sender tell an
    // event loop from a task that only runs now and then.
    Mailbox(const std::string& name, unsigned int capacity,
            TaskCondition::TaskType ownerType = TaskCondition::TASK_TYPE_NONE);
    Mailbox(const Mailbox&) = delete;
    Mailbox& operator=(const Mailbox&) = delete;

    const std::string& Name() const { return m_name; }

    // Queues `msg` and wakes the owner. false when the queue is full or the
    // mailbox is closed: the message is dropped, counted and warned about.
    bool Post(const std::shared_ptr<Message>& msg);
    // The owner's side: the next message, false when none is queued.
    bool Take(std::shared_ptr<Message>& out) { return m_queue.Dequeue(out) == 1; }
    // Waits for a wake-up; true when woken within timeoutMs.
    bool Wait(long timeoutMs) { return m_wake.Wait(timeoutMs); }
    void Wake();

    // Called after each queued message, besides the event, for an owner that
    // waits on something else too (inotify). Setting an empty hook waits for
    // a running call to return; the old hook is never called again.
    void SetWakeHook(std::function<void()> hook);

    void SetOwnerState(Poco::Task::TaskState state) { m_ownerState.store(state, std::memory_order_release); }
    Poco::Task::TaskState OwnerState() const { return m_ownerState.load(std::memory_order_acquire); }
    TaskCondition::TaskType OwnerType() const { return m_ownerType; }

    // The owner is going: Post fails from here on.
    void Close();
    bool Closed() const { return m_closed.load(std::memory_order_acquire); }

    unsigned int Depth() const { return m_queue.Size(); }
    unsigned int Capacity() const { return m_queue.Capacity(); }
    uint64_t Dropped() const { return m_dropped.load(std::memory_order_relaxed); }

    // For messages that never reached a mailbox (no such task); a mailbox
    // warns about its own drops on its own schedule.
    static void WarnDropped(const std::string& target, const std::string& why);

private:
    const std::string m_name;
    const TaskCondition::TaskType m_ownerType;
    SDK::LocklessQueue<std::shared_ptr<Message>> m_queue;
    Event m_wake;
    std::atomic<bool> m_closed{false};
    std::atomic<bool> m_hasHook{false};
    Poco::FastMutex m_hookMutex;
    std::function<void()> m_hook;  // guarded by m_hookMutex
    std::atomic<Poco::Task::TaskState> m_ownerState{Poco::Task::TASK_IDLE};
    std::atomic<uint64_t> m_dropped{0};
    DropWarning m_warning;
};

// A weak handle on a mailbox. Copies compare equal when they name the same
// mailbox, also after it is gone, so handles serve as keys in ordered maps.
class MailboxRef {
public:
    MailboxRef() = default;
    explicit MailboxRef(const std::shared_ptr<Mailbox>& box)
        : m_box(box), m_name(box ? box->Name() : std::string()) {}

    // The one delivery path. false (message dropped, rate-limited warning)
    // for an empty handle, a mailbox that is gone or closed, or a full queue.
    bool Post(const std::shared_ptr<Message>& msg) const;

    // The mailbox exists and is open.
    bool Alive() const;
    // Never pointed at a mailbox (a gone mailbox is not empty).
    bool Empty() const
    {
        const std::weak_ptr<Mailbox> none;
        return !m_box.owner_before(none) && !none.owner_before(m_box);
    }
    std::shared_ptr<Mailbox> Lock() const { return m_box.lock(); }
    // The name it had, kept for log lines after the task is gone.
    const std::string& Name() const { return m_name; }

    friend bool operator<(const MailboxRef& a, const MailboxRef& b)
    {
        return a.m_box.owner_before(b.m_box);
    }
    friend bool operator==(const MailboxRef& a, const MailboxRef& b) { return !(a < b) && !(b < a); }
    friend bool operator!=(const MailboxRef& a, const MailboxRef& b) { return !(a == b); }

private:
    std::weak_ptr<Mailbox> m_box;
    std::string m_name;
};

}  // namespace Framework
