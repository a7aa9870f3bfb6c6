#include "report/Downloader.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <istream>
#include <memory>
#include <mutex>
#include <vector>

#include <Poco/Error.h>
#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/RejectCertificateHandler.h>
#include <Poco/Net/SSLManager.h>
#include <Poco/Net/SocketImpl.h>
#include <Poco/String.h>
#include <Poco/URI.h>

#include "sdk/TimeUtils.h"

#include "FileIo.h"

namespace Report {

using FileIo::DirName;
using FileIo::ErrnoText;

namespace {

const size_t kChunk = 64 * 1024;

int64_t NowMs()
{
    return static_cast<int64_t>(SDK::TimeUtils::GetCurrentSystemTickUsed());
}

std::string CapText(uint64_t size, uint64_t cap, bool exact)
{
    return std::string("body ") + (exact ? "of " : "of more than ") + std::to_string(size) +
           " bytes is larger than the cap of " + std::to_string(cap) + " bytes";
}

// TLS for https:// downloads: the system's CA store, the peer's certificate
// and host name verified, and no interactive prompt when verification fails.
Poco::Net::Context::Ptr ClientContext()
{
    static std::once_flag once;
    static Poco::Net::Context::Ptr context;
    std::call_once(once, [] {
        Poco::Net::initializeSSL();
        Poco::Net::Context::Params params;
        params.verificationMode = Poco::Net::Context::VERIFY_RELAXED;
        params.loadDefaultCAs = true;
        context = new Poco::Net::Context(Poco::Net::Context::TLS_CLIENT_USE, params);
        Poco::Net::SSLManager::instance().initializeClient(
            Poco::Net::SSLManager::PrivateKeyPassphraseHandlerPtr(),
            Poco::Net::SSLManager::InvalidCertificateHandlerPtr(
                new Poco::Net::RejectCertificateHandler(false)),
            context);
    });
    return context;
}

bool IsRedirect(int status)
{
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

}  // namespace

Download::Download(const std::string& url, const std::string& target,
                   const DownloadLimits& limits)
    : m_url(url), m_target(target), m_limits(limits)
{
}

Download::~Download() = default;

std::string Download::TempPattern(const std::string& target)
{
    const size_t slash = target.rfind('/');
    const std::string base = slash == std::string::npos ? target : target.substr(slash + 1);
    return DirName(target) + "/." + base + ".part.XXXXXX";
}

void Download::Abort()
{
    m_abort.store(true);
    Poco::FastMutex::ScopedLock lock(m_socketMutex);
    if (m_socketFd >= 0) {
        ::shutdown(m_socketFd, SHUT_RDWR);
    }
}

void Download::SetSocket(int fd)
{
    Poco::FastMutex::ScopedLock lock(m_socketMutex);
    m_socketFd = fd;
    if (fd >= 0 && m_abort.load()) {
        ::shutdown(fd, SHUT_RDWR);
    }
}

bool Download::DeadlinePassed() const
{
    return NowMs() >= m_deadlineMs;
}

std::string Download::TimeoutText() const
{
    return "timed out after " + std::to_string(m_limits.timeoutS) + " s";
}

DownloadResult Download::Run()
{
    DownloadResult result;
    result.finalUrl = m_url;
    m_deadlineMs = NowMs() + static_cast<int64_t>(m_limits.timeoutS) * 1000;

    std::string scheme;
    Poco::URI uri;
    try {
        uri = Poco::URI(m_url);
        scheme = Poco::toLower(uri.getScheme());
    } catch (const Poco::Exception& e) {
        result.error = "malformed URL: " + e.displayText();
        return result;
    }
    if (scheme != "file" && scheme != "http" && scheme != "https") {
        result.error = "unsupported URL scheme \"" + scheme + "\" (file, http and https are)";
        return result;
    }
    if (m_target.empty() || m_target[0] != '/') {
        result.error = "target path \"" + m_target + "\" is not absolute";
        return result;
    }
    const std::string dir = DirName(m_target);
    try {
        Poco::File(dir).createDirectories();
    } catch (const Poco::Exception& e) {
        result.error = "cannot create directory " + dir + ": " + e.displayText();
        return result;
    }
    std::string pattern = TempPattern(m_target);
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    int fd = ::mkostemp(name.data(), O_CLOEXEC);
    if (fd < 0) {
        result.error = "cannot create a temporary file in " + dir + ": " + ErrnoText(errno);
        return result;
    }
    const std::string tempPath(name.data());

    std::string error;
    if (scheme == "file") {
        if (!uri.getHost().empty() && uri.getHost() != "localhost") {
            error = "file URL names host \"" + uri.getHost() + "\"; only local files are read";
        } else {
            error = FetchFile(uri.getPath(), fd, result);
        }
    } else {
        error = FetchHttp(m_url, fd, result);
    }
    if (error.empty() && m_abort.load()) {
        error = "aborted: the agent is shutting down";
    }
    if (error.empty()) {
        error = Install(tempPath, fd);  // closes fd
    } else {
        ::close(fd);
    }
    if (!error.empty()) {
        ::unlink(tempPath.c_str());
        result.error = error;
        return result;
    }
    result.ok = true;
    return result;
}

std::string Download::WriteAll(int fd, const char* data, size_t size)
{
    const std::string error = FileIo::WriteAll(fd, data, size);
    return error.empty() ? error : "cannot write the temporary file beside " + m_target + ": " + error;
}

std::string Download::FetchFile(const std::string& path, int outFd, DownloadResult& result)
{
    if (path.empty() || path[0] != '/') {
        return "file URL must name an absolute path";
    }
    // O_NONBLOCK: a FIFO named as the source must not hang the download.
    int in = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (in < 0) {
        return path + ": " + ErrnoText(errno);
    }
    struct stat st;
    if (::fstat(in, &st) != 0) {
        int err = errno;
        ::close(in);
        return path + ": " + ErrnoText(err);
    }
    if (!S_ISREG(st.st_mode)) {
        ::close(in);
        return path + " is not a regular file";
    }
    if (static_cast<uint64_t>(st.st_size) > m_limits.maxBytes) {
        ::close(in);
        return CapText(static_cast<uint64_t>(st.st_size), m_limits.maxBytes, true);
    }
    std::vector<char> buffer(kChunk);
    std::string error;
    for (;;) {
        if (m_abort.load()) {
            error = "aborted: the agent is shutting down";
            break;
        }
        if (DeadlinePassed()) {
            error = TimeoutText();
            break;
        }
        ssize_t n = ::read(in, buffer.data(), buffer.size());
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            error = path + ": read failed: " + ErrnoText(errno);
            break;
        }
        if (n == 0) {
            break;
        }
        result.bytes += static_cast<uint64_t>(n);
        if (result.bytes > m_limits.maxBytes) {
            error = CapText(m_limits.maxBytes, m_limits.maxBytes, false);
            break;
        }
        error = WriteAll(outFd, buffer.data(), static_cast<size_t>(n));
        if (!error.empty()) {
            break;
        }
    }
    ::close(in);
    return error;
}

std::string Download::FetchHttp(const std::string& url, int outFd, DownloadResult& result)
{
    Poco::URI uri(url);
    std::vector<char> buffer(kChunk);
    for (int hop = 0;; ++hop) {
        if (m_abort.load()) {
            return "aborted: the agent is shutting down";
        }
        const int64_t remaining = m_deadlineMs - NowMs();
        if (remaining <= 0) {
            return TimeoutText();
        }
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
                session.reset(
                    new Poco::Net::HTTPSClientSession(uri.getHost(), uri.getPort(), ClientContext()));
            } else {
                session.reset(new Poco::Net::HTTPClientSession(uri.getHost(), uri.getPort()));
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
            SetSocket(session->socket().impl()->sockfd());

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
                    result.bytes += static_cast<uint64_t>(n);
                    if (result.bytes > m_limits.maxBytes) {
                        return CapText(m_limits.maxBytes, m_limits.maxBytes, false);
                    }
                    std::string error = WriteAll(outFd, buffer.data(), static_cast<size_t>(n));
                    if (!error.empty()) {
                        return error;
                    }
                }
                if (m_abort.load()) {
                    return "aborted: the agent is shutting down";
                }
                if (DeadlinePassed()) {
                    return TimeoutText();
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
            return m_abort.load() ? "aborted: the agent is shutting down" : TimeoutText();
        } catch (const Poco::Exception& e) {
            if (m_abort.load()) {
                return "aborted: the agent is shutting down";
            }
            if (DeadlinePassed()) {
                return TimeoutText();
            }
            return e.displayText();
        } catch (const std::exception& e) {
            return m_abort.load() ? "aborted: the agent is shutting down" : std::string(e.what());
        }
    }
}

std::string Download::Install(const std::string& tempPath, int tempFd)
{
    mode_t mode = 0644;
    struct stat st;
    if (::stat(m_target.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
        mode = st.st_mode & 0777;
    }
    if (::fsync(tempFd) != 0) {
        int err = errno;
        ::close(tempFd);
        return "cannot sync " + tempPath + ": " + ErrnoText(err);
    }
    ::fchmod(tempFd, mode);
    if (::close(tempFd) != 0) {
        return "cannot close " + tempPath + ": " + ErrnoText(errno);
    }
    if (::rename(tempPath.c_str(), m_target.c_str()) != 0) {
        return "cannot rename " + tempPath + " to " + m_target + ": " + ErrnoText(errno);
    }
    // Make the rename itself durable before the file is reported done.
    int dirFd = ::open(DirName(m_target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd >= 0) {
        ::fsync(dirFd);
        ::close(dirFd);
    }
    return "";
}

}  // namespace Report
