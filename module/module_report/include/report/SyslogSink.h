#pragma once
// Events to a syslog receiver, one RFC 5424 message each:
//   <PRI>1 TIMESTAMP HOSTNAME APP-NAME PROCID MSGID - {"event":...}
// the MSG part being the event's JSON (UTF-8, no BOM). Targets:
//   udp://HOST:PORT    one datagram per event
//   tcp://HOST:PORT    octet-counted framing ("LEN SP MSG", RFC 6587)
//   unix:PATH          a local datagram socket (/dev/log)
// A datagram larger than `datagramMaxBytes` is cut at that size and ends in
// " [truncated from N bytes]", and counted: receivers drop (UDP) or cut
// (rsyslog, 8 KiB by default) bigger ones without telling anyone. The
// event file keeps the whole event.
//
// Messages wait in a bounded memory queue for the delivery thread; while
// the receiver cannot be reached they are retried with backoff, and past
// `maxQueued` the oldest are dropped and counted. Syslog has no
// acknowledgement: a message written to a TCP connection the receiver is
// closing can be lost. The HTTP sink, with its spool, is the one that
// guarantees delivery.
//
// Published as "report.syslog": {"target","sent","failed","queued",
// "dropped","truncated","healthy","last_error"}; health key "report.syslog".

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <thread>

#include <Poco/Condition.h>
#include <Poco/Mutex.h>

#include "report/RemoteSink.h"
#include "sdk/Status.h"

namespace Poco {
namespace Net {
class Socket;
}
}  // namespace Poco

namespace Report {

struct SyslogSinkOptions {
    static constexpr size_t kDefaultDatagramMaxBytes = 8192;
    static constexpr size_t kMaxDatagramBytes = 65507;  // UDP over IPv4
    static constexpr size_t kDefaultMaxQueued = 10000;
    static constexpr int kDefaultFacility = 16;  // local0
    static constexpr int kDefaultRetryMaxMs = 30000;

    std::string target;                   // empty: no syslog sink
    int facility = kDefaultFacility;      // 0..23
    std::string appName = "ardent-agent";
    std::string hostName;                 // empty: this host's name
    size_t datagramMaxBytes = kDefaultDatagramMaxBytes;
    size_t maxQueued = kDefaultMaxQueued;
    int retryMaxMs = kDefaultRetryMaxMs;
};

class SyslogSink : public RemoteSink {
public:
    static const char* const kStatusKey;  // "report.syslog", also the health key

    SyslogSink(const SyslogSinkOptions& options, Poco::Logger* logger);
    ~SyslogSink() override;

    void Start() override;
    void Submit(const std::string& line) override;
    void Stop() override;

    // The RFC 5424 message of `line` (before any cut).
    std::string Format(const std::string& line, int64_t nowMs) const;
    // A facility by name ("local0", "daemon", ...) or number; -1 if unknown.
    static int ParseFacility(const std::string& text);

private:
    enum class Transport { Udp, Tcp, Unix };

    void Loop();
    SDK::Status Connect();
    SDK::Status Send(const std::string& message);
    void Disconnect();
    void Publish();

    SyslogSinkOptions m_options;
    Poco::Logger* m_logger;
    Transport m_transport = Transport::Udp;
    std::string m_address;   // host:port or path
    std::string m_badTarget; // why the target cannot be used

    Poco::Mutex m_mutex;  // guards the queue, the counters and m_stop
    Poco::Condition m_wake;
    std::deque<std::string> m_queue;
    bool m_stop = false;
    struct Counters {
        uint64_t sent = 0, dropped = 0, truncated = 0;
    } m_counters;

    // Delivery thread only.
    std::unique_ptr<Poco::Net::Socket> m_socket;
    Outage m_outage;
    // std::thread rather than Poco::Thread: its join is a pthread_join, so
    // nothing of the ended thread outlives Stop (Poco's join only waits for
    // an event the thread still holds).
    std::thread m_thread;
};

}  // namespace Report
