#pragma once
// The scanning threads of a threaded pass: the walk hands each file it
// admits, already opened and mostly already read, to a bounded queue; N
// threads take files from it. Reading beside the scan keeps the system calls
// and copies of the walk off the scanning threads, as `yara` walks beside its
// own. The queue bounds the open descriptors and the bytes read ahead; a walk
// slower than the scan leaves the threads waiting.

#include <sys/stat.h>

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <Poco/Condition.h>
#include <Poco/Mutex.h>
#include <Poco/Runnable.h>
#include <Poco/Thread.h>

#include "sdk/Posix.h"
#include "webshell/ContainerCacheInfo.h"

namespace Engine {

// A file the walk read ahead of the scanning threads: its status from before
// the read (reading moves the access time, which a quarantine keeps to put
// back) and its content.
struct ReadAhead {
    struct stat st {};
    std::string content;
};

struct ScanJob {
    ScanJob() = default;
    ScanJob(std::string path_, SDK::UniqueFd fd_, std::shared_ptr<const ContainerCacheInfo> cache_,
            bool named_ = false)
        : path(std::move(path_)), fd(std::move(fd_)), cache(std::move(cache_)), named(named_)
    {
    }
    std::string path;
    SDK::UniqueFd fd;  // opened by the walk; the scan reads this very file
    std::shared_ptr<const ContainerCacheInfo> cache;
    bool named = false;  // named as a scan path itself: checked whatever its suffix
    bool read = false;   // `ahead` holds the file, read by the walk
    ReadAhead ahead;
};

class ScanWorkers {
public:
    // Takes the next job; false once the queue is finished and empty, or abandoned.
    using Next = std::function<bool(ScanJob&)>;
    // One scanning thread: set up, call next() until it says false, tidy up.
    using Body = std::function<void(std::size_t index, const Next& next)>;

    // Starts `threads` threads running `body`. Threads that cannot be started
    // are not: Started() says how many run (0: the caller scans alone).
    ScanWorkers(std::size_t threads, std::size_t capacity, std::size_t readAheadBytes, Body body);
    // Finish().
    ~ScanWorkers();
    ScanWorkers(const ScanWorkers&) = delete;
    ScanWorkers& operator=(const ScanWorkers&) = delete;

    std::size_t Started() const { return m_threads.size(); }
    // Whether the walk may read `size` more bytes ahead of the threads now;
    // a file that may not is queued unread and its thread reads it.
    bool MayReadAhead(std::size_t size);
    // Queues a job, waiting while the queue is full.
    void Push(ScanJob job);
    // No more jobs: the threads empty the queue and end; returns once they did.
    void Finish();
    // Cancelled: queued jobs are dropped, the threads end after their current file.
    void Abandon();

private:
    class Worker;
    bool Take(ScanJob& job);

    Poco::FastMutex m_mutex;
    Poco::Condition m_notEmpty;
    Poco::Condition m_notFull;
    std::deque<ScanJob> m_queue;
    std::size_t m_capacity;
    std::size_t m_readAheadBytes;
    std::size_t m_queuedBytes = 0;
    bool m_walkWaits = false;
    bool m_closed = false;
    Body m_body;
    std::vector<std::unique_ptr<Worker>> m_workers;
    std::vector<std::unique_ptr<Poco::Thread>> m_threads;
};

}  // namespace Engine
