#pragma once
// A sink that sends events to another host (syslog, HTTP). Each runs its own
// delivery thread, so that a receiver that is down or slow never holds up
// the report task, and through it the scans.
//
// Shutdown order: Stop() sets the flag, wakes the thread, cuts a connection
// in progress and joins; nothing is sent after it returns.

#include <cstdint>
#include <functional>
#include <string>
#include <thread>

namespace Poco {
class Logger;
}

namespace Report {

class RemoteSink {
public:
    virtual ~RemoteSink() = default;
    virtual void Start() = 0;
    // `line`: one event, one line of JSON without the line break. Never blocks
    // on the network.
    virtual void Submit(const std::string& line) = 0;
    virtual void Stop() = 0;
};

// An outage of one sink as the operator sees it: the health key raised
// (degraded) while deliveries fail, with the latest reason; one warning when
// it starts and one notice when it ends, however many events fail between.
class Outage {
public:
    Outage(std::string healthKey, std::string what, Poco::Logger* logger);
    ~Outage();

    // `consequence`: what happens to the events meanwhile.
    void Failed(const std::string& reason, const std::string& consequence);
    void Recovered();
    bool Down() const { return m_down; }
    uint64_t Failures() const { return m_failures; }
    const std::string& LastError() const { return m_lastError; }

private:
    std::string m_key;
    std::string m_what;
    Poco::Logger* m_logger;
    bool m_down = false;
    uint64_t m_failures = 0;       // attempts that failed, since the start
    uint64_t m_failedInOutage = 0;
    std::string m_lastError;
};

// Starts a sink's delivery thread running `loop`. When no thread can be had
// it says so, raises `healthKey` and returns an empty thread: the sink then
// sends nothing until the agent restarts.
std::thread StartDeliveryThread(const char* sink, const std::string& healthKey, Poco::Logger* logger,
                                std::function<void()> loop);

// Delay before the next attempt after `failures` in a row: from 250 ms,
// doubling, up to `maxMs`.
int BackoffMs(uint64_t failures, int maxMs);

}  // namespace Report
