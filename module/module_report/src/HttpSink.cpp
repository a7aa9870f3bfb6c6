#include "report/HttpSink.h"

#include <sys/socket.h>

#include <algorithm>
#include <istream>
#include <ostream>

#include <Poco/Exception.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/String.h>
#include <Poco/URI.h>
#include <json/json.h>

#include "HttpClient.h"
#include "framework/Health.h"
#include "framework/StatusBoard.h"
#include "sdk/LogMacros.h"
#include "sdk/TimeUtils.h"

namespace Report {

namespace {

const char* const kSource = "module/module_report/src/HttpSink";
const char* const kSpoolHealthKey = "report.http.spool";
const size_t kMaxAnswerShown = 200;
const int kIdleWaitMs = 1000;
const int64_t kDropLogIntervalMs = 60 * 1000;

int64_t NowMs()
{
    return static_cast<int64_t>(SDK::TimeUtils::GetCurrentSystemTickUsed());
}

}  // namespace

const char* const HttpSink::kStatusKey = "report.http";

HttpSink::HttpSink(const HttpSinkOptions& options, Poco::Logger* logger)
    : m_options(options),
      m_logger(logger),
      m_spool(options.spool),
      m_outage(kStatusKey, "HTTP sink " + options.url, logger)
{
    try {
        const Poco::URI uri(m_options.url);
        const std::string scheme = Poco::toLower(uri.getScheme());
        if ((scheme != "http" && scheme != "https") || uri.getHost().empty()) {
            m_badConfig = "report.http.url must be an http:// or https:// URL";
        }
    } catch (const Poco::Exception& e) {
        m_badConfig = "report.http.url: " + e.displayText();
    }
    if (m_badConfig.empty() && Poco::toLower(m_options.url).compare(0, 8, "https://") == 0) {
        try {
            m_tls = ClientContext(m_options.caFile, m_options.verify);
        } catch (const Poco::Exception& e) {
            m_badConfig = "report.http.ca_file \"" + m_options.caFile + "\": " + e.displayText();
        }
    }
    if (!m_options.header.empty()) {
        const size_t colon = m_options.header.find(':');
        m_headerName = Poco::trim(m_options.header.substr(0, colon));
        if (colon == std::string::npos || m_headerName.empty() ||
            m_headerName.find_first_of(" \t") != std::string::npos) {
            m_badConfig = "report.http.header must be \"Name: value\"";
        } else {
            m_headerValue = Poco::trim(m_options.header.substr(colon + 1));
        }
    }
    m_options.batchEvents = std::max<size_t>(m_options.batchEvents, 1);
}

HttpSink::~HttpSink()
{
    Stop();
    Poco::Mutex::ScopedLock lock(m_mutex);
    if (!m_spoolError.empty()) {
        Framework::Health::Clear(kSpoolHealthKey);
    }
    if (!m_badConfig.empty()) {
        Framework::Health::Clear(kStatusKey);
    }
}

void HttpSink::Start()
{
    if (!m_badConfig.empty()) {
        SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource,
                "HTTP sink not used, nothing is sent to \"%s\": %s.", m_options.url, m_badConfig);
        Framework::Health::Raise(kStatusKey, Framework::Health::Severity::Degraded, m_badConfig);
        return;
    }
    {
        Poco::Mutex::ScopedLock lock(m_mutex);
        m_stop = false;
        m_stopping = false;
    }
    const SDK::Status opened = m_spool.Open();
    m_spoolOpen = opened.ok();
    if (!opened) {
        SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource,
                "HTTP sink %s: the spool cannot be used (%s); events are not sent until it can.",
                m_options.url, opened.message());
    }
    const SpoolStats stats = m_spool.Stats();
    SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource,
            "Events also go to %s, spooled in %s (%?d left from before the start).", m_options.url,
            m_spool.Dir(), stats.pending);
    if (stats.pending > 0) {
        m_firstPendingMs = -1;
    }
    m_thread = StartDeliveryThread("http", kStatusKey, m_logger, [this] { Loop(); });
}

void HttpSink::Submit(const std::string& line)
{
    if (!m_badConfig.empty()) {
        return;
    }
    const SDK::Status kept = m_spool.Append(line + "\n");
    {
        Poco::Mutex::ScopedLock lock(m_mutex);
        if (!kept) {
            ++m_spoolErrors;
            if (m_spoolError.empty()) {
                SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource,
                        "An event could not be kept for %s: %s. The event file still has it; further "
                        "events that cannot be kept are counted (report.http \"spool_errors\") until "
                        "the spool works again.",
                        m_options.url, kept.message());
                Framework::Health::Raise(
                    kSpoolHealthKey, Framework::Health::Severity::Degraded,
                    "events for " + m_options.url + " cannot be spooled: " + kept.message());
            }
            m_spoolError = kept.message();
        } else {
            if (!m_spoolError.empty()) {
                SDK_LOG(m_logger, Poco::Message::PRIO_NOTICE, kSource,
                        "The spool %s works again; %?d events could not be kept for %s.", m_spool.Dir(),
                        m_spoolErrors, m_options.url);
                Framework::Health::Clear(kSpoolHealthKey);
                m_spoolError.clear();
            }
            if (m_firstPendingMs == 0) {
                m_firstPendingMs = NowMs();
            }
            m_wake.signal();
        }
    }
    // The delivery thread may be waiting for an answer: the board shows
    // the event spooled now.
    Publish();
}

void HttpSink::NoteDelivery(uint64_t events)
{
    Poco::Mutex::ScopedLock lock(m_mutex);
    if (events > 0) {
        m_delivered.sent += events;
        ++m_delivered.batches;
    }
    m_delivered.failed = m_outage.Failures();
    m_delivered.healthy = !m_outage.Down();
    m_delivered.lastError = m_outage.LastError();
}

void HttpSink::Stop()
{
    {
        Poco::Mutex::ScopedLock lock(m_mutex);
        m_stop = true;
        m_stopping = true;
        m_wake.broadcast();
    }
    {
        Poco::FastMutex::ScopedLock lock(m_socketMutex);
        if (m_socketFd >= 0) {
            ::shutdown(m_socketFd, SHUT_RDWR);
        }
    }
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

void HttpSink::SetSocket(int fd)
{
    Poco::FastMutex::ScopedLock lock(m_socketMutex);
    m_socketFd = fd;
    if (fd >= 0 && m_stopping) {
        ::shutdown(fd, SHUT_RDWR);
    }
}

bool HttpSink::WaitForBatch()
{
    Poco::Mutex::ScopedLock lock(m_mutex);
    for (;;) {
        if (m_stop) {
            return false;
        }
        if (!m_spoolOpen) {
            return true;
        }
        const SpoolStats stats = m_spool.Stats();
        long waitMs = kIdleWaitMs;
        if (stats.pending > 0) {
            const int64_t age = m_firstPendingMs <= 0 ? m_options.batchMs : NowMs() - m_firstPendingMs;
            if (stats.pending >= m_options.batchEvents || stats.pendingBytes >= m_options.batchBytes ||
                age >= m_options.batchMs) {
                return true;
            }
            waitMs = static_cast<long>(m_options.batchMs - age);
        }
        m_wake.tryWait(m_mutex, std::max(waitMs, 1L));
    }
}

SDK::Status HttpSink::Post(const std::string& body)
{
    struct SocketGuard {
        HttpSink* self;
        ~SocketGuard() { self->SetSocket(-1); }
    };
    try {
        const Poco::URI uri(m_options.url);
        const auto onConnected = [this](int fd) { SetSocket(fd); };
        std::unique_ptr<Poco::Net::HTTPClientSession> session;
        if (m_tls) {
            session.reset(new WatchedSession<Poco::Net::HTTPSClientSession>(onConnected, uri.getHost(),
                                                                            uri.getPort(), m_tls));
            Poco::Net::SecureStreamSocket(session->socket()).setLazyHandshake(true);
        } else {
            session.reset(
                new WatchedSession<Poco::Net::HTTPClientSession>(onConnected, uri.getHost(), uri.getPort()));
        }
        SocketGuard guard{this};
        const Poco::Timespan timeout(m_options.timeoutS, 0);
        session->setTimeout(timeout, timeout, timeout);
        const std::string resource = uri.getPathAndQuery().empty() ? "/" : uri.getPathAndQuery();
        Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_POST, resource,
                                       Poco::Net::HTTPMessage::HTTP_1_1);
        request.setContentType("application/x-ndjson");
        request.setContentLength64(static_cast<Poco::Int64>(body.size()));
        request.set("User-Agent", "ardent-agent");
        if (!m_headerName.empty()) {
            request.set(m_headerName, m_headerValue);
        }
        std::ostream& out = session->sendRequest(request);
        out.write(body.data(), static_cast<std::streamsize>(body.size()));
        out.flush();
        if (!out) {
            // The stream hides why (a refused certificate, a reset): the session kept it.
            const Poco::Exception* why = session->networkException();
            return SDK::Status::Error(why != nullptr
                                          ? why->displayText()
                                          : std::string("connection closed while the batch was sent"));
        }
        Poco::Net::HTTPResponse response;
        std::istream& in = session->receiveResponse(response);
        const int status = static_cast<int>(response.getStatus());
        std::string answer(kMaxAnswerShown, '\0');
        in.read(&answer[0], static_cast<std::streamsize>(answer.size()));
        answer.resize(static_cast<size_t>(std::max<std::streamsize>(in.gcount(), 0)));
        if (status >= 200 && status < 300) {
            return SDK::Status::Ok();
        }
        std::replace(answer.begin(), answer.end(), '\n', ' ');
        return SDK::Status::Error("HTTP " + std::to_string(status) + " " + response.getReason() +
                                  (answer.empty() ? "" : ": " + answer));
    } catch (const Poco::Exception& e) {
        return SDK::Status::Error(m_stopping ? std::string("stopped") : e.displayText());
    }
}

void HttpSink::Loop()
{
    Publish();
    while (WaitForBatch()) {
        if (!m_spoolOpen) {
            const SDK::Status opened = m_spool.Open();
            m_spoolOpen = opened.ok();
            if (!opened) {
                m_outage.Failed("the spool cannot be used: " + opened.message(), "events are not sent");
                NoteDelivery(0);
                Publish();
                Poco::Mutex::ScopedLock lock(m_mutex);
                m_wake.tryWait(m_mutex, BackoffMs(m_outage.Failures(), m_options.retryMaxMs));
                continue;
            }
        }
        SpoolBatch batch;
        if (!m_spool.Peek(m_options.batchEvents, m_options.batchBytes, batch)) {
            Poco::Mutex::ScopedLock lock(m_mutex);
            if (m_spool.Stats().pending == 0) {
                m_firstPendingMs = 0;
            } else {
                m_wake.tryWait(m_mutex, kIdleWaitMs);
            }
            continue;
        }
        const SDK::Status posted = Post(batch.body);
        if (posted) {
            const SDK::Status acked = m_spool.Ack(batch);
            if (!acked) {
                // Sent: at worst it is sent again after a restart.
                SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource, "HTTP sink %s: %s.",
                        m_options.url, acked.message());
            }
            m_outage.Recovered();
            NoteDelivery(batch.count);
            Poco::Mutex::ScopedLock lock(m_mutex);
            m_firstPendingMs = m_spool.Stats().pending == 0 ? 0 : -1;
        } else if (!m_stopping) {
            m_outage.Failed(posted.message(),
                            std::to_string(m_spool.Stats().pending) + " events are kept in " + m_spool.Dir());
            NoteDelivery(0);
            Publish();
            Poco::Mutex::ScopedLock lock(m_mutex);
            if (!m_stop) {
                m_wake.tryWait(m_mutex, BackoffMs(m_outage.Failures(), m_options.retryMaxMs));
            }
        }
        Publish();
    }
    const SpoolStats stats = m_spool.Stats();
    if (stats.pending > 0) {
        SDK_LOG(m_logger, Poco::Message::PRIO_NOTICE, kSource,
                "%?d events for %s stay in the spool %s and are sent after the next start.",
                stats.pending, m_options.url, m_spool.Dir());
    }
    Publish();
}

void HttpSink::Publish()
{
    const SpoolStats stats = m_spool.Stats();
    Poco::Mutex::ScopedLock lock(m_mutex);
    Json::Value v(Json::objectValue);
    v["url"] = m_options.url;
    v["sent"] = static_cast<Json::UInt64>(m_delivered.sent);
    v["batches"] = static_cast<Json::UInt64>(m_delivered.batches);
    v["failed"] = static_cast<Json::UInt64>(m_delivered.failed);
    v["spooled"] = static_cast<Json::UInt64>(stats.spooled);
    v["pending"] = static_cast<Json::UInt64>(stats.pending);
    v["dropped"] = static_cast<Json::UInt64>(stats.dropped);
    v["spool_bytes"] = static_cast<Json::UInt64>(stats.bytes);
    v["spool_errors"] = static_cast<Json::UInt64>(m_spoolErrors);
    v["healthy"] = m_delivered.healthy;
    v["last_error"] = m_delivered.lastError;
    Framework::StatusBoard::Publish(kStatusKey, v);
    const int64_t now = NowMs();
    if (stats.dropped > m_droppedLogged && (m_dropLogMs == 0 || now - m_dropLogMs >= kDropLogIntervalMs)) {
        SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource,
                "%?d events for %s were dropped from the spool %s, the oldest first: it holds at most "
                "%?d bytes (report.http.spool_max_bytes). Repeated at most once a minute.",
                stats.dropped - m_droppedLogged, m_options.url, m_spool.Dir(), m_options.spool.maxBytes);
        m_droppedLogged = stats.dropped;
        m_dropLogMs = now;
    }
}

}  // namespace Report
