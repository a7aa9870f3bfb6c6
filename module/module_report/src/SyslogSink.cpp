#include "report/SyslogSink.h"

#include <unistd.h>


#include <Poco/DateTimeFormatter.h>
#include <Poco/Environment.h>
#include <Poco/Exception.h>
#include <Poco/Net/DatagramSocket.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/NumberParser.h>
#include <Poco/Timestamp.h>
#include <json/json.h>

#include "framework/Health.h"
#include "framework/StatusBoard.h"
#include "sdk/JsonUtils.h"
#include "sdk/LogMacros.h"
#include "sdk/TimeUtils.h"

namespace Report {

namespace {

const char* const kSource = "module/module_report/src/SyslogSink";
const int kSeverityWarning = 4;
const int kConnectTimeoutMs = 3000;
const int kSendTimeoutMs = 3000;
const int64_t kStopFlushMs = 2000;
const size_t kMaxHeaderField = 48;

// A header field: printable US-ASCII without blanks, "-" when empty.
std::string HeaderField(const std::string& text, size_t max)
{
    std::string out;
    for (char c : text) {
        if (c > 32 && c < 127 && out.size() < max) {
            out.push_back(c);
        }
    }
    return out.empty() ? "-" : out;
}

// `message` cut to `max` bytes, on a UTF-8 character boundary, with the marker.
std::string Truncate(const std::string& message, size_t max)
{
    const std::string marker = " [truncated from " + std::to_string(message.size()) + " bytes]";
    size_t keep = max > marker.size() ? max - marker.size() : 0;
    while (keep > 0 && (static_cast<unsigned char>(message[keep]) & 0xC0) == 0x80) {
        --keep;
    }
    return message.substr(0, keep) + marker;
}

}  // namespace

const char* const SyslogSink::kStatusKey = "report.syslog";

SyslogSink::SyslogSink(const SyslogSinkOptions& options, Poco::Logger* logger)
    : m_options(options),
      m_logger(logger),
      m_outage(kStatusKey, "Syslog sink " + options.target, logger)
{
    const std::string& t = m_options.target;
    if (t.compare(0, 6, "udp://") == 0 || t.compare(0, 6, "tcp://") == 0) {
        m_transport = t[0] == 'u' ? Transport::Udp : Transport::Tcp;
        m_address = t.substr(6);
        try {
            Poco::Net::SocketAddress check(m_address);
        } catch (const Poco::Exception& e) {
            m_badTarget = "\"" + m_address + "\" is not HOST:PORT (" + e.displayText() + ")";
        }
    } else if (t.compare(0, 5, "unix:") == 0 && t.size() > 5) {
        m_transport = Transport::Unix;
        m_address = t.substr(5);
    } else {
        m_badTarget = "the target must be udp://HOST:PORT, tcp://HOST:PORT or unix:PATH";
    }
    m_options.datagramMaxBytes =
        std::min(std::max<size_t>(m_options.datagramMaxBytes, 480), SyslogSinkOptions::kMaxDatagramBytes);
    if (m_options.hostName.empty()) {
        m_options.hostName = Poco::Environment::nodeName();
    }
}

SyslogSink::~SyslogSink()
{
    Stop();
    if (!m_badTarget.empty()) {
        Framework::Health::Clear(kStatusKey);
    }
}

int SyslogSink::ParseFacility(const std::string& text)
{
    static const char* const kNames[] = {"kern", "user",   "mail",   "daemon", "auth",   "syslog",
                                         "lpr",  "news",   "uucp",   "cron",   "authpriv", "ftp"};
    for (int i = 0; i < 12; ++i) {
        if (text == kNames[i]) {
            return i;
        }
    }
    if (text.size() == 6 && text.compare(0, 5, "local") == 0 && text[5] >= '0' && text[5] <= '7') {
        return 16 + (text[5] - '0');
    }
    int n = -1;
    return Poco::NumberParser::tryParse(text, n) && n >= 0 && n <= 23 ? n : -1;
}

std::string SyslogSink::Format(const std::string& line, int64_t nowMs) const
{
    Json::Value event;
    std::string msgId;
    if (SDK::JsonUtils::ParseJsonStr(line, event) == 0 && event.isObject() &&
        event["event_name"].isString()) {
        msgId = event["event_name"].asString();
    }
    const Poco::Timestamp when(static_cast<Poco::Timestamp::TimeVal>(nowMs) * 1000);
    return "<" + std::to_string(m_options.facility * 8 + kSeverityWarning) + ">1 " +
           Poco::DateTimeFormatter::format(when, "%Y-%m-%dT%H:%M:%S.%iZ") + " " +
           HeaderField(m_options.hostName, 255) + " " + HeaderField(m_options.appName, kMaxHeaderField) +
           " " + std::to_string(::getpid()) + " " + HeaderField(msgId, 32) + " - " + line;
}

void SyslogSink::Start()
{
    if (!m_badTarget.empty()) {
        // Nothing can be sent until the configuration is fixed.
        SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource,
                "Syslog sink report.syslog.target=\"%s\" is not used: %s.", m_options.target, m_badTarget);
        Framework::Health::Raise(kStatusKey, Framework::Health::Severity::Degraded,
                                 "report.syslog.target: " + m_badTarget);
        return;
    }
    SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource, "Events also go to syslog at %s.",
            m_options.target);
    {
        Poco::Mutex::ScopedLock lock(m_mutex);
        m_stop = false;
    }
    m_thread = StartDeliveryThread("syslog", kStatusKey, m_logger, [this] { Loop(); });
}

void SyslogSink::Submit(const std::string& line)
{
    if (!m_badTarget.empty()) {
        return;
    }
    std::string message = Format(line, SDK::TimeUtils::GetCurrentTimestampMS());
    Poco::Mutex::ScopedLock lock(m_mutex);
    if (m_transport != Transport::Tcp && message.size() > m_options.datagramMaxBytes) {
        if (m_counters.truncated++ == 0) {
            SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource,
                    "An event of %z bytes is larger than a syslog datagram to %s may be "
                    "(report.syslog.datagram_max_bytes=%z): sent cut, with a marker; the event file "
                    "has it whole. Further cuts are counted under report.syslog \"truncated\".",
                    message.size(), m_options.target, m_options.datagramMaxBytes);
        }
        message = Truncate(message, m_options.datagramMaxBytes);
    }
    if (m_queue.size() >= m_options.maxQueued) {
        m_queue.pop_front();
        ++m_counters.dropped;
    }
    m_queue.push_back(std::move(message));
    m_wake.signal();
}

void SyslogSink::Stop()
{
    {
        Poco::Mutex::ScopedLock lock(m_mutex);
        m_stop = true;
        m_wake.broadcast();
    }
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

SDK::Status SyslogSink::Connect()
{
    try {
        if (m_transport == Transport::Tcp) {
            auto socket = std::make_unique<Poco::Net::StreamSocket>();
            socket->connect(Poco::Net::SocketAddress(m_address),
                            Poco::Timespan(kConnectTimeoutMs * 1000LL));
            socket->setSendTimeout(Poco::Timespan(kSendTimeoutMs * 1000LL));
            socket->setNoDelay(true);
            m_socket = std::move(socket);
        } else {
            const Poco::Net::SocketAddress address =
                m_transport == Transport::Unix
                    ? Poco::Net::SocketAddress(Poco::Net::SocketAddress::UNIX_LOCAL, m_address)
                    : Poco::Net::SocketAddress(m_address);
            auto socket = std::make_unique<Poco::Net::DatagramSocket>(address.family());
            socket->connect(address);
            socket->setSendTimeout(Poco::Timespan(kSendTimeoutMs * 1000LL));
            m_socket = std::move(socket);
        }
    } catch (const Poco::Exception& e) {
        m_socket.reset();
        return SDK::Status::Error("cannot connect to " + m_address + ": " + e.displayText());
    }
    return SDK::Status::Ok();
}

void SyslogSink::Disconnect()
{
    if (m_socket) {
        try {
            m_socket->close();
        } catch (const Poco::Exception&) {
        }
        m_socket.reset();
    }
}

SDK::Status SyslogSink::Send(const std::string& message)
{
    try {
        if (m_transport == Transport::Tcp) {
            auto& socket = static_cast<Poco::Net::StreamSocket&>(*m_socket);
            // A receiver that closed its side would take the next message and
            // lose it: notice the close first and connect again.
            char scratch[256];
            while (socket.poll(Poco::Timespan(0), Poco::Net::Socket::SELECT_READ)) {
                if (socket.receiveBytes(scratch, sizeof(scratch)) <= 0) {
                    Disconnect();
                    SDK::Status connected = Connect();
                    if (!connected) {
                        return connected;
                    }
                    break;
                }
            }
            const std::string frame = std::to_string(message.size()) + " " + message;
            size_t sent = 0;
            while (sent < frame.size()) {
                const int n = m_socket->impl()->sendBytes(frame.data() + sent,
                                                          static_cast<int>(frame.size() - sent));
                if (n <= 0) {
                    return SDK::Status::Error("connection to " + m_address + " closed");
                }
                sent += static_cast<size_t>(n);
            }
        } else {
            auto& socket = static_cast<Poco::Net::DatagramSocket&>(*m_socket);
            socket.sendBytes(message.data(), static_cast<int>(message.size()));
        }
    } catch (const Poco::Exception& e) {
        return SDK::Status::Error("cannot send to " + m_address + ": " + e.displayText());
    }
    return SDK::Status::Ok();
}

void SyslogSink::Loop()
{
    Publish();
    int64_t flushUntilMs = 0;
    for (;;) {
        std::string message;
        {
            Poco::Mutex::ScopedLock lock(m_mutex);
            while (m_queue.empty() && !m_stop) {
                m_wake.tryWait(m_mutex, 1000);
            }
            if (m_stop) {
                // What is queued at the stop still goes out while the
                // receiver takes it, for a short while.
                const int64_t now = static_cast<int64_t>(SDK::TimeUtils::GetCurrentSystemTickUsed());
                flushUntilMs = flushUntilMs == 0 ? now + kStopFlushMs : flushUntilMs;
                if (m_queue.empty() || now > flushUntilMs || m_outage.Down()) {
                    break;
                }
            }
            message = std::move(m_queue.front());
            m_queue.pop_front();
        }
        SDK::Status sent = m_socket ? SDK::Status::Ok() : Connect();
        if (sent) {
            sent = Send(message);
        }
        if (sent) {
            {
                Poco::Mutex::ScopedLock lock(m_mutex);
                ++m_counters.sent;
            }
            m_outage.Recovered();
            Publish();
            continue;
        }
        Disconnect();
        size_t queued = 0;
        {
            Poco::Mutex::ScopedLock lock(m_mutex);
            if (m_queue.size() >= m_options.maxQueued) {
                ++m_counters.dropped;
            } else {
                m_queue.push_front(std::move(message));
            }
            queued = m_queue.size();
        }
        m_outage.Failed(sent.message(), std::to_string(queued) + " events wait in memory (at most " +
                                            std::to_string(m_options.maxQueued) +
                                            ", then the oldest are dropped)");
        Publish();
        Poco::Mutex::ScopedLock lock(m_mutex);
        if (!m_stop) {
            m_wake.tryWait(m_mutex, BackoffMs(m_outage.Failures(), m_options.retryMaxMs));
        }
    }
    Disconnect();
    size_t left = 0;
    {
        Poco::Mutex::ScopedLock lock(m_mutex);
        left = m_queue.size();
    }
    if (left > 0) {
        SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource,
                "%z events were not sent to syslog at %s before the stop (%s); the event file has them.",
                left, m_options.target, m_outage.LastError());
    }
    Publish();
}

void SyslogSink::Publish()
{
    Json::Value v(Json::objectValue);
    {
        Poco::Mutex::ScopedLock lock(m_mutex);
        v["sent"] = static_cast<Json::UInt64>(m_counters.sent);
        v["dropped"] = static_cast<Json::UInt64>(m_counters.dropped);
        v["truncated"] = static_cast<Json::UInt64>(m_counters.truncated);
        v["queued"] = static_cast<Json::UInt64>(m_queue.size());
    }
    v["target"] = m_options.target;
    v["failed"] = static_cast<Json::UInt64>(m_outage.Failures());
    v["healthy"] = !m_outage.Down();
    v["last_error"] = m_outage.LastError();
    Framework::StatusBoard::Publish(kStatusKey, v);
}

}  // namespace Report
