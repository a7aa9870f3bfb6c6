#pragma once
// One download of a URL (file://, http://, https://) to a target file.
//
// The body goes to a temporary file beside the target, is synced, and is
// renamed over the target only when it arrived whole and, when the request
// names one, has the expected SHA-256: a reader of the target sees the old
// file or the new one, never a part or a stranger. On any failure the
// temporary file is removed and the old target is left as it was. The
// target is written with mode 0600; a missing directory is created 0700.
// Temporary files a crashed agent left beside the target are removed.
//
// Run() works on the calling thread and returns by the timeout, whatever
// the peer does (the connection is shut down when the time is up, during a
// TLS handshake too); Abort() may be called from any other thread and makes
// Run() return promptly the same way.

#include <atomic>
#include <cstdint>
#include <string>

#include <Poco/Mutex.h>

namespace Poco {
class Timer;
}

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
    // `sha256`: the lower-case hex digest the body must have ("" accepts any).
    Download(const std::string& url, const std::string& target, const DownloadLimits& limits,
             const std::string& sha256 = "");
    ~Download();
    Download(const Download&) = delete;
    Download& operator=(const Download&) = delete;

    DownloadResult Run();
    void Abort();
    bool Aborted() const { return m_abort.load(); }

    const std::string& Url() const { return m_url; }
    const std::string& Target() const { return m_target; }
    const std::string& Sha256() const { return m_sha256; }

    // Name of a temporary file of `target` ("<dir>/.<name>.part.XXXXXX");
    // tests look for leftovers with it.
    static std::string TempPattern(const std::string& target);

private:
    // Each returns an empty text on success, else the reason.
    std::string Fetch(int outFd, DownloadResult& result);
    std::string FetchFile(const std::string& path, int outFd, DownloadResult& result);
    std::string FetchHttp(const std::string& url, int outFd, DownloadResult& result);
    std::string Keep(int fd, const char* data, size_t size, DownloadResult& result);
    std::string Verify(const std::string& tempPath) const;
    std::string Install(const std::string& tempPath, int tempFd);
    std::string StopReason() const;  // aborted or timed out
    bool Stopped() const { return m_abort.load() || DeadlinePassed(); }
    bool DeadlinePassed() const;
    void OnDeadline(Poco::Timer& timer);
    void SetSocket(int fd);
    void CutConnection();  // with m_socketMutex held

    std::string m_url;
    std::string m_target;
    DownloadLimits m_limits;
    std::string m_sha256;
    int64_t m_deadlineMs = 0;  // monotonic
    std::atomic<bool> m_abort{false};
    std::atomic<bool> m_timedOut{false};
    Poco::FastMutex m_socketMutex;
    int m_socketFd = -1;  // the live connection, for Abort; guarded by m_socketMutex
};

}  // namespace Report
