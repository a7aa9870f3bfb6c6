#include "framework/Mailbox.h"

#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"
#include "sdk/TimeUtils.h"

namespace Framework {

namespace {
const char* const kSource = "framework/src/Mailbox";
const int64_t kWarnWindowMs = 5000;
}  // namespace

bool Event::Wait(long timeoutMs)
{
    if (timeoutMs < 0) {
        m_event.wait();
        return true;
    }
    return m_event.tryWait(timeoutMs);
}

void DropWarning::Warn(const std::string& target, const std::string& why)
{
    const int64_t now = SDK::TimeUtils::GetCurrentTimestampMS();
    int64_t last = m_lastMs.load(std::memory_order_relaxed);
    if (now - last < kWarnWindowMs || !m_lastMs.compare_exchange_strong(last, now)) {
        m_suppressed.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    const unsigned long more = m_suppressed.exchange(0);
    SDK_LOG(SDK::LoggerUtils::GetInstance()->GetModuleLogger("framework", false),
            Poco::Message::PRIO_WARNING, kSource,
            "Message for task %s dropped: %s (%lu more dropped messages not logged in the last 5 s)",
            target, why, more);
}

void Mailbox::WarnDropped(const std::string& target, const std::string& why)
{
    static DropWarning warning;
    warning.Warn(target, why);
}

Mailbox::Mailbox(const std::string& name, unsigned int capacity, TaskCondition::TaskType ownerType)
    : m_name(name), m_ownerType(ownerType), m_queue(capacity)
{
}

bool Mailbox::Post(const std::shared_ptr<Message>& msg)
{
    if (Closed()) {
        m_dropped.fetch_add(1, std::memory_order_relaxed);
        m_warning.Warn(m_name, "the task no longer exists");
        return false;
    }
    if (m_queue.Enqueue(msg) != 1) {
        m_dropped.fetch_add(1, std::memory_order_relaxed);
        m_warning.Warn(m_name, "its queue is full");
        return false;
    }
    Wake();
    return true;
}

void Mailbox::Wake()
{
    m_wake.Set();
    if (m_hasHook.load(std::memory_order_acquire)) {
        Poco::FastMutex::ScopedLock lock(m_hookMutex);
        if (m_hook) {
            m_hook();
        }
    }
}

void Mailbox::SetWakeHook(std::function<void()> hook)
{
    Poco::FastMutex::ScopedLock lock(m_hookMutex);
    m_hook = std::move(hook);
    m_hasHook.store(static_cast<bool>(m_hook), std::memory_order_release);
}

void Mailbox::Close()
{
    m_closed.store(true, std::memory_order_release);
    SetWakeHook(nullptr);
}

bool MailboxRef::Post(const std::shared_ptr<Message>& msg) const
{
    std::shared_ptr<Mailbox> box = m_box.lock();
    if (!box) {
        Mailbox::WarnDropped(m_name.empty() ? std::string("(none)") : m_name,
                             "the task no longer exists");
        return false;
    }
    return box->Post(msg);
}

bool MailboxRef::Alive() const
{
    std::shared_ptr<Mailbox> box = m_box.lock();
    return box && !box->Closed();
}

}  // namespace Framework
