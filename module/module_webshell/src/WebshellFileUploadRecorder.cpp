#include "webshell/WebshellFileUploadRecorder.h"

#include <algorithm>

#include "framework/Topics.h"
#include "message/Outcomes.h"
#include "sdk/LoggerUtils.h"
#include "sdk/TimeUtils.h"

namespace Engine {

WebshellFileUploadRecorder::WebshellFileUploadRecorder(Clock clock)
    : m_logger(SDK::LoggerUtils::GetInstance()->GetModuleLogger("webshell_module", false)),
      m_clock(std::move(clock))
{
}

WebshellFileUploadRecorder::~WebshellFileUploadRecorder()
{
    if (m_outcomes != nullptr) {
        Framework::Topics::Unsubscribe(kUploadTopic, Framework::MailboxRef(m_outcomes));
    }
}

WebshellFileUploadRecorder& WebshellFileUploadRecorder::GetInstance()
{
    static WebshellFileUploadRecorder instance(&SDK::TimeUtils::GetCurrentTimestampMS);
    static const bool following = (instance.FollowUploadOutcomes(), true);
    (void)following;
    return instance;
}

void WebshellFileUploadRecorder::FollowUploadOutcomes()
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    if (m_outcomes == nullptr) {
        // Each upload sent was preceded by a call that emptied the mailbox,
        // so it holds about one message per upload in flight.
        m_outcomes = std::make_shared<Framework::Mailbox>("webshell_upload_quota", 4096);
        Framework::Topics::Subscribe(kUploadTopic, Framework::MailboxRef(m_outcomes));
    }
}

void WebshellFileUploadRecorder::TakeOutcomesLocked()
{
    if (m_outcomes == nullptr) {
        return;
    }
    std::shared_ptr<Framework::Message> msg;
    while (m_outcomes->Take(msg)) {
        const auto* upload = dynamic_cast<const UploadMessage*>(msg.get());
        if (upload == nullptr) {
            continue;
        }
        const UploadFigures& f = upload->figures;
        if (f.received < m_seenReceived) {
            // Another upload service (a restart of the module): its own count.
            m_seenReceived = 0;
            m_seenNotKept = 0;
        }
        const uint64_t notKept = f.received - std::min(f.stored, f.received);
        if (notKept > m_seenNotKept) {
            const uint64_t refund = notKept - m_seenNotKept;
            m_uploadFileCount =
                static_cast<int>(std::max<int64_t>(0, static_cast<int64_t>(m_uploadFileCount) -
                                                          static_cast<int64_t>(refund)));
        }
        m_seenReceived = f.received;
        m_seenNotKept = notKept;
    }
}

void WebshellFileUploadRecorder::SetUploadFileCountPerDay(int count)
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    m_uploadFileCountPerDay = count;
}

int WebshellFileUploadRecorder::GetUploadFileCount()
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    TakeOutcomesLocked();
    return m_uploadFileCount;
}

bool WebshellFileUploadRecorder::CheckUploadWebshellFile(const std::string& path)
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    // Checked before the period test: a file uploaded in an earlier period
    // waits until another file's check renews the period.
    if (m_uploadedFiles.count(path) != 0) {
        return false;
    }
    TakeOutcomesLocked();
    if (m_dayStartMs == 0) {
        m_dayStartMs = m_clock();
        return true;
    }
    const int64_t now = m_clock();
    if (now - m_dayStartMs > kDayMs) {
        m_dayStartMs = now;
        m_uploadFileCount = 0;
        m_uploadedFiles.clear();
        return true;
    }
    return m_uploadFileCount <= m_uploadFileCountPerDay;
}

bool WebshellFileUploadRecorder::AddUploadedWebshellFile(const std::string& path)
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    m_uploadedFiles.insert(path);
    ++m_uploadFileCount;
    return true;
}

}  // namespace Engine
