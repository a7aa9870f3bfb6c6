#pragma once
// "filenotify_task": the resident task of libfilenotify_module.so. It takes
// FileNotifyWatchMessage requests from other tasks and sends each
// registered consumer one Engine::FileNotifyMessage per changed file (see
// WatchService.h for what is reported and when).
//
// Its thread alternates between the inotify descriptor and its inbound
// queue: poll with a short timeout (cut short by new messages and by
// cancellation), handle events, handle messages, then the periodic work.

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include <Poco/Logger.h>
#include <json/json.h>

#include "InotifyWatcher.h"
#include "WatchService.h"
#include "framework/Task.h"

namespace FileNotify {

class FileNotifyTask : public Framework::Task, private NotificationSink {
public:
    static const char* const kTaskName;    // "filenotify_task"
    static const char* const kStatusKey;   // "filenotify"

    // Reads "filenotify.quiet_ms" and "filenotify.max_delay_ms" from the
    // engine's configuration; defaults without an engine.
    static Options OptionsFromConfig();

    // `watcher` null: a real inotify instance.
    explicit FileNotifyTask(const Options& options = OptionsFromConfig(),
                            std::unique_ptr<Watcher> watcher = nullptr,
                            unsigned int queueSize = 1024);
    ~FileNotifyTask() override;

    int Run() override;
    int HandleMsg(std::shared_ptr<Framework::Message>& msg) override;
    void cancel() override;

    // Figures, readable from any thread. Published with release order, so a
    // reader that sees a figure also sees the work that led to it.
    uint64_t Notifications() const { return m_notifications.load(std::memory_order_acquire); }
    uint64_t Overflows() const { return m_overflows.load(std::memory_order_acquire); }
    uint64_t Watches() const { return m_watches.load(std::memory_order_acquire); }
    uint64_t Pending() const { return m_pending.load(std::memory_order_acquire); }
    uint64_t Registrations() const { return m_registrations.load(std::memory_order_acquire); }

private:
    Result Send(const Framework::MailboxRef& consumer, const std::string& consumerName,
                uint32_t mask, const std::string& path, unsigned long extParm) override;
    void PublishStatus(bool force);
    void UpdateFigures();

    Poco::Logger* m_logger;
    std::unique_ptr<WatchService> m_service;
    Json::Value m_lastStatus;
    int64_t m_lastPublishMs = 0;
    std::atomic<uint64_t> m_notifications{0};
    std::atomic<uint64_t> m_overflows{0};
    std::atomic<uint64_t> m_watches{0};
    std::atomic<uint64_t> m_pending{0};
    std::atomic<uint64_t> m_registrations{0};
};

}  // namespace FileNotify
