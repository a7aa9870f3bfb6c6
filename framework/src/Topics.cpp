#include "framework/Topics.h"

#include <map>
#include <vector>

#include <Poco/Mutex.h>

namespace Framework {

namespace {

Poco::FastMutex g_mutex;
std::map<std::string, std::vector<MailboxRef>>& Subscribers()
{
    static std::map<std::string, std::vector<MailboxRef>> subscribers;
    return subscribers;
}

}  // namespace

void Topics::Subscribe(const std::string& topic, const MailboxRef& mailbox)
{
    Poco::FastMutex::ScopedLock lock(g_mutex);
    auto& list = Subscribers()[topic];
    for (const auto& ref : list) {
        if (ref == mailbox) {
            return;
        }
    }
    list.push_back(mailbox);
}

void Topics::Unsubscribe(const std::string& topic, const MailboxRef& mailbox)
{
    Poco::FastMutex::ScopedLock lock(g_mutex);
    auto it = Subscribers().find(topic);
    if (it == Subscribers().end()) {
        return;
    }
    auto& list = it->second;
    for (auto ref = list.begin(); ref != list.end();) {
        ref = *ref == mailbox ? list.erase(ref) : ref + 1;
    }
    if (list.empty()) {
        Subscribers().erase(it);
    }
}

int Topics::Post(const std::string& topic, const std::shared_ptr<Message>& msg)
{
    std::vector<MailboxRef> targets;
    {
        Poco::FastMutex::ScopedLock lock(g_mutex);
        auto it = Subscribers().find(topic);
        if (it == Subscribers().end()) {
            return 0;
        }
        auto& list = it->second;
        for (auto ref = list.begin(); ref != list.end();) {
            if (ref->Alive()) {
                targets.push_back(*ref++);
            } else {
                ref = list.erase(ref);
            }
        }
    }
    int delivered = 0;
    for (const auto& target : targets) {
        delivered += target.Post(msg) ? 1 : 0;
    }
    return delivered;
}

}  // namespace Framework
