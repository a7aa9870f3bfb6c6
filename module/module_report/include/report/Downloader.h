#pragma once
// One download of a URL (file://, http://, https://) to a target file.
//
// The body goes to a temporary file beside the target, is synced, and is
// renamed over the target only when it arrived whole: a reader of the
// target sees the old file or the new one, never a part. On any failure the
// temporary file is removed and the old target is left as it was.
//
// Run() works on the calling thread; Abort() may be called from any other
// thread and makes Run() return promptly (a blocked read is cut by shutting
// the connection down).

#include <atomic>
#include <cstdint>
#include <string>

#include <Poco/Mutex.h>

namespace Report {

struct DownloadLimits {
    static constexpr uint64_t kDefaultMaxBytes = 64ull * 1024 * 1024;
    static constexpr int kDefaultTimeoutS = 60;
    static constexpr int kDefaultMaxRedirects = 5;
    static constexpr int kConnectTimeoutS = 10;

    uint64_t maxBytes = kDefaultMaxBytes;  // larger bodies are refused
    int timeoutS = kDefaultTimeoutS;       // the whole transfer, redirects included
    int maxRedirects = kDefaultMaxRedirects;
};

struct DownloadResult {
    bool ok = false;
    std::string error;     // why it failed, for the log and the status board
    uint64_t bytes = 0;    // body bytes received (kept or not)
    std::string finalUrl;  // after redirects
};

class Download {
public:
    Download(const std::string& url, const std::string& target, const DownloadLimits& limits);
    ~Download();
    Download(const Download&) = delete;
    Download& operator=(const Download&) = delete;

    DownloadResult Run();
    void Abort();
    bool Aborted() const { return m_abort.load(); }

    const std::string& Url() const { return m_url; }
    const std::string& Target() const { return m_target; }

    // Name of a temporary file of `target` ("<dir>/.<name>.part.XXXXXX");
    // tests look for leftovers with it.
    static std::string TempPattern(const std::string& target);

private:
    // Each returns an empty text on success, else the reason.
    std::string FetchFile(const std::string& path, int outFd, DownloadResult& result);
    std::string FetchHttp(const std::string& url, int outFd, DownloadResult& result);
    std::string WriteAll(int fd, const char* data, size_t size);
    std::string Install(const std::string& tempPath, int tempFd);
    std::string TimeoutText() const;
    bool DeadlinePassed() const;
    void SetSocket(int fd);

    std::string m_url;
    std::string m_target;
    DownloadLimits m_limits;
    int64_t m_deadlineMs = 0;  // monotonic
    std::atomic<bool> m_abort{false};
    Poco::FastMutex m_socketMutex;
    int m_socketFd = -1;  // the live connection, for Abort; guarded by m_socketMutex
};

}  // namespace Report
