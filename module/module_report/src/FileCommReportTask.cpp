#include "report/FileCommReportTask.h"

#include <Poco/Exception.h>
#include <Poco/Runnable.h>
#include <Poco/Thread.h>

#include "framework/Health.h"
#include "framework/Message.h"
#include "framework/StatusBoard.h"
#include "framework/Topics.h"
#include "message/Outcomes.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"
#include "sdk/TimeUtils.h"

namespace Engine {

namespace {

const char* const kSource = "module/module_report/src/FileCommReportTask";
const int kWaitMs = 200;
const int kEventsPerWake = 64;
const unsigned int kQueueSize = 1024;
const Json::ArrayIndex kMaxStatusEntries = 64;
const int64_t kUploadFailureLogIntervalMs = 60000;
const char* const kUploadsHealthKey = "report.uploads";

int64_t NowMs()
{
    return SDK::TimeUtils::GetCurrentTimestampMS();
}

}  // namespace

const char* const FileCommReportTask::kTaskName = "file_comm_report_task";
const char* const FileCommReportTask::kDownloadsKey = "report.downloads";
const char* const FileCommReportTask::kUploadsKey = "report.uploads";

// One download on its own thread. The task thread owns the object; the
// worker touches only `download`, `result` and `finished`, and the task
// reads `result` after `finished` (and after joining the thread).
class FileCommReportTask::Job : public Poco::Runnable {
public:
    Job(FileCommReportTask* owner, const Request& request, const Report::DownloadLimits& limits)
        : m_owner(owner),
          m_download(request.url, request.target, limits, request.sha256),
          m_startedMs(NowMs())
    {
    }

    void run() override
    {
        m_result = m_download.Run();
        m_owner->JobFinished(*this);
        m_finished.store(true, std::memory_order_release);
        m_owner->Wake();
    }

    Report::Download& Download() { return m_download; }
    const Report::DownloadResult& Result() const { return m_result; }
    bool Finished() const { return m_finished.load(std::memory_order_acquire); }
    int64_t StartedMs() const { return m_startedMs; }
    Poco::Thread& Thread() { return m_thread; }

    std::unique_ptr<Request> next;       // task thread only
    std::atomic<uint64_t> coalesced{0};  // requests that joined this download

private:
    FileCommReportTask* m_owner;
    Report::Download m_download;
    Report::DownloadResult m_result;
    std::atomic<bool> m_finished{false};
    int64_t m_startedMs;
    Poco::Thread m_thread{"download"};
};

FileCommReportTask::FileCommReportTask(const Report::ReportConfig& config)
    : Framework::Task(kTaskName, "report", Framework::TaskCondition::TASK_TYPE_RESIDENT,
                      kQueueSize),
      m_logger(SDK::LoggerUtils::GetInstance()->GetModuleLogger("report_module", false)),
      m_config(config),
      m_uploads(config.upload)
{
    if (m_config.maxParallelDownloads < 1) {
        m_config.maxParallelDownloads = 1;
    }
}

FileCommReportTask::~FileCommReportTask()
{
    // Normally done at the end of Run; a task destroyed without running
    // still must not leave a worker behind.
    StopJobs();
}

int FileCommReportTask::HandleMsg(std::shared_ptr<Framework::Message>& msg)
{
    auto* file = dynamic_cast<Framework::FileMessage*>(msg.get());
    if (file == nullptr) {
        return Framework::Task::HandleMsg(msg);
    }
    switch (file->GetTaskType()) {
    case Framework::FileMessage::DOWNLOAD:
        HandleDownload(Request{file->GetFilePath(), file->GetExtra(), file->GetKind()});
        break;
    case Framework::FileMessage::UPLOAD:
        HandleUpload(file->GetFilePath(), file->GetKind());
        break;
    default:
        SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource,
                "File message of unknown type %d for %s ignored.",
                static_cast<int>(file->GetTaskType()), file->GetFilePath());
        break;
    }
    return 0;
}

int FileCommReportTask::Run()
{
    const int leftovers = m_uploads.RemoveLeftovers();
    if (leftovers > 0) {
        SDK_LOG(m_logger, Poco::Message::PRIO_NOTICE, kSource,
                "Removed %d temporary files of uploads interrupted by an earlier stop from %s.",
                leftovers, m_uploads.Dir());
    }
    PublishUploads();
    while (!IsCancelling()) {
        GetEventWaiter().WaitAndHandleEvent(kWaitMs, kEventsPerWake);
        ReapJobs();
        LogUploadFailures(NowMs());
    }
    StopJobs();
    LogUploadFailures(NowMs() + kUploadFailureLogIntervalMs);
    return 0;
}

bool FileCommReportTask::TargetAllowed(const std::string& target) const
{
    if (m_config.downloadRoot.empty()) {
        return true;
    }
    if (target.compare(0, m_config.downloadRoot.size(), m_config.downloadRoot) != 0) {
        return false;
    }
    const std::string rest = target.substr(m_config.downloadRoot.size());
    return rest.find("/../") == std::string::npos && rest.compare(0, 3, "../") != 0 &&
           rest != ".." && (rest.size() < 3 || rest.compare(rest.size() - 3, 3, "/..") != 0);
}

void FileCommReportTask::HandleDownload(const Request& request)
{
    const std::string& target = request.target;
    const std::string& url = request.url;
    if (target.empty() || url.empty()) {
        SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource,
                "Download request with target \"%s\" and URL \"%s\" ignored: both are needed.",
                target, url);
        return;
    }
    if (!TargetAllowed(target)) {
        SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource,
                "Download of %s to %s refused: the target is outside %s.", url, target,
                m_config.downloadRoot);
        Json::Value status(Json::objectValue);
        status["url"] = url;
        status["state"] = "failed";
        status["error"] = "target outside " + m_config.downloadRoot;
        status["bytes"] = 0;
        status["started_ms"] = static_cast<Json::Int64>(NowMs());
        status["finished_ms"] = static_cast<Json::Int64>(NowMs());
        status["coalesced"] = 0;
        SetDownloadStatus(target, status);
        Framework::Topics::Post(kDownloadTopic,
                                std::make_shared<DownloadMessage>(target, url, false,
                                                                  status["error"].asString(), 0));
        return;
    }
    ReapJobs();  // a finished download must not swallow a new request
    auto running = m_jobs.find(target);
    if (running != m_jobs.end()) {
        Job& job = *running->second;
        ++job.coalesced;
        const bool same = url == job.Download().Url() && request.sha256 == job.Download().Sha256();
        job.next.reset(same ? nullptr : new Request(request));
        SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource,
                "Download of %s already running; request for %s joined it.", target, url);
        return;
    }
    for (auto& waiting : m_waiting) {
        if (waiting.target == target) {
            waiting = request;
            return;
        }
    }
    StartJob(request);
}

void FileCommReportTask::StartJob(const Request& request)
{
    const std::string& target = request.target;
    const std::string& url = request.url;
    Json::Value status(Json::objectValue);
    status["url"] = url;
    status["state"] = "running";
    status["error"] = "";
    status["bytes"] = 0;
    status["started_ms"] = static_cast<Json::Int64>(NowMs());
    status["finished_ms"] = 0;
    status["coalesced"] = 0;
    if (m_jobs.size() >= static_cast<size_t>(m_config.maxParallelDownloads)) {
        m_waiting.push_back(request);
        SetDownloadStatus(target, status);
        return;
    }
    auto job = std::make_shared<Job>(this, request, m_config.download);
    SetDownloadStatus(target, status);
    // The outcome gets the one line a download is worth (JobFinished).
    SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "Downloading %s to %s.", url, target);
    try {
        job->Thread().start(*job);
    } catch (const Poco::Exception& e) {
        SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource,
                "Download of %s to %s failed: cannot start a thread (%s); the old file stays.",
                url, target, e.displayText());
        status["state"] = "failed";
        status["error"] = "cannot start a thread: " + e.displayText();
        status["finished_ms"] = static_cast<Json::Int64>(NowMs());
        SetDownloadStatus(target, status);
        Framework::Topics::Post(kDownloadTopic,
                                std::make_shared<DownloadMessage>(target, url, false,
                                                                  status["error"].asString(), 0));
        return;
    }
    m_jobs[target] = job;
}

void FileCommReportTask::JobFinished(Job& job)
{
    const Report::DownloadResult& r = job.Result();
    const std::string& target = job.Download().Target();
    if (r.ok) {
        SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource,
                "Downloaded %s to %s (%?d bytes in %?d ms).", r.finalUrl, target, r.bytes,
                NowMs() - job.StartedMs());
    } else {
        SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource,
                "Download of %s to %s failed: %s. The old file stays; the next request tries "
                "again.",
                job.Download().Url(), target, r.error);
    }
    Json::Value status(Json::objectValue);
    status["url"] = job.Download().Url();
    status["state"] = r.ok ? "done" : "failed";
    status["error"] = r.error;
    status["bytes"] = static_cast<Json::UInt64>(r.bytes);
    status["started_ms"] = static_cast<Json::Int64>(job.StartedMs());
    status["finished_ms"] = static_cast<Json::Int64>(NowMs());
    status["coalesced"] = static_cast<Json::UInt64>(job.coalesced.load());
    SetDownloadStatus(target, status);
    Framework::Topics::Post(kDownloadTopic, std::make_shared<DownloadMessage>(
                                                target, job.Download().Url(), r.ok, r.error, r.bytes));
}

void FileCommReportTask::ReapJobs()
{
    for (auto it = m_jobs.begin(); it != m_jobs.end();) {
        std::shared_ptr<Job> job = it->second;
        if (!job->Finished()) {
            ++it;
            continue;
        }
        job->Thread().join();
        it = m_jobs.erase(it);
        if (job->next) {
            m_waiting.push_front(*job->next);
        }
    }
    while (!m_waiting.empty() &&
           m_jobs.size() < static_cast<size_t>(m_config.maxParallelDownloads)) {
        const Request next = m_waiting.front();
        m_waiting.pop_front();
        StartJob(next);
    }
}

void FileCommReportTask::StopJobs()
{
    for (auto& entry : m_jobs) {
        entry.second->Download().Abort();
    }
    for (auto& entry : m_jobs) {
        entry.second->Thread().join();
    }
    m_jobs.clear();
    if (!m_waiting.empty()) {
        SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource,
                "%z queued downloads dropped at shutdown.", m_waiting.size());
        m_waiting.clear();
    }
}

void FileCommReportTask::SetDownloadStatus(const std::string& target, const Json::Value& status)
{
    Poco::FastMutex::ScopedLock lock(m_statusMutex);
    m_downloadStatus[target] = status;
    // Keep the board small: forget the oldest finished downloads first.
    while (m_downloadStatus.size() > kMaxStatusEntries) {
        std::string oldest;
        int64_t oldestMs = 0;
        for (const auto& name : m_downloadStatus.getMemberNames()) {
            const Json::Value& entry = m_downloadStatus[name];
            const int64_t finished = entry["finished_ms"].asInt64();
            if (finished > 0 && (oldest.empty() || finished < oldestMs)) {
                oldest = name;
                oldestMs = finished;
            }
        }
        if (oldest.empty()) {
            break;
        }
        m_downloadStatus.removeMember(oldest);
    }
    Framework::StatusBoard::Publish(kDownloadsKey, m_downloadStatus);
}

void FileCommReportTask::HandleUpload(const std::string& path, const std::string& kind)
{
    ++m_uploadCounters.received;
    const Report::UploadResult r = m_uploads.Store(path, kind);
    // A refusal is about one file (too large, not regular); a failure means
    // the store cannot keep anything until it is fixed.
    if (r.outcome == Report::UploadResult::FAILED) {
        Framework::Health::Raise(kUploadsHealthKey, Framework::Health::Severity::Degraded,
                                 "suspicious files cannot be kept in " + m_uploads.Dir() + ": " + r.error);
        m_uploadsRaised = true;
    } else if (m_uploadsRaised && r.outcome != Report::UploadResult::REFUSED) {
        Framework::Health::Clear(kUploadsHealthKey);
        m_uploadsRaised = false;
    }
    switch (r.outcome) {
    case Report::UploadResult::STORED:
        ++m_uploadCounters.stored;
        m_uploadCounters.bytes += r.size;
        SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource,
                "Kept suspicious file %s (%?d bytes) as %s.", path, r.size, r.storedPath);
        break;
    case Report::UploadResult::DUPLICATE:
        ++m_uploadCounters.duplicates;
        SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource,
                "Suspicious file %s is already kept as %s.", path, r.storedPath);
        break;
    case Report::UploadResult::REFUSED:
        ++m_uploadCounters.refused;
        m_uploadCounters.lastError = path + ": " + r.error;
        SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource,
                "Upload of %s (kind \"%s\") refused: %s.", path, kind, r.error);
        break;
    case Report::UploadResult::FAILED:
        ++m_uploadCounters.failed;
        m_uploadCounters.lastError = path + ": " + r.error;
        UploadFailed(path, r.error);
        break;
    }
    PublishUploads();
}

void FileCommReportTask::UploadFailed(const std::string& path, const std::string& error)
{
    FailureLog& log = m_uploadFailures;
    const int64_t now = NowMs();
    if (log.loggedMs != 0 && now - log.loggedMs < kUploadFailureLogIntervalMs) {
        ++log.unlogged;
        log.latest = path + ": " + error;
        return;
    }
    SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource,
            "Upload of %s failed: %s; the file was not kept. Further failures are counted and "
            "logged once a minute.",
            path, error);
    log.loggedMs = now;
}

void FileCommReportTask::LogUploadFailures(int64_t nowMs)
{
    FailureLog& log = m_uploadFailures;
    if (log.unlogged == 0 || nowMs - log.loggedMs < kUploadFailureLogIntervalMs) {
        return;
    }
    SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource,
            "%?d more uploads failed in the last minute and were not kept; the latest: %s.",
            log.unlogged, log.latest);
    log.loggedMs = nowMs;
    log.unlogged = 0;
}

void FileCommReportTask::PublishUploads()
{
    Json::Value v(Json::objectValue);
    v["dir"] = m_uploads.Dir();
    v["received"] = static_cast<Json::UInt64>(m_uploadCounters.received);
    v["stored"] = static_cast<Json::UInt64>(m_uploadCounters.stored);
    v["duplicates"] = static_cast<Json::UInt64>(m_uploadCounters.duplicates);
    v["refused"] = static_cast<Json::UInt64>(m_uploadCounters.refused);
    v["failed"] = static_cast<Json::UInt64>(m_uploadCounters.failed);
    v["bytes"] = static_cast<Json::UInt64>(m_uploadCounters.bytes);
    v["last_error"] = m_uploadCounters.lastError;
    Framework::StatusBoard::Publish(kUploadsKey, v);
    UploadFigures figures;
    figures.dir = m_uploads.Dir();
    figures.received = m_uploadCounters.received;
    figures.stored = m_uploadCounters.stored;
    figures.duplicates = m_uploadCounters.duplicates;
    figures.refused = m_uploadCounters.refused;
    figures.failed = m_uploadCounters.failed;
    figures.bytes = m_uploadCounters.bytes;
    figures.lastError = m_uploadCounters.lastError;
    Framework::Topics::Post(kUploadTopic, std::make_shared<UploadMessage>(figures));
}

}  // namespace Engine
