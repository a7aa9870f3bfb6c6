#pragma once
// Announcements a component makes without knowing who listens: the end of a
// scan pass, a finished download, an applied policy. A listener subscribes a
// mailbox to a topic and handles what arrives on its own thread; the sender
// never names a service. Subscriptions are weak: a mailbox that is gone is
// dropped at the next post.

#include <memory>
#include <string>

#include "framework/Mailbox.h"
#include "framework/Message.h"

namespace Framework {

class Topics {
public:
    // Subscribing a mailbox twice to one topic is a no-op.
    static void Subscribe(const std::string& topic, const MailboxRef& mailbox);
    static void Unsubscribe(const std::string& topic, const MailboxRef& mailbox);
    // Hands `msg` to every live subscriber of `topic`; returns how many took
    // it. Without subscribers this costs a lookup.
    static int Post(const std::string& topic, const std::shared_ptr<Message>& msg);
};

}  // namespace Framework
