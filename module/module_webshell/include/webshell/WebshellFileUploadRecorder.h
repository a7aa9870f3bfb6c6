#pragma once
// The daily upload quota of suspicious files, one object for the whole module.
//
// A day is a rolling period of 24 hours opened by the first check after the
// previous one ended. Within it each file is uploaded at most once, and the
// quota test is "count <= quota", so a period admits quota + 1 uploads.
// Every call takes the recorder's lock; callers keep the order check,
// record, send, log (a unit given back must find its upload recorded).
//
// Only kept files use the quota: the module's recorder follows the upload
// service's figures (kUploadTopic) and gives back, at its next call, one
// unit for each upload the service handled without keeping a new copy.

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include <Poco/Logger.h>
#include <Poco/Mutex.h>

#include "framework/Mailbox.h"

namespace Engine {

class WebshellFileUploadRecorder {
public:
    // Milliseconds since the epoch.
    using Clock = std::function<int64_t()>;

    // A recorder on its own clock (the process-wide one uses the wall clock).
    explicit WebshellFileUploadRecorder(Clock clock);
    ~WebshellFileUploadRecorder();
    WebshellFileUploadRecorder(const WebshellFileUploadRecorder&) = delete;
    WebshellFileUploadRecorder& operator=(const WebshellFileUploadRecorder&) = delete;

    static WebshellFileUploadRecorder& GetInstance();

    void SetUploadFileCountPerDay(int count);
    int GetUploadFileCount();
    // May `path` be uploaded now? Opens or renews the day period as needed.
    bool CheckUploadWebshellFile(const std::string& path);
    // Records an upload; always true.
    bool AddUploadedWebshellFile(const std::string& path);
    // From now on, uploads the upload service did not keep are given back.
    void FollowUploadOutcomes();

private:
    static constexpr int64_t kDayMs = 86400000;

    // Under m_mutex: takes in the service's figures.
    void TakeOutcomesLocked();

    Poco::Logger* m_logger;
    int m_uploadFileCountPerDay = 0;
    int m_uploadFileCount = 0;
    int64_t m_dayStartMs = 0;  // 0: no period started
    std::set<std::string> m_uploadedFiles;
    Clock m_clock;
    std::shared_ptr<Framework::Mailbox> m_outcomes;
    uint64_t m_seenReceived = 0;  // the service's figures last taken in
    uint64_t m_seenNotKept = 0;
    mutable Poco::FastMutex m_mutex;
};

}  // namespace Engine
