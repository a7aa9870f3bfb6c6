#include "report/Downloader.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <istream>
#include <memory>
#include <mutex>
#include <vector>

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/Net/SocketImpl.h>
#include <Poco/String.h>
#include <Poco/Timer.h>
#include <Poco/URI.h>

#include "HttpClient.h"
#include "sdk/FileUtils.h"
#include "sdk/HostRoot.h"
#include "sdk/Posix.h"
#include "sdk/TimeUtils.h"

namespace Report {

namespace {

const size_t kChunk = 64 * 1024;
// A temporary file this old beside a target was left by a writer that died.
const int64_t kStaleTempS = 3600;

int64_t NowMs()
{
    return static_cast<int64_t>(SDK::TimeUtils::GetCurrentSystemTickUsed());
}

std::string CapText(uint64_t size, uint64_t cap, bool exact)
{
    return std::string("body ") + (exact ? "of " : "of more than ") + std::to_string(size) +
           " bytes is larger than the cap of " + std::to_string(cap) + " bytes";
}

std::string BaseName(const std::string& path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool IsRedirect(int status)
{
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

}  // namespace

Download::Download(const std::string& url, const std::string& target,
                   const DownloadLimits& limits, const std::string& sha256)
    : m_url(url), m_target(target), m_limits(limits), m_sha256(Poco::toLower(sha256))
{
}

Download::~Download() = default;

std::string Download::TempPattern(const std::string& target)
{
    return SDK::HostRoot::DirName(target) + "/." + BaseName(target) + ".part.XXXXXX";
}

void Download::Abort()
{
    m_abort.store(true);
    Poco::FastMutex::ScopedLock lock(m_socketMutex);
    CutConnection();
}

void Download::OnDeadline(Poco::Timer&)
{
    m_timedOut.store(true);
    Poco::FastMutex::ScopedLock lock(m_socketMutex);
    CutConnection();
}

void Download::CutConnection()
{
    if (m_socketFd >= 0) {
        ::shutdown(m_socketFd, SHUT_RDWR);
    }
}

void Download::SetSocket(int fd)
{
    Poco::FastMutex::ScopedLock lock(m_socketMutex);
    m_socketFd = fd;
    if (Stopped()) {
        CutConnection();
    }
}

bool Download::DeadlinePassed() const
{
    return m_timedOut.load() || NowMs() >= m_deadlineMs;
}

std::string Download::StopReason() const
{
    return m_abort.load() ? std::string("aborted: the agent is shutting down")
                          : "timed out after " + std::to_string(m_limits.timeoutS) + " s";
}

DownloadResult Download::Run()
{
    DownloadResult result;
    result.finalUrl = m_url;
    m_deadlineMs = NowMs() + static_cast<int64_t>(m_limits.timeoutS) * 1000;

    if (m_target.empty() || m_target[0] != '/') {
        result.error = "target path \"" + m_target + "\" is not absolute";
        return result;
    }
    const std::string dir = SDK::HostRoot::DirName(m_target);
    if (!Poco::File(dir).exists()) {
        const SDK::Status made = SDK::MakePrivateDir(dir);
        if (!made) {
            result.error = made.message();
            return result;
        }
    }
    SDK::RemoveStaleFiles(dir, "." + BaseName(m_target) + ".part.", kStaleTempS);
    std::string pattern = TempPattern(m_target);
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    SDK::UniqueFd fd(::mkostemp(name.data(), O_CLOEXEC));
    if (!fd.Valid()) {
        result.error = "cannot create a temporary file in " + dir + ": " + SDK::ErrnoText(errno);
        return result;
    }
    const std::string tempPath(name.data());

    std::string error;
    {
        // Whatever the peer does, the transfer ends at the deadline.
        Poco::Timer watchdog(std::max<long>(1, static_cast<long>(m_deadlineMs - NowMs())), 0);
        watchdog.start(Poco::TimerCallback<Download>(*this, &Download::OnDeadline));
        error = Fetch(fd.Get(), result);
        watchdog.stop();
    }
    if (error.empty() && m_abort.load()) {
        error = StopReason();
    }
    if (error.empty()) {
        error = Verify(tempPath);
    }
    if (error.empty()) {
        error = Install(tempPath, fd.Release());
    }
    if (!error.empty()) {
        ::unlink(tempPath.c_str());
        result.error = error;
        return result;
    }
    result.ok = true;
    return result;
}

std::string Download::Fetch(int outFd, DownloadResult& result)
{
    Poco::URI uri;
    std::string scheme;
    try {
        uri = Poco::URI(m_url);
        scheme = Poco::toLower(uri.getScheme());
    } catch (const Poco::Exception& e) {
        return "malformed URL: " + e.displayText();
    }
    if (scheme == "file") {
        if (!uri.getHost().empty() && uri.getHost() != "localhost") {
            return "file URL names host \"" + uri.getHost() + "\"; only local files are read";
        }
        return FetchFile(uri.getPath(), outFd, result);
    }
    if (scheme == "http" || scheme == "https") {
        return FetchHttp(m_url, outFd, result);
    }
    return "unsupported URL scheme \"" + scheme + "\" (file, http and https are)";
}

std::string Download::Keep(int fd, const char* data, size_t size, DownloadResult& result)
{
    result.bytes += size;
    if (result.bytes > m_limits.maxBytes) {
        return CapText(m_limits.maxBytes, m_limits.maxBytes, false);
    }
    const SDK::Status written =
        SDK::WriteAll(fd, std::string(data, size), "the temporary file beside " + m_target);
    return written ? std::string() : "cannot write " + written.message();
}

std::string Download::FetchFile(const std::string& path, int outFd, DownloadResult& result)
{
    if (path.empty() || path[0] != '/') {
        return "file URL must name an absolute path";
    }
    // A FIFO named as the source must not hang the download.
    SDK::UniqueFd in;
    const SDK::ReadResult opened = SDK::OpenRegularFile(path, false, in);
    if (!opened.ok()) {
        return opened.status.message();
    }
    struct stat st;
    if (::fstat(in.Get(), &st) == 0 && static_cast<uint64_t>(st.st_size) > m_limits.maxBytes) {
        return CapText(static_cast<uint64_t>(st.st_size), m_limits.maxBytes, true);
    }
    std::vector<char> buffer(kChunk);
    while (!Stopped()) {
        const ssize_t n = ::read(in.Get(), buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return path + ": read failed: " + SDK::ErrnoText(errno);
        }
        if (n == 0) {
            return "";
        }
        const std::string error = Keep(outFd, buffer.data(), static_cast<size_t>(n), result);
        if (!error.empty()) {
            return error;
        }
    }
    return StopReason();
}

std::string Download::FetchHttp(const std::string& url, int outFd, DownloadResult& result)
{
    Poco::URI uri(url);
    std::vector<char> buffer(kChunk);
    const auto onConnected = [this](int fd) { SetSocket(fd); };
    for (int hop = 0;; ++hop) {
        if (Stopped()) {
            return StopReason();
        }
        const int64_t remaining = m_deadlineMs - NowMs();
        const bool tls = Poco::toLower(uri.getScheme()) == "https";
        std::unique_ptr<Poco::Net::HTTPClientSession> session;
        // Cleared before the session (and its descriptor) goes away, so that
        // Abort never shuts down a descriptor number reused by someone else.
        struct SocketGuard {
            Download* self;
            ~SocketGuard() { self->SetSocket(-1); }
        };
        try {
            if (tls) {
                session.reset(new WatchedSession<Poco::Net::HTTPSClientSession>(
                    onConnected, uri.getHost(), uri.getPort(), ClientContext()));
                Poco::Net::SecureStreamSocket(session->socket()).setLazyHandshake(true);
            } else {
                session.reset(new WatchedSession<Poco::Net::HTTPClientSession>(
                    onConnected, uri.getHost(), uri.getPort()));
            }
            SocketGuard guard{this};
            const Poco::Timespan left(static_cast<Poco::Timespan::TimeDiff>(remaining) * 1000);
            const Poco::Timespan connect(
                std::min<Poco::Timespan::TimeDiff>(left.totalMicroseconds(),
                                                   DownloadLimits::kConnectTimeoutS * 1000000LL));
            session->setTimeout(connect, left, left);
            std::string resource = uri.getPathAndQuery();
            if (resource.empty()) {
                resource = "/";
            }
            Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, resource,
                                           Poco::Net::HTTPMessage::HTTP_1_1);
            request.set("User-Agent", "ardent-agent");
            session->sendRequest(request);

            Poco::Net::HTTPResponse response;
            std::istream& in = session->receiveResponse(response);
            const int status = static_cast<int>(response.getStatus());
            if (IsRedirect(status)) {
                const std::string location = response.get("Location", "");
                if (location.empty()) {
                    return "HTTP " + std::to_string(status) + " without a Location header";
                }
                if (hop >= m_limits.maxRedirects) {
                    return "more than " + std::to_string(m_limits.maxRedirects) + " redirects";
                }
                Poco::URI next(uri);
                next.resolve(location);
                const std::string nextScheme = Poco::toLower(next.getScheme());
                if (nextScheme != "http" && nextScheme != "https") {
                    return "redirect to unsupported URL " + next.toString();
                }
                if (tls && nextScheme != "https") {
                    return "redirect from https to " + next.toString() + " refused";
                }
                uri = next;
                result.finalUrl = uri.toString();
                continue;
            }
            if (status != Poco::Net::HTTPResponse::HTTP_OK) {
                return "HTTP " + std::to_string(status) + " " + response.getReason();
            }
            const bool sized = response.hasContentLength();
            const uint64_t expected =
                sized ? static_cast<uint64_t>(response.getContentLength64()) : 0;
            if (sized && expected > m_limits.maxBytes) {
                return CapText(expected, m_limits.maxBytes, true);
            }
            // Rethrow what the socket reported (timeout, reset) instead of a bare EOF.
            in.exceptions(std::ios::badbit);
            for (;;) {
                in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
                const std::streamsize n = in.gcount();
                if (n > 0) {
                    const std::string error =
                        Keep(outFd, buffer.data(), static_cast<size_t>(n), result);
                    if (!error.empty()) {
                        return error;
                    }
                }
                if (Stopped()) {
                    return StopReason();
                }
                if (!in) {
                    break;
                }
            }
            if (sized && result.bytes != expected) {
                return "connection closed after " + std::to_string(result.bytes) + " of " +
                       std::to_string(expected) + " bytes";
            }
            return "";
        } catch (const Poco::TimeoutException&) {
            return m_abort.load() ? StopReason()
                                  : "timed out after " + std::to_string(m_limits.timeoutS) + " s";
        } catch (const Poco::Exception& e) {
            return Stopped() ? StopReason() : e.displayText();
        } catch (const std::exception& e) {
            return Stopped() ? StopReason() : std::string(e.what());
        }
    }
}

std::string Download::Verify(const std::string& tempPath) const
{
    if (m_sha256.empty()) {
        return "";
    }
    bool flag = true;
    std::string digest;
    if (SDK::FileUtils::GetFileSha256(tempPath, flag, digest, 0) != 0) {
        return "cannot compute the SHA-256 of " + tempPath;
    }
    if (digest != m_sha256) {
        return "content has SHA-256 " + digest + ", not the expected " + m_sha256;
    }
    return "";
}

std::string Download::Install(const std::string& tempPath, int tempFd)
{
    SDK::UniqueFd fd(tempFd);
    // Private whatever the source was: a rule library is nobody else's business.
    if (::fchmod(fd.Get(), 0600) != 0 || ::fsync(fd.Get()) != 0) {
        return "cannot sync " + tempPath + ": " + SDK::ErrnoText(errno);
    }
    if (::close(fd.Release()) != 0) {
        return "cannot close " + tempPath + ": " + SDK::ErrnoText(errno);
    }
    if (::rename(tempPath.c_str(), m_target.c_str()) != 0) {
        return "cannot rename " + tempPath + " to " + m_target + ": " + SDK::ErrnoText(errno);
    }
    // Make the rename itself durable before the file is reported done.
    SDK::UniqueFd dirFd(
        ::open(SDK::HostRoot::DirName(m_target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dirFd.Valid()) {
        ::fsync(dirFd.Get());
    }
    return "";
}

}  // namespace Report
