#include "webshell/WebshellFileUploadRecorder.h"

#include "sdk/LoggerUtils.h"
#include "sdk/TimeUtils.h"

namespace Engine {

WebshellFileUploadRecorder::WebshellFileUploadRecorder(Clock clock)
    : m_logger(SDK::LoggerUtils::GetInstance()->GetModuleLogger("webshell_module", false)),
      m_clock(std::move(clock))
{
}

WebshellFileUploadRecorder::~WebshellFileUploadRecorder() = default;

WebshellFileUploadRecorder& WebshellFileUploadRecorder::GetInstance()
{
    static WebshellFileUploadRecorder instance(&SDK::TimeUtils::GetCurrentTimestampMS);
    return instance;
}

void WebshellFileUploadRecorder::SetUploadFileCountPerDay(int count)
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    m_uploadFileCountPerDay = count;
}

int WebshellFileUploadRecorder::GetUploadFileCount() const
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
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
