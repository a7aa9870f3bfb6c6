#include "HostFs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <Poco/DirectoryIterator.h>
#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Format.h>

#include "sdk/JsonUtils.h"

namespace Container {

namespace {

constexpr long kMaxPid = 4194304;  // PID_MAX_LIMIT on 64-bit kernels
constexpr std::size_t kMaxNameLength = 128;

// Closes the descriptor on every path out of ReadFile.
class FdGuard {
public:
    explicit FdGuard(int fd) : m_fd(fd) {}
    ~FdGuard()
    {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }
    FdGuard(const FdGuard&) = delete;
    FdGuard& operator=(const FdGuard&) = delete;

private:
    int m_fd;
};

}  // namespace

HostFs::HostFs(const std::string& root) : m_root(root)
{
    while (!m_root.empty() && m_root.back() == '/') {
        m_root.pop_back();
    }
}

std::string HostFs::Path(const std::string& absolutePath) const
{
    if (absolutePath.empty() || absolutePath[0] != '/') {
        return m_root + "/" + absolutePath;
    }
    return m_root + absolutePath;
}

bool HostFs::IsDir(const std::string& path) const
{
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool HostFs::IsDirFollow(const std::string& path) const
{
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

ReadStatus HostFs::ListDirs(const std::string& path, std::vector<std::string>& names,
                            std::string& reason) const
{
    names.clear();
    try {
        Poco::File dir(path);
        if (!dir.exists()) {
            return ReadStatus::MISSING;
        }
        if (!dir.isDirectory()) {
            reason = "not a directory";
            return ReadStatus::FAILED;
        }
        Poco::DirectoryIterator end;
        for (Poco::DirectoryIterator it(path); it != end; ++it) {
            try {
                // A symbolic link is not followed: the runtimes write real
                // directories, and a link could lead anywhere on the host.
                if (!it->isLink() && it->isDirectory()) {
                    names.push_back(it.name());
                }
            } catch (const Poco::Exception&) {
                // Removed between listing and looking: the container went.
            }
        }
    } catch (const Poco::FileNotFoundException&) {
        names.clear();
        return ReadStatus::MISSING;
    } catch (const Poco::Exception& e) {
        names.clear();
        reason = "cannot list the directory: " + e.displayText();
        return ReadStatus::FAILED;
    }
    std::sort(names.begin(), names.end());
    return ReadStatus::OK;
}

ReadStatus HostFs::ReadFile(const std::string& path, std::size_t cap, std::string& out,
                            std::string& reason) const
{
    out.clear();
    // O_NONBLOCK: opening a FIFO must not wait for a writer; O_NOFOLLOW: a
    // link planted as a state file is refused rather than read.
    int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        int err = errno;
        if (err == ENOENT) {
            return ReadStatus::MISSING;
        }
        reason = (err == ELOOP) ? std::string("is a symbolic link, not read")
                                : std::string("cannot open: ") + std::strerror(err);
        return ReadStatus::FAILED;
    }
    FdGuard guard(fd);
    struct stat st {};
    if (::fstat(fd, &st) != 0) {
        reason = std::string("cannot stat: ") + std::strerror(errno);
        return ReadStatus::FAILED;
    }
    if (!S_ISREG(st.st_mode)) {
        reason = "not a regular file, not read";
        return ReadStatus::FAILED;
    }
    if (st.st_size < 0 || static_cast<unsigned long long>(st.st_size) > cap) {
        reason = Poco::format("larger than %z bytes (%Ld), not read", cap,
                              static_cast<Poco::Int64>(st.st_size));
        return ReadStatus::FAILED;
    }
    out.reserve(static_cast<std::size_t>(st.st_size));
    char buffer[64 * 1024];
    for (;;) {
        ssize_t n = ::read(fd, buffer, sizeof(buffer));
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            reason = std::string("read failed: ") + std::strerror(errno);
            out.clear();
            return ReadStatus::FAILED;
        }
        if (n == 0) {
            break;
        }
        // The file may grow while we read it: stop at the cap.
        if (out.size() + static_cast<std::size_t>(n) > cap) {
            reason = Poco::format("grew past %z bytes while being read, not read", cap);
            out.clear();
            return ReadStatus::FAILED;
        }
        out.append(buffer, static_cast<std::size_t>(n));
    }
    return ReadStatus::OK;
}

ReadStatus HostFs::ReadJson(const std::string& path, std::size_t cap, Json::Value& out,
                            std::string& reason) const
{
    std::string text;
    ReadStatus status = ReadFile(path, cap, text, reason);
    if (status != ReadStatus::OK) {
        return status;
    }
    if (SDK::JsonUtils::ParseJsonStr(text, out) != 0) {
        reason = "not valid JSON";
        return ReadStatus::FAILED;
    }
    if (!out.isObject() && !out.isArray()) {
        reason = "not a JSON object or array";
        return ReadStatus::FAILED;
    }
    return ReadStatus::OK;
}

bool HostFs::ProcessExists(long pid) const
{
    if (pid <= 0) {
        return false;
    }
    struct stat st {};
    return ::stat(Path("/proc/" + std::to_string(pid)).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool IsPlainName(const std::string& name)
{
    if (name.empty() || name.size() > kMaxNameLength || name[0] == '.') {
        return false;
    }
    for (unsigned char c : name) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '_' || c == '.' || c == '-';
        if (!ok) {
            return false;
        }
    }
    return true;
}

long ParsePid(const std::string& text)
{
    std::size_t begin = text.find_first_not_of(" \t\r\n");
    if (begin == std::string::npos) {
        return 0;
    }
    std::size_t end = text.find_last_not_of(" \t\r\n");
    std::string digits = text.substr(begin, end - begin + 1);
    if (digits.empty() || digits.size() > 7) {
        return 0;
    }
    long pid = 0;
    for (char c : digits) {
        if (c < '0' || c > '9') {
            return 0;
        }
        pid = pid * 10 + (c - '0');
    }
    return (pid >= 1 && pid <= kMaxPid) ? pid : 0;
}

bool HasDotDot(const std::string& path)
{
    std::size_t start = 0;
    while (start <= path.size()) {
        std::size_t slash = path.find('/', start);
        std::size_t len = (slash == std::string::npos ? path.size() : slash) - start;
        if (len == 2 && path.compare(start, 2, "..") == 0) {
            return true;
        }
        if (slash == std::string::npos) {
            break;
        }
        start = slash + 1;
    }
    return false;
}

}  // namespace Container
