#pragma once
// The scanning threads of a threaded pass: the walk hands each file it
// admits, already opened, to a bounded queue; N threads take files from it.
// The queue bounds the open descriptors and the memory a walk can run ahead
// by; a walk slower than the scan leaves the threads waiting.

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <Poco/Condition.h>
#include <Poco/Mutex.h>
#include <Poco/Runnable.h>
#include <Poco/Thread.h>

#include "sdk/Posix.h"
#include "webshell/ContainerCacheInfo.h"

namespace Engine {

struct ScanJob {
    std::string path;
    SDK::UniqueFd fd;  // opened by the walk; the scan reads this very file
    std::shared_ptr<const ContainerCacheInfo> cache;
    bool named = false;  // named as a scan path itself: checked whatever its suffix
};

class ScanWorkers {
public:
    // Takes the next job; false once the queue is finished and empty, or abandoned.
    using Next = std::function<bool(ScanJob&)>;
    // One scanning thread: set up, call next() until it says false, tidy up.
    using Body = std::function<void(std::size_t index, const Next& next)>;

    // Starts `threads` threads running `body`. Threads that cannot be started
    // are not: Started() says how many run (0: the caller scans alone).
    ScanWorkers(std::size_t threads, std::size_t capacity, Body body);
    // Finish().
    ~ScanWorkers();
    ScanWorkers(const ScanWorkers&) = delete;
    ScanWorkers& operator=(const ScanWorkers&) = delete;

    std::size_t Started() const { return m_threads.size(); }
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
    bool m_closed = false;
    Body m_body;
    std::vector<std::unique_ptr<Worker>> m_workers;
    std::vector<std::unique_ptr<Poco::Thread>> m_threads;
};

}  // namespace Engine
