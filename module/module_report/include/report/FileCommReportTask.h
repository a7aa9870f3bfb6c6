#pragma once
// "file_comm_report_task": file transfers for the other modules.
//
// DOWNLOAD (Framework::FileMessage type 1; path = target file, extra = URL):
// fetched on a worker thread (Report::Download: temporary file beside the
// target, renamed into place when whole). A request for a target that is
// already being fetched is coalesced into the running download; if it names
// another URL, that URL is fetched once the running one ends. Published as
// "report.downloads": {"<target>": {"url","state":"running"|"done"|"failed",
// "error","bytes","started_ms","finished_ms","coalesced"}}.
//
// UPLOAD (type 0, kind "webshell"): the file is kept in the upload directory
// (Report::UploadStore) on the task's own thread. Published as
// "report.uploads": {"dir","received","stored","duplicates","refused",
// "failed","bytes","last_error"}.
//
// Shutdown: the task's loop ends, running downloads are aborted (their
// connections shut down) and joined; none is left writing after UnInit.

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include <Poco/Mutex.h>
#include <json/json.h>

#include "framework/Task.h"
#include "report/ReportConfig.h"

namespace Poco {
class Logger;
}

namespace Engine {

class FileCommReportTask : public Framework::Task {
public:
    static const char* const kTaskName;          // "file_comm_report_task"
    static const char* const kDownloadsKey;      // "report.downloads"
    static const char* const kUploadsKey;        // "report.uploads"

    explicit FileCommReportTask(const Report::ReportConfig& config);
    ~FileCommReportTask() override;

    int Run() override;
    int HandleMsg(std::shared_ptr<Framework::Message>& msg) override;

private:
    class Job;
    friend class Job;

    void HandleDownload(const std::string& target, const std::string& url);
    void HandleUpload(const std::string& path, const std::string& kind);
    void StartJob(const std::string& target, const std::string& url);
    void ReapJobs();
    void StopJobs();
    void JobFinished(Job& job);  // on the worker thread
    bool TargetAllowed(const std::string& target) const;
    void SetDownloadStatus(const std::string& target, const Json::Value& status);
    void PublishUploads();

    Poco::Logger* m_logger;
    Report::ReportConfig m_config;
    Report::UploadStore m_uploads;

    // Task thread only.
    std::map<std::string, std::shared_ptr<Job>> m_jobs;  // running, by target
    std::deque<std::pair<std::string, std::string>> m_waiting;  // (target, url)

    Poco::FastMutex m_statusMutex;
    Json::Value m_downloadStatus{Json::objectValue};  // guarded by m_statusMutex

    // Task thread only.
    struct UploadCounters {
        uint64_t received = 0, stored = 0, duplicates = 0, refused = 0, failed = 0, bytes = 0;
        std::string lastError;
    } m_uploadCounters;
};

}  // namespace Engine
