#pragma once
// Dispatch pattern of module-to-module messages: every message type T gets a
// Receiver interface; MessageHandle finds it on the receiving task.

#include "framework/Message.h"
#include "framework/Task.h"

namespace Engine {

template <typename T>
class AbstructMessage : public Framework::Message {
public:
    class Receiver {
    public:
        virtual int Receive(const T& message) = 0;
        virtual ~Receiver() = default;
    };

    AbstructMessage() = default;
    explicit AbstructMessage(const std::string& name) : Framework::Message(name) {}
    ~AbstructMessage() override = default;

    int MessageHandle(void* target) override
    {
        if (target == nullptr) {
            return -1;
        }
        auto* task = static_cast<Framework::Task*>(target);
        auto* receiver = dynamic_cast<Receiver*>(task);
        if (receiver == nullptr) {
            return -1;
        }
        return receiver->Receive(static_cast<const T&>(*this));
    }
};

// The subscriber's handle is taken when the (live) subscriber makes the
// message; the collector keeps and uses only the handle.
class ContainerRegisterMessage : public AbstructMessage<ContainerRegisterMessage> {
public:
    ContainerRegisterMessage(Framework::Task* task, bool subscribe, bool option)
        : task(task), subscribe(subscribe), option(option),
          subscriber(task != nullptr ? task->GetMailbox() : Framework::MailboxRef()) {}

    Framework::Task* task;  // identifies the subscriber; never dereferenced by the receiver
    bool subscribe;
    bool option;
    Framework::MailboxRef subscriber;
};

}  // namespace Engine
