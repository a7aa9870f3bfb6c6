#include "WatchService.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include <Poco/Message.h>

#include "framework/Health.h"
#include "sdk/LogMacros.h"
#include "sdk/Posix.h"
#include "sdk/TimeUtils.h"

namespace FileNotify {

namespace {

const char* const kSource = "module/module_filenotify/src/WatchService";

// What every directory watch asks the kernel for, whatever the consumer
// wants: the consumer's mask only filters what is delivered.
constexpr uint32_t kDirMask = IN_CREATE | IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO |
                              IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR |
                              IN_EXCL_UNLINK;
constexpr uint32_t kDefaultWanted = IN_CREATE | IN_MODIFY | IN_MOVED_TO;
// While an outbox waits for room in a consumer's queue.
constexpr int kRetryWaitMs = 10;
// A container's root vanishes whenever the container is removed; the container
// service confirms the stop at its next poll (every 2 s) and the registration
// goes. Until this long after, a vanished container root is not an alarm.
constexpr int64_t kContainerGoneGraceMs = 10000;
constexpr int64_t kReadErrorLogIntervalMs = 60000;
// Changed paths kept for one consumer that does not drain its queue (about
// 30 MB); beyond that they are dropped with a warning.
constexpr size_t kMaxOutbox = 200000;

int64_t NowMs()
{
    return static_cast<int64_t>(SDK::TimeUtils::GetCurrentSystemTickUsed());
}

int64_t WallNs()
{
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

int64_t ToNs(const struct timespec& ts)
{
    return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

std::string JoinRel(const std::string& rel, const std::string& name)
{
    return rel.empty() ? name : rel + "/" + name;
}

bool InSubtree(const std::string& rel, const std::string& top)
{
    if (top.empty()) {
        return true;
    }
    return rel.compare(0, top.size(), top) == 0 &&
           (rel.size() == top.size() || rel[top.size()] == '/');
}

std::string ReadSysctl(const char* path)
{
    std::string value;
    if (!SDK::ReadRegularFile(path, 64, value).ok()) {
        return "unknown";
    }
    value.erase(value.find_last_not_of(" \n") + 1);
    return value.empty() ? "unknown" : value;
}

}  // namespace

WatchService::WatchService(std::unique_ptr<Watcher> watcher, NotificationSink& sink,
                           const Options& options, Poco::Logger* logger)
    : m_watcher(std::move(watcher)), m_sink(sink), m_options(options), m_logger(logger)
{
    m_lastDrainNs = WallNs();
    if (!m_watcher->IsOpen()) {
        SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource,
                "File notification is off: cannot create an inotify instance (%s; the limit per "
                "user is fs.inotify.max_user_instances=%s). Watch requests are kept but nothing "
                "is watched.",
                m_watcher->Error(), ReadSysctl("/proc/sys/fs/inotify/max_user_instances"));
    }
}

WatchService::~WatchService()
{
    for (const auto& entry : m_healthRaised) {
        if (!entry.second.empty()) {
            Framework::Health::Clear(entry.first);
        }
    }
}

std::string WatchService::FullPath(const Registration& reg, const std::string& rel) const
{
    if (rel.empty()) {
        return reg.req.path;
    }
    const std::string& root = reg.req.path;
    if (!root.empty() && root.back() == '/') {
        return root + rel;
    }
    return root + "/" + rel;
}

WatchService::Registration* WatchService::FindReg(RegId id)
{
    auto it = m_regs.find(id);
    return it == m_regs.end() ? nullptr : &it->second;
}

size_t WatchService::PendingCount() const
{
    size_t n = m_pending.size();
    for (const auto& entry : m_outboxes) {
        n += entry.second.queue.size();
    }
    return n;
}

void WatchService::Interrupt()
{
    m_watcher->Interrupt();
}

// ---------------------------------------------------------------------------
// Registrations

void WatchService::AddRegistration(const WatchRequest& request)
{
    WatchRequest req = request;
    if (req.path.empty() || req.path[0] != '/') {
        SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource,
                "Refused to watch \"%s\" for task %s: not an absolute path.", req.path,
                req.consumerName);
        return;
    }
    if (req.mask == 0) {
        req.mask = kDefaultWanted;
    }
    for (auto& entry : m_regs) {
        Registration& reg = entry.second;
        if (reg.req.consumer == req.consumer && reg.req.path == req.path &&
            reg.req.extParm == req.extParm) {
            reg.req.mask = req.mask;
            reg.req.coalesce = req.coalesce;
            SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource,
                    "%s is watched for task %s already (ext %?d); events updated to 0x%x.",
                    req.path, req.consumerName, req.extParm, req.mask);
            return;
        }
    }
    RegId id = m_nextId++;
    Registration& reg = m_regs[id];
    reg.id = id;
    reg.req = req;
    Attach(reg);
    SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource,
            "Watching %s for task %s (ext %?d, events 0x%x%s): %z directories watched.", req.path,
            req.consumerName, req.extParm, req.mask,
            std::string(req.recursive ? ", recursive" : ""), reg.dirs.size());
}

bool WatchService::RemoveRegistration(const Framework::MailboxRef& consumer, const std::string& path,
                                      unsigned long extParm)
{
    for (auto it = m_regs.begin(); it != m_regs.end(); ++it) {
        Registration& reg = it->second;
        if (reg.req.consumer != consumer || reg.req.path != path || reg.req.extParm != extParm) {
            continue;
        }
        size_t before = m_dirs.size();
        DropSubtree(reg, "");
        SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource,
                "Stopped watching %s for task %s (ext %?d): %z directory watches released.", path,
                reg.req.consumerName, extParm, before - m_dirs.size());
        m_regs.erase(it);
        return true;
    }
    SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource,
            "Request to stop watching %s (ext %?d) matches no watch of that task; nothing done.",
            path, extParm);
    return false;
}

void WatchService::Attach(Registration& reg)
{
    if (!m_watcher->IsOpen()) {
        return;
    }
    // A root that appears (again) holds new files; one that was there all
    // along is the scheduled scan's business.
    bool reportFiles = reg.reportOnAttach;
    reg.unwatched = 0;
    reg.firstUnwatched.clear();
    int wd = AddDir(reg, "");
    if (wd < 0) {
        int err = -wd;
        reg.nextAttachMs = NowMs() + m_options.reattachMs;
        if (err == ENOENT) {
            reg.reportOnAttach = true;
        }
        if (err != reg.lastAttachError && err != ENOSPC) {
            if (err == ENOENT) {
                SDK_LOG(m_logger, InContainerGrace(reg, NowMs()) ? Poco::Message::PRIO_INFORMATION
                                                                 : Poco::Message::PRIO_WARNING,
                        kSource,
                        "Cannot watch %s for task %s: it does not exist; it is watched as soon "
                        "as it appears.",
                        reg.req.path, reg.req.consumerName);
            } else {
                SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource,
                        "Cannot watch %s for task %s: %s; trying again every %d ms.",
                        reg.req.path, reg.req.consumerName, SDK::ErrnoText(err),
                        m_options.reattachMs);
            }
        }
        reg.lastAttachError = err;
        WarnExhaustion(reg);
        return;
    }
    if (reg.lastAttachError != 0) {
        SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource,
                "%s exists again and is watched for task %s.", reg.req.path,
                reg.req.consumerName);
    }
    reg.lastAttachError = 0;
    reg.reportOnAttach = false;
    reg.attached = true;
    reg.goneSinceMs = -1;
    if (reg.req.recursive || reportFiles) {
        WalkStats stats = Walk(reg, "", reportFiles ? WalkMode::NewDir : WalkMode::WatchOnly, 0);
        if (reportFiles && stats.files > 0) {
            SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource,
                    "%s reappeared: %z files in it reported to task %s.", reg.req.path,
                    stats.files, reg.req.consumerName);
        }
    }
    WarnExhaustion(reg);
}

void WatchService::Detach(Registration& reg)
{
    DropSubtree(reg, "");
    reg.attached = false;
    reg.reportOnAttach = true;
    reg.nextAttachMs = NowMs() + m_options.reattachMs;
}

int WatchService::AddDir(Registration& reg, const std::string& rel)
{
    std::string full = FullPath(reg, rel);
    // The root may be a link the operator named; below it links are not
    // followed, so a link to a directory is never descended.
    uint32_t mask = kDirMask | (rel.empty() ? 0 : IN_DONT_FOLLOW);
    int wd = m_watcher->AddWatch(full, mask);
    if (wd < 0) {
        int err = -wd;
        if (err == ENOSPC) {
            if (reg.unwatched++ == 0) {
                reg.firstUnwatched = full;
            }
        } else if (!rel.empty() && err != ENOENT && err != ENOTDIR && err != ELOOP) {
            // ENOENT/ENOTDIR/ELOOP below the root: the entry went away or was
            // replaced meanwhile, which the parent's events cover.
            SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource,
                    "Cannot watch directory %s for task %s: %s; changes inside it are not "
                    "reported.",
                    full, reg.req.consumerName, SDK::ErrnoText(err));
        }
        return wd;
    }
    auto old = reg.dirs.find(rel);
    if (old != reg.dirs.end() && old->second != wd) {
        DetachUser(old->second, reg.id);  // the path names another directory now
    }
    m_dirs[wd].users.emplace(reg.id, rel);
    reg.dirs[rel] = wd;
    return wd;
}

void WatchService::DetachUser(int wd, RegId reg)
{
    auto it = m_dirs.find(wd);
    if (it == m_dirs.end()) {
        return;
    }
    it->second.users.erase(reg);
    if (it->second.users.empty()) {
        m_watcher->RemoveWatch(wd);
        m_dirs.erase(it);
    }
}

void WatchService::DropSubtree(Registration& reg, const std::string& rel)
{
    auto it = reg.dirs.lower_bound(rel);
    while (it != reg.dirs.end() && it->first.compare(0, rel.size(), rel) == 0) {
        if (InSubtree(it->first, rel)) {
            DetachUser(it->second, reg.id);
            it = reg.dirs.erase(it);
        } else {
            ++it;
        }
    }
}

void WatchService::WarnExhaustion(Registration& reg)
{
    if (reg.unwatched == 0 || reg.exhaustionWarned) {
        return;
    }
    reg.exhaustionWarned = true;
    SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource,
            "Out of inotify watches (fs.inotify.max_user_watches=%s) while watching %s for task "
            "%s: kept %z directory watches, %z directories are not watched (first: %s). Changes "
            "there are found only by scheduled scans; raise fs.inotify.max_user_watches (sysctl "
            "-w fs.inotify.max_user_watches=N) and restart the agent to watch them.",
            ReadSysctl("/proc/sys/fs/inotify/max_user_watches"), reg.req.path,
            reg.req.consumerName, reg.dirs.size(), reg.unwatched, reg.firstUnwatched);
}

// ---------------------------------------------------------------------------
// Walking a directory tree

WatchService::WalkStats WatchService::Walk(Registration& reg, const std::string& startRel,
                                           WalkMode mode, int64_t sinceNs)
{
    WalkStats stats;
    std::vector<std::string> stack{startRel};
    std::set<std::pair<dev_t, ino_t>> seenDirs;  // a bind mount loop is walked once
    std::set<std::string> seenRels;
    bool report = mode != WalkMode::WatchOnly;

    while (!stack.empty()) {
        std::string rel = std::move(stack.back());
        stack.pop_back();
        std::string full = FullPath(reg, rel);
        bool known = reg.dirs.count(rel) > 0;
        int wd = AddDir(reg, rel);
        if (wd >= 0 && !known && mode == WalkMode::Rescan) {
            ++stats.newDirs;
        }
        // In a directory we had not watched, every file is new.
        bool fresh = mode != WalkMode::Rescan || !known;

        int flags = O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC | (rel.empty() ? 0 : O_NOFOLLOW);
        SDK::UniqueFd dfd(open(full.c_str(), flags));
        if (!dfd.Valid()) {
            continue;  // gone meanwhile, or replaced by a link
        }
        struct stat dst;
        if (fstat(dfd.Get(), &dst) != 0 || !seenDirs.insert({dst.st_dev, dst.st_ino}).second) {
            continue;
        }
        seenRels.insert(rel);
        SDK::UniqueDir dir(fdopendir(dfd.Get()));
        if (!dir.Valid()) {
            continue;
        }
        dfd.Release();  // the stream owns it now
        while (struct dirent* de = readdir(dir.Get())) {
            const char* name = de->d_name;
            if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) {
                continue;
            }
            unsigned char type = de->d_type;
            struct stat st;
            bool needStat = type == DT_UNKNOWN || (report && !fresh && type != DT_DIR);
            if (needStat) {
                if (fstatat(dirfd(dir.Get()), name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
                    continue;
                }
                type = IFTODT(st.st_mode);
            }
            std::string childRel = JoinRel(rel, name);
            if (type == DT_DIR) {
                if (reg.req.recursive) {
                    stack.push_back(childRel);
                }
                continue;
            }
            // Regular files and links are checked; FIFOs, sockets and devices
            // hold nothing to check and are never opened.
            if (!report || (type != DT_REG && type != DT_LNK)) {
                continue;
            }
            if (!fresh && std::max(ToNs(st.st_mtim), ToNs(st.st_ctim)) < sinceNs) {
                continue;
            }
            ++stats.files;
            std::string path = FullPath(reg, childRel);
            if (mode == WalkMode::MovedIn) {
                Emit(reg, IN_MOVED_TO, path);
            } else if (wd < 0 || !reg.req.coalesce) {
                // No watch on the directory: nothing will say when the writer
                // is done, so report now.
                Emit(reg, fresh ? IN_CREATE : IN_MODIFY, path);
            } else {
                MarkPending(reg, wd, path, fresh ? IN_CREATE : IN_MODIFY);
            }
        }
    }

    if (mode == WalkMode::Rescan && startRel.empty()) {
        // Directories that vanished while events were lost.
        for (auto it = reg.dirs.begin(); it != reg.dirs.end();) {
            if (seenRels.count(it->first) == 0) {
                DetachUser(it->second, reg.id);
                it = reg.dirs.erase(it);
                ++stats.droppedDirs;
            } else {
                ++it;
            }
        }
    }
    return stats;
}

// ---------------------------------------------------------------------------
// Events

int WatchService::PollOnce(int timeoutMs, size_t maxEvents)
{
    if (!m_watcher->IsOpen()) {
        return -1;
    }
    m_events.clear();
    bool drained = false;
    int n = m_watcher->ReadEvents(timeoutMs, maxEvents, m_events, drained);
    if (n < 0) {
        int64_t now = NowMs();
        if (now - m_lastReadErrorLogMs >= kReadErrorLogIntervalMs) {
            m_lastReadErrorLogMs = now;
            SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource,
                    "Reading inotify events failed: %s; retrying.", SDK::ErrnoText(-n));
        }
        return -1;
    }
    for (const WatchEvent& ev : m_events) {
        HandleEvent(ev);
    }
    if (drained) {
        m_lastDrainNs = WallNs();
    }
    return n;
}

void WatchService::HandleEvent(const WatchEvent& ev)
{
    if ((ev.mask & IN_Q_OVERFLOW) != 0) {
        HandleOverflow();
        return;
    }
    auto it = m_dirs.find(ev.wd);
    if (it == m_dirs.end()) {
        return;  // a watch released already; its last events are stale
    }
    if ((ev.mask & IN_IGNORED) != 0) {
        HandleGone(ev.wd, "is gone (deleted or unmounted)");
        return;
    }
    if ((ev.mask & IN_DELETE_SELF) != 0) {
        HandleGone(ev.wd, "was deleted");
        return;
    }
    if ((ev.mask & IN_MOVE_SELF) != 0) {
        HandleGone(ev.wd, "was moved away");
        return;
    }
    if (ev.name.empty()) {
        return;
    }
    // Handlers may add and release watches: work on a copy of the users.
    std::vector<std::pair<RegId, std::string>> users(it->second.users.begin(),
                                                     it->second.users.end());
    if ((ev.mask & IN_ISDIR) != 0) {
        HandleDirEvent(ev, users);
    } else {
        HandleFileEvent(ev, users);
    }
}

void WatchService::HandleDirEvent(const WatchEvent& ev,
                                  const std::vector<std::pair<RegId, std::string>>& users)
{
    for (const auto& user : users) {
        Registration* reg = FindReg(user.first);
        if (reg == nullptr) {
            continue;
        }
        std::string childRel = JoinRel(user.second, ev.name);
        if ((ev.mask & (IN_CREATE | IN_MOVED_TO)) != 0) {
            uint32_t kind = ev.mask & (IN_CREATE | IN_MOVED_TO);
            Emit(*reg, kind | IN_ISDIR, FullPath(*reg, childRel));
            if (reg->req.recursive) {
                // Watch first, then list: a file created in between is seen
                // by both, and coalescing merges the two.
                Walk(*reg, childRel, kind == IN_CREATE ? WalkMode::NewDir : WalkMode::MovedIn, 0);
                WarnExhaustion(*reg);
            }
        } else if ((ev.mask & (IN_MOVED_FROM | IN_DELETE)) != 0) {
            DropSubtree(*reg, childRel);
        }
    }
}

void WatchService::HandleFileEvent(const WatchEvent& ev,
                                   const std::vector<std::pair<RegId, std::string>>& users)
{
    for (const auto& user : users) {
        Registration* reg = FindReg(user.first);
        if (reg == nullptr) {
            continue;
        }
        std::string path = FullPath(*reg, JoinRel(user.second, ev.name));
        if ((ev.mask & (IN_CREATE | IN_MODIFY)) != 0) {
            uint32_t bit = (ev.mask & IN_CREATE) != 0 ? IN_CREATE : IN_MODIFY;
            if (reg->req.coalesce) {
                MarkPending(*reg, ev.wd, path, bit);
            } else {
                Emit(*reg, bit, path);
            }
        }
        if ((ev.mask & IN_CLOSE_WRITE) != 0) {
            auto it = m_pending.find(PendingKey(reg->req.consumer, reg->req.extParm, path));
            if (it != m_pending.end()) {
                Pending pending = it->second;
                PendingKey key = it->first;
                m_pending.erase(it);
                FlushPending(key, pending);
            }
        }
        if ((ev.mask & IN_MOVED_TO) != 0) {
            CancelPending(*reg, path);
            Emit(*reg, IN_MOVED_TO, path);
        }
        if ((ev.mask & (IN_MOVED_FROM | IN_DELETE)) != 0) {
            CancelPending(*reg, path);
        }
    }
}

void WatchService::HandleGone(int wd, const char* what)
{
    auto it = m_dirs.find(wd);
    if (it == m_dirs.end()) {
        return;
    }
    std::vector<std::pair<RegId, std::string>> users(it->second.users.begin(),
                                                     it->second.users.end());
    for (const auto& user : users) {
        Registration* reg = FindReg(user.first);
        if (reg == nullptr) {
            continue;
        }
        if (user.second.empty()) {
            Detach(*reg);
            reg->goneSinceMs = NowMs();
            SDK_LOG(m_logger,
                    reg->req.extParm != 0 ? Poco::Message::PRIO_INFORMATION : Poco::Message::PRIO_WARNING,
                    kSource,
                    "Watched directory %s (task %s) %s; its watches are released and the path "
                    "is watched again when a directory appears there.",
                    reg->req.path, reg->req.consumerName, std::string(what));
        } else {
            DropSubtree(*reg, user.second);
        }
    }
    // Whatever still refers to the descriptor is stale now.
    it = m_dirs.find(wd);
    if (it != m_dirs.end()) {
        m_watcher->RemoveWatch(wd);
        m_dirs.erase(it);
    }
}

void WatchService::HandleOverflow()
{
    ++m_overflows;
    int64_t sinceNs = m_lastDrainNs - static_cast<int64_t>(m_options.rescanMarginMs) * 1000000LL;
    std::string limit = ReadSysctl("/proc/sys/fs/inotify/max_queued_events");
    for (auto& entry : m_regs) {
        Registration& reg = entry.second;
        if (!reg.attached) {
            continue;
        }
        reg.unwatched = 0;
        reg.firstUnwatched.clear();
        WalkStats stats = Walk(reg, "", WalkMode::Rescan, sinceNs);
        WarnExhaustion(reg);
        SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource,
                "inotify event queue overflowed (fs.inotify.max_queued_events=%s), events were "
                "lost: rescanned %s for task %s: %z files changed since shortly before the last "
                "complete read reported, %z new directories watched, %z vanished directories "
                "released.",
                limit, reg.req.path, reg.req.consumerName, stats.files, stats.newDirs,
                stats.droppedDirs);
    }
}

// ---------------------------------------------------------------------------
// Coalescing and delivery

void WatchService::MarkPending(const Registration& reg, int wd, const std::string& path,
                               uint32_t bit)
{
    int64_t now = NowMs();
    PendingKey key(reg.req.consumer, reg.req.extParm, path);
    auto it = m_pending.find(key);
    if (it == m_pending.end()) {
        Pending pending;
        pending.wd = wd;
        pending.reg = reg.id;
        pending.bits = bit;
        pending.firstMs = now;
        pending.lastMs = now;
        m_pending.emplace(std::move(key), pending);
    } else {
        it->second.bits |= bit;
        it->second.lastMs = now;
        it->second.wd = wd;
    }
    int64_t due = now + m_options.quietMs;
    if (m_nextFlushMs < 0 || due < m_nextFlushMs) {
        m_nextFlushMs = due;
    }
}

void WatchService::CancelPending(const Registration& reg, const std::string& path)
{
    m_pending.erase(PendingKey(reg.req.consumer, reg.req.extParm, path));
}

uint32_t WatchService::WantedMask(const Framework::MailboxRef& consumer, unsigned long extParm, int wd,
                                  RegId fallback) const
{
    uint32_t wanted = 0;
    auto dir = m_dirs.find(wd);
    if (dir != m_dirs.end()) {
        for (const auto& user : dir->second.users) {
            auto reg = m_regs.find(user.first);
            if (reg != m_regs.end() && reg->second.req.consumer == consumer &&
                reg->second.req.extParm == extParm) {
                wanted |= reg->second.req.mask;
            }
        }
    } else if (wd < 0) {
        auto reg = m_regs.find(fallback);
        if (reg != m_regs.end()) {
            wanted = reg->second.req.mask;
        }
    }
    return wanted;
}

void WatchService::FlushPending(const PendingKey& key, const Pending& pending)
{
    const Framework::MailboxRef& consumer = std::get<0>(key);
    unsigned long extParm = std::get<1>(key);
    // A released watch (directory gone or moved, registration removed)
    // leaves nothing to report.
    uint32_t wanted = WantedMask(consumer, extParm, pending.wd, pending.reg);
    uint32_t mask = 0;
    if ((pending.bits & IN_CREATE & wanted) != 0) {
        mask = IN_CREATE;
    } else if ((pending.bits & IN_MODIFY & wanted) != 0) {
        mask = IN_MODIFY;
    }
    if (mask == 0) {
        return;
    }
    auto reg = m_regs.find(pending.reg);
    std::string name;
    if (reg != m_regs.end()) {
        name = reg->second.req.consumerName;
    } else {
        for (const auto& entry : m_regs) {
            if (entry.second.req.consumer == consumer) {
                name = entry.second.req.consumerName;
                break;
            }
        }
    }
    Emit(consumer, name, extParm, mask, std::get<2>(key));
}

void WatchService::FlushDue(int64_t nowMs)
{
    if (m_nextFlushMs < 0 || nowMs < m_nextFlushMs) {
        return;
    }
    int64_t next = -1;
    for (auto it = m_pending.begin(); it != m_pending.end();) {
        const Pending& p = it->second;
        int64_t due = std::min(p.lastMs + m_options.quietMs, p.firstMs + m_options.maxDelayMs);
        if (due <= nowMs) {
            Pending pending = p;
            PendingKey key = it->first;
            it = m_pending.erase(it);
            FlushPending(key, pending);
        } else {
            if (next < 0 || due < next) {
                next = due;
            }
            ++it;
        }
    }
    m_nextFlushMs = next;
}

void WatchService::Emit(const Registration& reg, uint32_t mask, const std::string& path)
{
    if ((mask & ~IN_ISDIR & reg.req.mask) == 0) {
        return;
    }
    Emit(reg.req.consumer, reg.req.consumerName, reg.req.extParm, mask, path);
}

void WatchService::Emit(const Framework::MailboxRef& consumer, const std::string& consumerName,
                        unsigned long extParm, uint32_t mask, const std::string& path)
{
    if (m_goneConsumers.count(consumer) != 0) {
        ++m_dropped;
        return;
    }
    auto box = m_outboxes.find(consumer);
    if (box == m_outboxes.end() || box->second.queue.empty()) {
        switch (m_sink.Send(consumer, consumerName, mask, path, extParm)) {
        case NotificationSink::Result::Delivered:
            ++m_notifications;
            return;
        case NotificationSink::Result::Gone:
            ++m_dropped;
            m_goneConsumers.emplace(consumer, consumerName);
            return;
        case NotificationSink::Result::Skipped:
            ++m_skipped;
            return;
        case NotificationSink::Result::Full:
            break;
        }
    }
    // Keep order behind what already waits for this consumer.
    Outbox& outbox = m_outboxes[consumer];
    outbox.consumerName = consumerName;
    if (outbox.queue.size() >= kMaxOutbox) {
        ++m_dropped;
        if (!outbox.overflowWarned) {
            outbox.overflowWarned = true;
            SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource,
                    "Task %s has not taken notifications for a while: %z changed paths wait for "
                    "it; further changes (first: %s) are dropped until it catches up. Its "
                    "scheduled scan covers them.",
                    consumerName, outbox.queue.size(), path);
        }
        return;
    }
    if (outbox.queued.emplace(extParm, path).second) {
        Outgoing out;
        out.mask = mask;
        out.path = path;
        out.extParm = extParm;
        outbox.queue.push_back(std::move(out));
    }
}

void WatchService::RetryOutboxes()
{
    for (auto it = m_outboxes.begin(); it != m_outboxes.end();) {
        Outbox& box = it->second;
        bool gone = false;
        while (!box.queue.empty()) {
            const Outgoing& out = box.queue.front();
            NotificationSink::Result result =
                m_sink.Send(it->first, box.consumerName, out.mask, out.path, out.extParm);
            if (result == NotificationSink::Result::Full) {
                break;
            }
            if (result == NotificationSink::Result::Gone) {
                gone = true;
                break;
            }
            if (result == NotificationSink::Result::Skipped) {
                ++m_skipped;
            } else {
                ++m_notifications;
            }
            box.queued.erase({out.extParm, out.path});
            box.queue.pop_front();
        }
        if (gone) {
            m_dropped += box.queue.size();
            m_goneConsumers.emplace(it->first, box.consumerName);
            box.queue.clear();
            box.queued.clear();
        }
        if (box.queue.empty()) {
            it = m_outboxes.erase(it);
        } else {
            ++it;
        }
    }
}

void WatchService::ReleaseGoneConsumers()
{
    for (const auto& gone : m_goneConsumers) {
        const Framework::MailboxRef& consumer = gone.first;
        size_t regs = 0;
        size_t before = m_dirs.size();
        for (auto it = m_regs.begin(); it != m_regs.end();) {
            if (it->second.req.consumer == consumer) {
                DropSubtree(it->second, "");
                it = m_regs.erase(it);
                ++regs;
            } else {
                ++it;
            }
        }
        for (auto it = m_pending.begin(); it != m_pending.end();) {
            it = std::get<0>(it->first) == consumer ? m_pending.erase(it) : std::next(it);
        }
        m_outboxes.erase(consumer);
        SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource,
                "Task %s no longer exists: its %z watch registrations are removed and %z "
                "directory watches released; changes for it were not delivered.",
                gone.second, regs, before - m_dirs.size());
    }
    m_goneConsumers.clear();
}

void WatchService::Tick()
{
    int64_t now = NowMs();
    RetryOutboxes();
    ReleaseGoneConsumers();
    FlushDue(now);
    if (m_watcher->IsOpen()) {
        for (auto& entry : m_regs) {
            Registration& reg = entry.second;
            if (!reg.attached && now >= reg.nextAttachMs) {
                Attach(reg);
            }
        }
    }
    UpdateHealth();
}

void WatchService::SetHealth(const std::string& key, const std::string& reason)
{
    std::string& last = m_healthRaised[key];
    if (last == reason) {
        return;
    }
    last = reason;
    if (reason.empty()) {
        Framework::Health::Clear(key);
    } else {
        Framework::Health::Raise(key, Framework::Health::Severity::Degraded, reason);
    }
}

bool WatchService::InContainerGrace(const Registration& reg, int64_t now)
{
    return reg.req.extParm != 0 && reg.goneSinceMs >= 0 && now - reg.goneSinceMs < kContainerGoneGraceMs;
}

void WatchService::UpdateHealth()
{
    const int64_t now = NowMs();
    std::string off;
    if (!m_watcher->IsOpen() && !m_regs.empty()) {
        off = "real-time monitoring is off: cannot create an inotify instance (" + m_watcher->Error() + ")";
    }
    SetHealth("filenotify.inotify", off);
    std::string missing;
    std::string limit;
    size_t unwatched = 0;
    for (const auto& entry : m_regs) {
        const Registration& reg = entry.second;
        if (!reg.attached && m_watcher->IsOpen() && !InContainerGrace(reg, now)) {
            missing += (missing.empty() ? "" : ", ") + reg.req.path + " for " + reg.req.consumerName + " (" +
                       (reg.lastAttachError != 0 ? SDK::ErrnoText(reg.lastAttachError) : "not yet") + ")";
        }
        if (reg.unwatched > 0 && limit.empty()) {
            limit = reg.firstUnwatched;
        }
        unwatched += reg.unwatched;
    }
    SetHealth("filenotify.watches", missing.empty() ? "" : "watches requested but not held: " + missing);
    SetHealth("filenotify.watch_limit",
              unwatched == 0 ? ""
                             : "inotify watch limit reached: " + std::to_string(unwatched) +
                                   " directories are not watched (first: " + limit +
                                   "); raise fs.inotify.max_user_watches and restart the agent");
}

int WatchService::NextWaitMs(int capMs) const
{
    int wait = capMs;
    if (!m_outboxes.empty()) {
        wait = std::min(wait, kRetryWaitMs);
    }
    if (m_nextFlushMs >= 0) {
        int64_t left = m_nextFlushMs - NowMs();
        wait = static_cast<int>(std::max<int64_t>(0, std::min<int64_t>(wait, left)));
    }
    return wait;
}

Json::Value WatchService::Status() const
{
    Json::Value status(Json::objectValue);
    status["watches"] = static_cast<Json::UInt64>(m_dirs.size());
    status["pending"] = static_cast<Json::UInt64>(PendingCount());
    status["skipped"] = static_cast<Json::UInt64>(m_skipped);
    status["overflows"] = static_cast<Json::UInt64>(m_overflows);
    status["notifications"] = static_cast<Json::UInt64>(m_notifications);
    status["dropped"] = static_cast<Json::UInt64>(m_dropped);
    status["inotify"] = m_watcher->IsOpen() ? "ok" : m_watcher->Error();
    Json::Value regs(Json::arrayValue);
    for (const auto& entry : m_regs) {
        const Registration& reg = entry.second;
        Json::Value r(Json::objectValue);
        r["path"] = reg.req.path;
        r["task"] = reg.req.consumerName;
        r["ext_parm"] = static_cast<Json::UInt64>(reg.req.extParm);
        r["directories"] = static_cast<Json::UInt64>(reg.dirs.size());
        r["watching"] = reg.attached;
        if (reg.unwatched > 0) {
            r["unwatched_directories"] = static_cast<Json::UInt64>(reg.unwatched);
        }
        regs.append(r);
    }
    status["registrations"] = regs;
    return status;
}

}  // namespace FileNotify
