#pragma once
// "file_comm_report_task": file transfers for the other modules.
//
// DOWNLOAD (Framework::FileMessage type 1; path = target file, extra = URL,
// kind = the SHA-256 the content must have, or empty): fetched on a worker
// thread (Report::Download: temporary file beside the target, renamed into
// place when whole and of the expected digest). A request for a target that
// is already being fetched is coalesced into the running download; if it
// names another URL or digest, it is fetched once the running one ends.
// Published as
// "report.downloads": {"<target>": {"url","state":"running"|"done"|"failed",
// "error","bytes","started_ms","finished_ms","coalesced"}}.
//
// UPLOAD (type 0, kind "webshell"): the file is kept in the upload directory
// (Report::UploadStore) on the task's own thread. A failed upload is logged
// as an error at most once a minute, with the count of those in between (a
// broken upload directory fails every upload of a pass). Published as
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

    struct Request {
        std::string target;
        std::string url;
        std::string sha256;
    };

    void HandleDownload(const Request& request);
    void HandleUpload(const std::string& path, const std::string& kind);
    void UploadFailed(const std::string& path, const std::string& error);
    void LogUploadFailures(int64_t nowMs);
    void StartJob(const Request& request);
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
    std::deque<Request> m_waiting;

    Poco::FastMutex m_statusMutex;
    Json::Value m_downloadStatus{Json::objectValue};  // guarded by m_statusMutex

    // Task thread only.
    struct UploadCounters {
        uint64_t received = 0, stored = 0, duplicates = 0, refused = 0, failed = 0, bytes = 0;
        std::string lastError;
    } m_uploadCounters;
    struct FailureLog {
        int64_t loggedMs = 0;     // when a failure was last logged
        uint64_t unlogged = 0;    // failures since then
        std::string latest;       // the latest of them
    } m_uploadFailures;
    bool m_uploadsRaised = false;  // "report.uploads" is raised
};

}  // namespace Engine
