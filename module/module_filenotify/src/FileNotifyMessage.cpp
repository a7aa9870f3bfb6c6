#include "filenotify/FileNotifyMessage.h"

#include "message/AbstractMessageReceiver.h"

namespace Engine {

FileNotifyWatchMessage::FileNotifyWatchMessage(Framework::Task* sender, const std::string& path,
                                               std::vector<unsigned int> events,
                                               const _FileNotifyOpt& opt)
    : Framework::Message("filenotify_watch_message"),
      m_sender(sender != nullptr ? sender->GetMailbox() : Framework::MailboxRef()), m_path(path),
      m_events(std::move(events)), m_opt(opt)
{
}

FileNotifyWatchMessage::~FileNotifyWatchMessage() = default;

uint32_t FileNotifyWatchMessage::GetMask() const
{
    uint32_t mask = 0;
    for (unsigned int e : m_events) {
        mask |= e;
    }
    return mask;
}

FileNotifyMessage::FileNotifyMessage(uint32_t mask, const std::string& path, unsigned long extParm)
    : Framework::Message("filenotify_message"), mask(mask), m_path(path), m_extParm(extParm)
{
}

FileNotifyMessage::~FileNotifyMessage() = default;

int FileNotifyMessage::MessageHandle(void* task)
{
    if (task == nullptr) {
        return -1;
    }
    // A consumer that does not take file notifications simply ignores them.
    auto* receiver = dynamic_cast<AbstractMessageReceiver*>(static_cast<Framework::Task*>(task));
    if (receiver == nullptr) {
        return -1;
    }
    return receiver->FileNotifyMessageAction(this);
}

}  // namespace Engine
