#include "report/RemoteSink.h"

#include <algorithm>
#include <system_error>

#include "framework/Health.h"
#include "sdk/LogMacros.h"

namespace Report {

namespace {

const char* const kSource = "module/module_report/src/RemoteSink";
const int kFirstBackoffMs = 250;

}  // namespace

std::thread StartDeliveryThread(const char* sink, const std::string& healthKey, Poco::Logger* logger,
                                std::function<void()> loop)
{
    try {
        return std::thread(std::move(loop));
    } catch (const std::system_error& e) {
        SDK_LOG(logger, Poco::Message::PRIO_ERROR, kSource,
                "No thread for the %s sink (%s): nothing is sent until the agent restarts.", std::string(sink),
                e.what());
        Framework::Health::Raise(healthKey, Framework::Health::Severity::Degraded,
                                 std::string("no delivery thread: ") + e.what());
        return std::thread();
    }
}

Outage::Outage(std::string healthKey, std::string what, Poco::Logger* logger)
    : m_key(std::move(healthKey)), m_what(std::move(what)), m_logger(logger)
{
}

Outage::~Outage()
{
    if (m_down) {
        Framework::Health::Clear(m_key);
    }
}

void Outage::Failed(const std::string& reason, const std::string& consequence)
{
    ++m_failures;
    ++m_failedInOutage;
    m_lastError = reason;
    Framework::Health::Raise(m_key, Framework::Health::Severity::Degraded,
                             m_what + " cannot deliver: " + reason + "; " + consequence);
    if (!m_down) {
        SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource,
                "%s cannot deliver events: %s; %s. Retrying with backoff; the end of the outage "
                "is logged.",
                m_what, reason, consequence);
        m_down = true;
    }
}

void Outage::Recovered()
{
    if (!m_down) {
        return;
    }
    SDK_LOG(m_logger, Poco::Message::PRIO_NOTICE, kSource,
            "%s delivers events again after %?d failed attempts (the last: %s).", m_what,
            m_failedInOutage, m_lastError);
    Framework::Health::Clear(m_key);
    m_down = false;
    m_failedInOutage = 0;
}

int BackoffMs(uint64_t failures, int maxMs)
{
    int64_t delay = kFirstBackoffMs;
    for (uint64_t i = 1; i < failures && delay < maxMs; ++i) {
        delay *= 2;
    }
    return static_cast<int>(std::min<int64_t>(delay, std::max(maxMs, kFirstBackoffMs)));
}

}  // namespace Report
