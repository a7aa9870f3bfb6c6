#include "report/UploadStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <json/json.h>

#include "sdk/FileUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/Posix.h"
#include "sdk/TimeUtils.h"

namespace Report {

using SDK::ErrnoText;

namespace {

const char* const kKindWebshell = "webshell";
const size_t kChunk = 64 * 1024;
const char* const kIncomingPrefix = ".incoming.";
const char* const kSidecarPrefix = ".sidecar.";
// A copy takes seconds; a temporary file this old was left by a crash (a
// `scan` may be copying into the same directory right now).
const int64_t kStaleTempS = 600;

int MakeTemp(const std::string& dir, const char* prefix, std::string& path)
{
    const std::string pattern = dir + "/" + prefix + "XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    int fd = ::mkostemp(name.data(), O_CLOEXEC);
    if (fd >= 0) {
        path.assign(name.data());
        ::fchmod(fd, 0600);
    }
    return fd;
}

}  // namespace

UploadStore::UploadStore(const UploadOptions& options) : m_options(options)
{
    while (m_options.dir.size() > 1 && m_options.dir.back() == '/') {
        m_options.dir.pop_back();
    }
}

int UploadStore::RemoveLeftovers()
{
    return SDK::RemoveStaleFiles(m_options.dir, kIncomingPrefix, kStaleTempS) +
           SDK::RemoveStaleFiles(m_options.dir, kSidecarPrefix, kStaleTempS);
}

const char* UploadStore::OutcomeName(UploadResult::Outcome outcome)
{
    switch (outcome) {
    case UploadResult::STORED:
        return "stored";
    case UploadResult::DUPLICATE:
        return "duplicate";
    case UploadResult::REFUSED:
        return "refused";
    case UploadResult::FAILED:
        break;
    }
    return "failed";
}

std::string UploadStore::PrepareDir()
{
    if (m_options.dir.empty()) {
        return "no upload directory is configured";
    }
    // A link planted in its place is refused, never followed.
    return SDK::MakePrivateDir(m_options.dir).message();
}

std::string UploadStore::CopyToTemp(int srcFd, std::string& tempPath, uint64_t& size)
{
    int out = MakeTemp(m_options.dir, kIncomingPrefix, tempPath);
    if (out < 0) {
        return "cannot create a temporary file in " + m_options.dir + ": " + ErrnoText(errno);
    }
    std::vector<char> buffer(kChunk);
    std::string error;
    size = 0;
    for (;;) {
        ssize_t n = ::read(srcFd, buffer.data(), buffer.size());
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            error = "read failed: " + ErrnoText(errno);
            break;
        }
        if (n == 0) {
            break;
        }
        size += static_cast<uint64_t>(n);
        if (size > m_options.maxBytes) {
            error = "grew beyond the cap of " + std::to_string(m_options.maxBytes) +
                    " bytes while being copied";
            break;
        }
        const SDK::Status written =
            SDK::WriteAll(out, std::string(buffer.data(), static_cast<size_t>(n)), tempPath);
        if (!written) {
            error = "cannot write " + written.message();
            break;
        }
    }
    if (error.empty() && ::fsync(out) != 0) {
        error = "cannot sync " + tempPath + ": " + ErrnoText(errno);
    }
    if (::close(out) != 0 && error.empty()) {
        error = "cannot close " + tempPath + ": " + ErrnoText(errno);
    }
    if (!error.empty()) {
        ::unlink(tempPath.c_str());
    }
    return error;
}

std::string UploadStore::WriteSidecar(const std::string& path, uint64_t size,
                                      const std::string& kind, const std::string& sha256)
{
    Json::Value info(Json::objectValue);
    info["path"] = path;
    info["size"] = static_cast<Json::UInt64>(size);
    info["time"] = static_cast<Json::Int64>(SDK::TimeUtils::GetCurrentTimestampS());
    info["kind"] = kind;
    info["sha256"] = sha256;
    const std::string text = SDK::JsonUtils::JsonToString(info) + "\n";

    std::string tempPath;
    int fd = MakeTemp(m_options.dir, kSidecarPrefix, tempPath);
    if (fd < 0) {
        return "cannot create a temporary file in " + m_options.dir + ": " + ErrnoText(errno);
    }
    std::string error = SDK::WriteAll(fd, text, tempPath).message();
    if (error.empty() && ::fsync(fd) != 0) {
        error = ErrnoText(errno);
    }
    ::close(fd);
    const std::string finalPath = m_options.dir + "/" + sha256 + ".json";
    if (error.empty() && ::rename(tempPath.c_str(), finalPath.c_str()) != 0) {
        error = ErrnoText(errno);
    }
    if (!error.empty()) {
        ::unlink(tempPath.c_str());
        return "cannot write " + finalPath + ": " + error;
    }
    return "";
}

UploadResult UploadStore::Store(const std::string& path, const std::string& kind)
{
    UploadResult result;
    if (kind != kKindWebshell) {
        result.outcome = UploadResult::REFUSED;
        result.error = "unsupported upload kind \"" + kind + "\"";
        return result;
    }
    if (path.empty()) {
        result.outcome = UploadResult::REFUSED;
        result.error = "empty path";
        return result;
    }
    result.error = PrepareDir();
    if (!result.error.empty()) {
        return result;
    }
    SDK::UniqueFd src;
    const SDK::ReadResult opened = SDK::OpenRegularFile(path, false, src);
    struct stat st;
    // A socket cannot be opened at all (ENXIO); it is refused like a FIFO.
    if (opened.error == SDK::ReadError::NotRegular ||
        (!opened.ok() && ::stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode))) {
        result.outcome = UploadResult::REFUSED;
        result.error = "not a regular file";
        return result;
    }
    if (!opened.ok()) {
        result.error = "cannot open: " + opened.reason;
        return result;
    }
    if (::fstat(src.Get(), &st) != 0) {
        result.error = "cannot stat: " + ErrnoText(errno);
        return result;
    }
    if (static_cast<uint64_t>(st.st_size) > m_options.maxBytes) {
        result.outcome = UploadResult::REFUSED;
        result.error = "size " + std::to_string(st.st_size) + " is larger than the cap of " +
                       std::to_string(m_options.maxBytes) + " bytes";
        return result;
    }
    std::string tempPath;
    result.error = CopyToTemp(src.Get(), tempPath, result.size);
    if (!result.error.empty()) {
        return result;
    }
    // The name is the digest of the copy we keep, so a file that changes
    // while it is copied is still kept under its own content's name.
    bool flag = true;
    if (SDK::FileUtils::GetFileSha256(tempPath, flag, result.sha256, 0) != 0) {
        ::unlink(tempPath.c_str());
        result.error = "cannot compute the SHA-256 of the copy " + tempPath;
        return result;
    }
    result.storedPath = m_options.dir + "/" + result.sha256;
    const std::string sidecar = result.storedPath + ".json";
    struct stat existing;
    if (::lstat(result.storedPath.c_str(), &existing) == 0) {
        ::unlink(tempPath.c_str());
        if (::lstat(sidecar.c_str(), &existing) != 0) {
            result.error = WriteSidecar(path, result.size, kind, result.sha256);
            if (!result.error.empty()) {
                return result;
            }
        }
        result.outcome = UploadResult::DUPLICATE;
        return result;
    }
    if (::rename(tempPath.c_str(), result.storedPath.c_str()) != 0) {
        result.error = "cannot rename " + tempPath + " to " + result.storedPath + ": " +
                       ErrnoText(errno);
        ::unlink(tempPath.c_str());
        return result;
    }
    result.error = WriteSidecar(path, result.size, kind, result.sha256);
    if (!result.error.empty()) {
        // A copy without its sidecar cannot be traced back: keep neither.
        ::unlink(result.storedPath.c_str());
        return result;
    }
    result.outcome = UploadResult::STORED;
    return result;
}

}  // namespace Report
