#pragma once
// "container_collect_task": follows the containers of the host and tells
// its subscribers when one starts or stops.
//
// A task subscribes by sending an Engine::ContainerRegisterMessage (itself,
// subscribe true) and at once receives a ContainerMessage (event true,
// running true) for every container running now; from then on it gets one
// for every container that starts (running true) or stops (running false,
// the same description). Unsubscribing (subscribe false) is accepted even
// without a subscription. Every message carries a description.
//
// Configuration: "agent.host_root" (default "/") is where runtime state and
// /proc are read; "container.poll_ms" (default 2000) how often.
//
// Threads: messages and polls run on the task's own thread; the lock guards
// what the status and tests read from other threads.

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <Poco/Logger.h>
#include <Poco/Mutex.h>

#include "ContainerCollector.h"
#include "container/ContainerMessage.h"
#include "framework/Task.h"
#include "message/AbstructMessage.h"

namespace Container {

class ContainerCollectTask : public Framework::Task,
                             public Engine::AbstructMessage<Engine::ContainerRegisterMessage>::Receiver {
public:
    static constexpr const char* kTaskName = "container_collect_task";
    static constexpr const char* kFeatureName = "container_collect";
    static constexpr const char* kStatusKey = "container";
    static constexpr long kDefaultPollMs = 2000;
    static constexpr long kMinPollMs = 20;
    static constexpr long kMaxPollMs = 3600 * 1000;
    // Events kept for a subscriber whose queue is full, oldest dropped first.
    static constexpr std::size_t kMaxPending = 4096;

    struct Options {
        std::string hostRoot = "/";
        long pollMs = kDefaultPollMs;
    };
    // From the engine's configuration; defaults without an engine.
    static Options OptionsFromConfig();

    explicit ContainerCollectTask(const Options& options);
    ContainerCollectTask(const Options& options,
                         std::vector<std::unique_ptr<ContainerRuntime>> runtimes);
    ~ContainerCollectTask() override;

    int Run() override;
    int Receive(const Engine::ContainerRegisterMessage& message) override;

    // For the status and for tests waiting on the collector.
    uint64_t PollCount() const { return m_polls.load(std::memory_order_acquire); }
    std::size_t SubscriberCount();
    long PollMs() const { return m_pollMs; }

private:
    struct Subscriber {
        Framework::MailboxRef task;
        std::deque<std::shared_ptr<Engine::ContainerInfo>> pending;
        bool overflowLogged = false;
    };

    void Poll();
    // Sends what is pending for `sub`, in order, until one send fails.
    // false when the subscriber no longer exists and should be dropped.
    bool Flush(Subscriber& sub);
    void Queue(Subscriber& sub, const std::shared_ptr<Engine::ContainerInfo>& info);
    void PublishStatus();

    Poco::Logger* m_logger;
    const long m_pollMs;
    Poco::FastMutex m_mutex;  // guards the collector and the subscribers
    ContainerCollector m_collector;
    std::vector<Subscriber> m_subscribers;
    int64_t m_lastPollMs = 0;  // wall clock of the last poll
    std::atomic<uint64_t> m_polls{0};
};

}  // namespace Container
