#include "FileNotifyTask.h"

#include <exception>

#include <Poco/Message.h>

#include "filenotify/FileNotifyMessage.h"
#include "framework/Engine.h"
#include "framework/StatusBoard.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"
#include "sdk/TimeUtils.h"

namespace FileNotify {

namespace {

const char* const kSource = "module/module_filenotify/src/FileNotifyTask";
// Longest wait for inotify events before the queue and the periodic work
// are looked at again (new messages and cancellation cut it short).
constexpr int kPollMs = 200;
constexpr size_t kMaxEventsPerRound = 4096;
constexpr int kMaxMessagesPerRound = 128;
// How stale `ctl status` may be.
constexpr int64_t kStatusIntervalMs = 100;
constexpr int kMaxQuietMs = 60000;

int ReadIntKey(Framework::Engine* engine, const std::string& key, int def, Poco::Logger* logger)
{
    try {
        return engine->config().getInt(key, def);
    } catch (const std::exception& e) {
        SDK_LOG(logger, Poco::Message::PRIO_WARNING, kSource,
                "Configuration %s is not a number (%s); using %d.", key, std::string(e.what()),
                def);
        return def;
    }
}

}  // namespace

const char* const FileNotifyTask::kTaskName = "filenotify_task";
const char* const FileNotifyTask::kStatusKey = "filenotify";

Options FileNotifyTask::OptionsFromConfig()
{
    Options options;
    Framework::Engine* engine = Framework::Engine::GetInstance();
    if (engine == nullptr) {
        return options;
    }
    Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger("filenotify_module", false);
    int quiet = ReadIntKey(engine, "filenotify.quiet_ms", options.quietMs, logger);
    int maxDelay = ReadIntKey(engine, "filenotify.max_delay_ms", options.maxDelayMs, logger);
    if (quiet < 0 || quiet > kMaxQuietMs) {
        SDK_LOG(logger, Poco::Message::PRIO_WARNING, kSource,
                "filenotify.quiet_ms=%d is outside 0..%d; using %d.", quiet, kMaxQuietMs,
                options.quietMs);
        quiet = options.quietMs;
    }
    options.quietMs = quiet;
    options.maxDelayMs = maxDelay < quiet ? quiet : maxDelay;
    return options;
}

FileNotifyTask::FileNotifyTask(const Options& options, std::unique_ptr<Watcher> watcher,
                               unsigned int queueSize)
    : Framework::Task(kTaskName, "filenotify", Framework::TaskCondition::TASK_TYPE_RESIDENT,
                      queueSize),
      m_logger(SDK::LoggerUtils::GetInstance()->GetModuleLogger("filenotify_module", false))
{
    if (!watcher) {
        watcher = std::make_unique<InotifyWatcher>();
    }
    NotificationSink& sink = *this;
    m_service = std::make_unique<WatchService>(std::move(watcher), sink, options, m_logger);
    // The thread waits in inotify's poll: a new request cuts that short.
    WatchService* service = m_service.get();
    GetMailbox().Lock()->SetWakeHook([service] { service->Interrupt(); });
}

FileNotifyTask::~FileNotifyTask()
{
    // Before the service goes: no sender reaches it from here on.
    GetMailbox().Lock()->SetWakeHook(nullptr);
    Framework::StatusBoard::Remove(kStatusKey);
}

void FileNotifyTask::cancel()
{
    Framework::Task::cancel();
    m_service->Interrupt();
}

int FileNotifyTask::Run()
{
    SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource, "%s started.",
            std::string(kTaskName));
    PublishStatus(true);
    while (!IsCancelling()) {
        GetEventWaiter().HandlePending(kMaxMessagesPerRound);
        if (IsCancelling()) {
            break;
        }
        int wait = m_service->NextWaitMs(kPollMs);
        if (m_service->PollOnce(wait, kMaxEventsPerRound) < 0) {
            // No usable inotify instance: still serve requests and retries.
            GetEventWaiter().WaitAndHandleEvent(wait, kMaxMessagesPerRound);
        }
        m_service->Tick();
        UpdateFigures();
        PublishStatus(false);
    }
    PublishStatus(true);
    SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource, "%s stopped.",
            std::string(kTaskName));
    return 0;
}

int FileNotifyTask::HandleMsg(std::shared_ptr<Framework::Message>& msg)
{
    auto* watch = dynamic_cast<Engine::FileNotifyWatchMessage*>(msg.get());
    if (watch == nullptr) {
        return 0;  // nothing else is addressed to this task
    }
    const Engine::_FileNotifyOpt& opt = watch->GetOpt();
    const Framework::MailboxRef& sender = watch->GetSender();
    if (sender.Empty()) {
        SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource,
                "Watch request for %s names no task to notify; ignored.", watch->GetPath());
        return -1;
    }
    if (opt.addWatch != 0) {
        WatchRequest req;
        req.consumer = sender;
        req.consumerName = sender.Name();
        req.path = watch->GetPath();
        req.mask = watch->GetMask();
        req.extParm = static_cast<unsigned long>(opt.extParm);
        req.recursive = opt.recursive != 0;
        req.coalesce = opt.coalesce != 0;
        m_service->AddRegistration(req);
    } else {
        // Anything that is not an addition is a removal.
        m_service->RemoveRegistration(sender, watch->GetPath(),
                                      static_cast<unsigned long>(opt.extParm));
    }
    UpdateFigures();
    PublishStatus(true);
    return 0;
}

NotificationSink::Result FileNotifyTask::Send(const Framework::MailboxRef& consumer,
                                              const std::string& /*consumerName*/, uint32_t mask,
                                              const std::string& path, unsigned long extParm)
{
    std::shared_ptr<Framework::Mailbox> box = consumer.Lock();
    if (!box || box->Closed()) {
        return Result::Gone;
    }
    // Notifications are for event loops: a scheduled or on-demand task that
    // asked for a watch (after an asset update) would only report the file a
    // second time, and a stopped one would let them pile up.
    if (box->OwnerType() != Framework::TaskCondition::TASK_TYPE_RESIDENT ||
        box->OwnerState() == Poco::Task::TASK_FINISHED) {
        return Result::Skipped;
    }
    // A task that is not draining its queue (full, or not started yet) gets
    // the notification later; a retry builds a new message.
    return box->Post(std::make_shared<Engine::FileNotifyMessage>(mask, path, extParm)) ? Result::Delivered
                                                                                       : Result::Full;
}

void FileNotifyTask::PublishStatus(bool force)
{
    int64_t now = static_cast<int64_t>(SDK::TimeUtils::GetCurrentSystemTickUsed());
    if (!force && now - m_lastPublishMs < kStatusIntervalMs) {
        return;
    }
    m_lastPublishMs = now;
    Json::Value status = m_service->Status();
    if (force || status != m_lastStatus) {
        Framework::StatusBoard::Publish(kStatusKey, status);
        m_lastStatus = status;
    }
}

void FileNotifyTask::UpdateFigures()
{
    m_notifications.store(m_service->Notifications(), std::memory_order_release);
    m_overflows.store(m_service->Overflows(), std::memory_order_release);
    m_watches.store(m_service->WatchCount(), std::memory_order_release);
    m_pending.store(m_service->PendingCount(), std::memory_order_release);
    m_registrations.store(m_service->RegistrationCount(), std::memory_order_release);
}

}  // namespace FileNotify
