#include "ContainerCollectTask.h"

#include <algorithm>

#include <Poco/Exception.h>
#include <json/json.h>

#include "framework/Engine.h"
#include "framework/StatusBoard.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"
#include "sdk/TimeUtils.h"

namespace Container {

namespace {

const char* const kSource = "module/module_container/src/ContainerCollectTask";
constexpr unsigned int kQueueSize = 1024;
constexpr int kMaxWaitMs = 200;
constexpr int kMaxMessagesPerWake = 128;
constexpr Json::ArrayIndex kMaxStatusProblems = 50;

Poco::Logger* ModuleLogger()
{
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("container_module", false);
}

}  // namespace

ContainerCollectTask::Options ContainerCollectTask::OptionsFromConfig()
{
    Options options;
    Framework::Engine* engine = Framework::Engine::GetInstance();
    if (engine == nullptr) {
        return options;
    }
    auto& config = engine->config();
    options.hostRoot = config.getString("agent.host_root", "/");
    if (options.hostRoot.empty()) {
        options.hostRoot = "/";
    }
    try {
        options.pollMs = config.getInt("container.poll_ms", static_cast<int>(kDefaultPollMs));
    } catch (const Poco::Exception& e) {
        SDK_LOG(ModuleLogger(), Poco::Message::PRIO_WARNING, kSource,
                "container.poll_ms is not a number (%s); polling every %ld ms", e.displayText(),
                kDefaultPollMs);
        options.pollMs = kDefaultPollMs;
    }
    return options;
}

ContainerCollectTask::ContainerCollectTask(const Options& options)
    : ContainerCollectTask(options, MakeDefaultRuntimes())
{
}

ContainerCollectTask::ContainerCollectTask(const Options& options,
                                           std::vector<std::unique_ptr<ContainerRuntime>> runtimes)
    : Framework::Task(kTaskName, kFeatureName, Framework::TaskCondition::TASK_TYPE_RESIDENT,
                      kQueueSize),
      m_logger(ModuleLogger()),
      m_pollMs(std::min(std::max(options.pollMs, kMinPollMs), kMaxPollMs)),
      m_collector(options.hostRoot.empty() ? std::string("/") : options.hostRoot,
                  std::move(runtimes), m_logger)
{
    if (m_pollMs != options.pollMs) {
        SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource,
                "container.poll_ms %ld is out of range (%ld..%ld); polling every %ld ms",
                options.pollMs, kMinPollMs, kMaxPollMs, m_pollMs);
    }
}

ContainerCollectTask::~ContainerCollectTask() = default;

int ContainerCollectTask::Run()
{
    SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource,
            "%s started: reading container runtime state under %s every %ld ms", GetTaskName(),
            m_collector.HostRoot(), m_pollMs);
    unsigned long nextPoll = SDK::TimeUtils::GetCurrentSystemTickUsed();
    while (!IsCancelling()) {
        unsigned long now = SDK::TimeUtils::GetCurrentSystemTickUsed();
        if (now >= nextPoll) {
            Poll();
            nextPoll = SDK::TimeUtils::GetCurrentSystemTickUsed() + static_cast<unsigned long>(m_pollMs);
            now = SDK::TimeUtils::GetCurrentSystemTickUsed();
        }
        long untilPoll = nextPoll > now ? static_cast<long>(nextPoll - now) : 0;
        int waitMs = static_cast<int>(std::min<long>(untilPoll, kMaxWaitMs));
        GetEventWaiter().WaitAndHandleEvent(std::max(waitMs, 1), kMaxMessagesPerWake);
    }
    SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource, "%s stopped after %Lu polls",
            GetTaskName(), static_cast<Poco::UInt64>(PollCount()));
    Framework::StatusBoard::Remove(kStatusKey);
    return 0;
}

int ContainerCollectTask::Receive(const Engine::ContainerRegisterMessage& message)
{
    if (message.subscriber.Empty()) {
        SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource,
                "%s: container (un)subscription without a task ignored", GetTaskName());
        return -1;
    }
    Poco::FastMutex::ScopedLock lock(m_mutex);
    auto it = std::find_if(m_subscribers.begin(), m_subscribers.end(),
                           [&](const Subscriber& s) { return s.task == message.subscriber; });
    const std::string who = message.subscriber.Name();
    if (message.subscribe) {
        if (it == m_subscribers.end()) {
            m_subscribers.push_back(Subscriber());
            m_subscribers.back().task = message.subscriber;
            it = m_subscribers.end() - 1;
        }
        // A subscriber that asks again gets the running set again.
        auto running = m_collector.Running();
        for (const auto& info : running) {
            Queue(*it, info);
        }
        SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource,
                "task %s subscribed to container events; sending it the %z running containers",
                who, running.size());
        if (!Flush(*it)) {
            m_subscribers.erase(it);
        }
    } else if (it != m_subscribers.end()) {
        SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource,
                "task %s unsubscribed from container events (%z undelivered events dropped)", who,
                it->pending.size());
        m_subscribers.erase(it);
    } else {
        SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource,
                "task %s unsubscribed from container events without a subscription: accepted, "
                "nothing to stop",
                who);
    }
    PublishStatus();
    return 0;
}

std::size_t ContainerCollectTask::SubscriberCount()
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    return m_subscribers.size();
}

void ContainerCollectTask::Poll()
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    auto changes = m_collector.Poll();
    for (auto it = m_subscribers.begin(); it != m_subscribers.end();) {
        for (const auto& info : changes) {
            Queue(*it, info);
        }
        if (Flush(*it)) {
            ++it;
        } else {
            it = m_subscribers.erase(it);
        }
    }
    m_lastPollMs = SDK::TimeUtils::GetCurrentTimestampMS();
    m_polls.fetch_add(1, std::memory_order_acq_rel);
    PublishStatus();
}

void ContainerCollectTask::Queue(Subscriber& sub, const std::shared_ptr<Engine::ContainerInfo>& info)
{
    sub.pending.push_back(info);
    if (sub.pending.size() > kMaxPending) {
        sub.pending.pop_front();
        if (!sub.overflowLogged) {
            sub.overflowLogged = true;
            SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource,
                    "task %s does not take container events; keeping the newest %z, dropping "
                    "older ones",
                    sub.task.Name(), kMaxPending);
        }
    }
}

bool ContainerCollectTask::Flush(Subscriber& sub)
{
    while (!sub.pending.empty()) {
        const auto& info = sub.pending.front();
        // The framework owns the message from here, sent or not.
        if (sub.task.Post(std::make_shared<Engine::ContainerMessage>(info->running, info))) {
            sub.pending.pop_front();
            sub.overflowLogged = false;
            continue;
        }
        if (sub.task.Alive()) {
            // Its queue is full: keep the events, in order, for the next poll.
            SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource,
                    "task %s has no room for container events; %z kept for the next poll",
                    sub.task.Name(), sub.pending.size());
            return true;
        }
        SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource,
                "subscriber %s no longer exists and never unsubscribed; dropped with %z "
                "undelivered container events",
                sub.task.Name(), sub.pending.size());
        return false;
    }
    return true;
}

void ContainerCollectTask::PublishStatus()
{
    Json::Value status(Json::objectValue);
    Json::Value containers(Json::arrayValue);
    for (const auto& info : m_collector.Running()) {
        Json::Value c(Json::objectValue);
        c["id"] = info->id;
        c["name"] = info->name;
        c["image"] = info->imageName;
        c["runtime"] = info->text1;
        c["namespace"] = info->text2;
        c["rootPath"] = info->rootPath;
        c["pid"] = info->text4;
        if (!info->text5.empty()) {
            c["pod"] = info->text6.empty() ? info->text5 : info->text6 + "/" + info->text5;
        }
        containers.append(c);
    }
    Json::Value problems(Json::arrayValue);
    for (const auto& p : m_collector.Problems()) {
        if (problems.size() >= kMaxStatusProblems) {
            break;  // the log has every one of them
        }
        Json::Value item(Json::objectValue);
        item["path"] = p.path;
        item["reason"] = p.reason;
        problems.append(item);
    }
    status["containers"] = containers;
    status["subscribers"] = static_cast<Json::UInt64>(m_subscribers.size());
    status["last_poll_ms"] = static_cast<Json::Int64>(m_lastPollMs);
    status["polls"] = static_cast<Json::UInt64>(m_polls.load(std::memory_order_relaxed));
    status["poll_ms"] = static_cast<Json::Int64>(m_pollMs);
    status["host_root"] = m_collector.HostRoot();
    status["problems"] = problems;
    status["problems_total"] = static_cast<Json::UInt64>(m_collector.Problems().size());
    Framework::StatusBoard::Publish(kStatusKey, status);
}

}  // namespace Container
