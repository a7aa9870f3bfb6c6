#pragma once
// The logic of the file-notify service: registrations of consumers,
// recursive inotify watches shared between registrations, coalescing of
// repeated modifications, delivery with retry, and the recovery paths
// (queue overflow, deleted or moved roots, watch exhaustion).
//
// Not thread-safe: everything runs on the file-notify task's thread. Only
// Interrupt may be called from elsewhere.
//
// What a consumer receives, one notification per changed file:
//  - IN_CREATE   a file created in a watched directory, once its writer
//                closed it (IN_CLOSE_WRITE) or it stayed quiet for quietMs;
//                also every file found in a directory that appears
//  - IN_MODIFY   the same for a file that existed already
//  - IN_MOVED_TO a file moved in, at once; also each file inside a
//                directory that is moved in
//  - IN_CREATE|IN_ISDIR, IN_MOVED_TO|IN_ISDIR for a directory that appears
// A file deleted or moved out leaves nothing to check at its path and is not
// reported. Paths are the registration's path as given, joined with the
// relative path of the file.

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <Poco/Logger.h>
#include <json/json.h>

#include "InotifyWatcher.h"
#include "framework/Mailbox.h"

namespace FileNotify {

struct Options {
    // A file written without closing is reported after this much quiet...
    int quietMs = 200;
    // ...and at least this often while a writer keeps changing it.
    int maxDelayMs = 5000;
    // After a queue overflow, files changed since this long before the queue
    // was last seen empty are reported (covers timestamp granularity).
    int rescanMarginMs = 2000;
    // How often a watched root that is missing is looked for again.
    int reattachMs = 2000;
};

// Where notifications go. Full: the consumer's queue is full (or it is not
// draining it yet), try again later. Gone: the consumer no longer exists.
class NotificationSink {
public:
    enum class Result { Delivered, Full, Gone, Skipped };
    virtual ~NotificationSink() = default;
    virtual Result Send(const Framework::MailboxRef& consumer, const std::string& consumerName, uint32_t mask,
                        const std::string& path, unsigned long extParm) = 0;
};

struct WatchRequest {
    Framework::MailboxRef consumer;
    std::string consumerName;
    std::string path;
    uint32_t mask = 0;  // events the consumer wants
    unsigned long extParm = 0;
    bool recursive = true;
    bool coalesce = true;
};

class WatchService {
public:
    WatchService(std::unique_ptr<Watcher> watcher, NotificationSink& sink, const Options& options,
                 Poco::Logger* logger);
    ~WatchService();
    WatchService(const WatchService&) = delete;
    WatchService& operator=(const WatchService&) = delete;

    // A request for a (consumer, path, extParm) that is registered already
    // only updates its event mask.
    void AddRegistration(const WatchRequest& request);
    // Stops the registration and the watches of its subtree that no other
    // registration uses. false when nothing matched.
    bool RemoveRegistration(const Framework::MailboxRef& consumer, const std::string& path,
                            unsigned long extParm);

    // Waits up to timeoutMs for inotify events and handles up to maxEvents.
    // Returns how many were handled, -1 when the watcher is not usable.
    int PollOnce(int timeoutMs, size_t maxEvents);
    // Periodic work: due coalesced files, delivery retries, missing roots.
    void Tick();
    // How long PollOnce may wait before Tick has work, at most capMs.
    int NextWaitMs(int capMs) const;
    void Interrupt();

    Json::Value Status() const;
    size_t WatchCount() const { return m_dirs.size(); }
    size_t RegistrationCount() const { return m_regs.size(); }
    size_t PendingCount() const;
    uint64_t Overflows() const { return m_overflows; }
    uint64_t Notifications() const { return m_notifications; }
    bool WatcherOpen() const { return m_watcher->IsOpen(); }

private:
    using RegId = uint64_t;

    struct Registration {
        RegId id = 0;
        WatchRequest req;
        std::map<std::string, int> dirs;  // path relative to the root ("" = root) -> wd
        bool attached = false;
        bool reportOnAttach = false;  // the root was missing: its files are new when it appears
        int64_t nextAttachMs = 0;
        int lastAttachError = 0;  // logged once per distinct error
        int64_t goneSinceMs = -1;  // when the root vanished, while it stays away
        bool exhaustionWarned = false;
        size_t unwatched = 0;  // directories left unwatched for lack of watches
        std::string firstUnwatched;
    };

    struct DirWatch {
        std::map<RegId, std::string> users;  // registration -> relative path
    };

    // Coalesced change of one file for one consumer.
    using PendingKey = std::tuple<Framework::MailboxRef, unsigned long, std::string>;
    struct Pending {
        int wd = -1;  // directory watch the file was seen through
        RegId reg = 0;
        uint32_t bits = 0;  // IN_CREATE / IN_MODIFY seen
        int64_t firstMs = 0;
        int64_t lastMs = 0;
    };

    struct Outgoing {
        uint32_t mask = 0;
        std::string path;
        unsigned long extParm = 0;
    };
    struct Outbox {
        std::string consumerName;
        std::deque<Outgoing> queue;
        std::set<std::pair<unsigned long, std::string>> queued;
        bool overflowWarned = false;
    };

    enum class WalkMode {
        WatchOnly,  // a new registration: existing files are the scheduled scan's job
        NewDir,     // a directory created: its files are new
        MovedIn,    // a directory moved in: its files are complete, report at once
        Rescan,     // after an overflow: new directories and recently changed files
    };
    struct WalkStats {
        size_t files = 0;
        size_t newDirs = 0;
        size_t droppedDirs = 0;
    };

    void HandleEvent(const WatchEvent& ev);
    void HandleDirEvent(const WatchEvent& ev, const std::vector<std::pair<RegId, std::string>>& users);
    void HandleFileEvent(const WatchEvent& ev, const std::vector<std::pair<RegId, std::string>>& users);
    void HandleGone(int wd, const char* what);
    void HandleOverflow();

    void Attach(Registration& reg);
    void Detach(Registration& reg);
    int AddDir(Registration& reg, const std::string& rel);
    void DropSubtree(Registration& reg, const std::string& rel);
    void DetachUser(int wd, RegId reg);
    WalkStats Walk(Registration& reg, const std::string& startRel, WalkMode mode, int64_t sinceNs);
    void WarnExhaustion(Registration& reg);

    void MarkPending(const Registration& reg, int wd, const std::string& path, uint32_t bit);
    void CancelPending(const Registration& reg, const std::string& path);
    void FlushPending(const PendingKey& key, const Pending& pending);
    void FlushDue(int64_t nowMs);
    uint32_t WantedMask(const Framework::MailboxRef& consumer, unsigned long extParm, int wd, RegId fallback) const;
    void Emit(const Registration& reg, uint32_t mask, const std::string& path);
    void Emit(const Framework::MailboxRef& consumer, const std::string& consumerName, unsigned long extParm,
              uint32_t mask, const std::string& path);
    void RetryOutboxes();
    void ReleaseGoneConsumers();
    // Raises or clears "filenotify.inotify", "filenotify.watches" (roots
    // asked for but not watched) and "filenotify.watch_limit".
    void UpdateHealth();
    // A container root that vanished moments ago: the container is most
    // likely being removed, which the container service confirms shortly.
    static bool InContainerGrace(const Registration& reg, int64_t now);
    void SetHealth(const std::string& key, const std::string& reason);

    Registration* FindReg(RegId id);
    std::string FullPath(const Registration& reg, const std::string& rel) const;

    std::unique_ptr<Watcher> m_watcher;
    NotificationSink& m_sink;
    Options m_options;
    Poco::Logger* m_logger;

    RegId m_nextId = 1;
    std::map<RegId, Registration> m_regs;
    std::map<int, DirWatch> m_dirs;  // wd -> users
    std::map<PendingKey, Pending> m_pending;
    int64_t m_nextFlushMs = -1;
    std::map<Framework::MailboxRef, Outbox> m_outboxes;
    std::vector<WatchEvent> m_events;

    int64_t m_lastDrainNs = 0;  // wall clock when the inotify queue was last seen empty
    uint64_t m_overflows = 0;
    uint64_t m_notifications = 0;
    uint64_t m_dropped = 0;  // notifications for consumers that are gone
    uint64_t m_skipped = 0;  // for consumers that are not running event loops
    // Consumers found gone since the last Tick; released there, outside any
    // walk that still holds a registration.
    std::map<Framework::MailboxRef, std::string> m_goneConsumers;
    int64_t m_lastReadErrorLogMs = 0;
    std::map<std::string, std::string> m_healthRaised;  // key -> reason given ("" cleared)
};

}  // namespace FileNotify
