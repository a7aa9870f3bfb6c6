#include "ScanWorkers.h"

#include <Poco/Exception.h>

namespace Engine {

class ScanWorkers::Worker : public Poco::Runnable {
public:
    Worker(ScanWorkers& owner, std::size_t index) : m_owner(owner), m_index(index) {}
    void run() override
    {
        m_owner.m_body(m_index, [this](ScanJob& job) { return m_owner.Take(job); });
    }

private:
    ScanWorkers& m_owner;
    std::size_t m_index;
};

ScanWorkers::ScanWorkers(std::size_t threads, std::size_t capacity, std::size_t readAheadBytes, Body body)
    : m_capacity(capacity > 0 ? capacity : 1), m_readAheadBytes(readAheadBytes), m_body(std::move(body))
{
    for (std::size_t i = 0; i < threads; ++i) {
        auto worker = std::make_unique<Worker>(*this, i);
        auto thread = std::make_unique<Poco::Thread>("webshell_scan");
        try {
            thread->start(*worker);
        } catch (const Poco::Exception&) {
            break;
        }
        m_workers.push_back(std::move(worker));
        m_threads.push_back(std::move(thread));
    }
}

ScanWorkers::~ScanWorkers()
{
    Finish();
}

bool ScanWorkers::MayReadAhead(std::size_t size)
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    return m_queuedBytes + size <= m_readAheadBytes;
}

void ScanWorkers::Push(ScanJob job)
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    while (m_queue.size() >= m_capacity && !m_closed) {
        m_walkWaits = true;
        m_notFull.wait(m_mutex);
    }
    if (m_closed) {
        return;
    }
    m_queuedBytes += job.ahead.content.size();
    m_queue.push_back(std::move(job));
    m_notEmpty.signal();
}

bool ScanWorkers::Take(ScanJob& job)
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    while (m_queue.empty() && !m_closed) {
        m_notEmpty.wait(m_mutex);
    }
    if (m_queue.empty()) {
        return false;
    }
    job = std::move(m_queue.front());
    m_queue.pop_front();
    m_queuedBytes -= job.ahead.content.size();
    // A full queue wakes the walk once it is half empty, not at every file:
    // one wake-up per file would cost the threads more than the walk saves.
    if (m_walkWaits && m_queue.size() <= m_capacity / 2) {
        m_walkWaits = false;
        m_notFull.signal();
    }
    return true;
}

void ScanWorkers::Finish()
{
    {
        Poco::FastMutex::ScopedLock lock(m_mutex);
        m_closed = true;
        m_notEmpty.broadcast();
        m_notFull.broadcast();
    }
    for (auto& thread : m_threads) {
        thread->join();
    }
    m_threads.clear();
    m_workers.clear();
}

void ScanWorkers::Abandon()
{
    std::deque<ScanJob> dropped;
    {
        Poco::FastMutex::ScopedLock lock(m_mutex);
        dropped.swap(m_queue);
        m_queuedBytes = 0;
    }
    Finish();
}

}  // namespace Engine
