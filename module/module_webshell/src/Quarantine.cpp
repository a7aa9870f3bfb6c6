#include "webshell/Quarantine.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <sstream>

#include <Poco/Base64Decoder.h>
#include <Poco/Base64Encoder.h>
#include <Poco/DateTimeFormat.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/SHA2Engine.h>
#include <Poco/Timestamp.h>
#include <json/json.h>

#include "framework/Health.h"
#include "sdk/CryptoCodeUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"
#include "sdk/PathUtils.h"
#include "sdk/Posix.h"
#include "webshell/DetectResult.h"

namespace Engine {

namespace {

const char* const kSource = "module/module_webshell/src/Quarantine";
const char* const kModuleName = "webshell_module";
const char* const kHealthKey = "webshell.quarantine";
const char* const kRecordSuffix = ".json";
const size_t kMaxRecordBytes = 1u << 20;
const size_t kCopyChunk = 1u << 16;
const int kDirOpenFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

SDK::Status Errno(const std::string& what)
{
    return SDK::Status::Error(what + ": " + SDK::ErrnoText(errno));
}

void SplitPath(const std::string& path, std::string& dir, std::string& name)
{
    const auto slash = path.rfind('/');
    dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
    name = slash == std::string::npos ? path : path.substr(slash + 1);
}

// The path the kernel knows an open directory by: what was really opened,
// whatever links the name went through.
std::string RealPathOf(int fd)
{
    char buf[PATH_MAX + 1];
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t n = readlink(link.c_str(), buf, PATH_MAX);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
}

bool Under(const std::string& path, const std::string& root)
{
    if (root == "/") {
        return true;
    }
    return path.size() > root.size() && path.compare(0, root.size(), root) == 0 && path[root.size()] == '/';
}

bool ValidId(const std::string& id)
{
    return !id.empty() && id.size() <= 64 &&
           std::all_of(id.begin(), id.end(), [](unsigned char c) { return isalnum(c) || c == '-'; });
}

std::string NewId()
{
    const std::string stamp = Poco::DateTimeFormatter::format(Poco::Timestamp(), "%Y%m%dT%H%M%SZ");
    return stamp + "-" + SDK::CryptoCodeUtils::GenerateUUID().substr(0, 8);
}

std::string Base64(const std::string& bytes)
{
    std::ostringstream out;
    Poco::Base64Encoder encoder(out);
    encoder.rdbuf()->setLineLength(0);
    encoder << bytes;
    encoder.close();
    return out.str();
}

std::string FromBase64(const std::string& text)
{
    std::istringstream in(text);
    Poco::Base64Decoder decoder(in);
    std::string out;
    char c;
    while (decoder.get(c)) {
        out.push_back(c);
    }
    return out;
}

std::string OwnerName(uid_t uid)
{
    struct passwd pw;
    struct passwd* found = nullptr;
    char buf[4096];
    return getpwuid_r(uid, &pw, buf, sizeof(buf), &found) == 0 && found != nullptr ? found->pw_name
                                                                                    : std::to_string(uid);
}

std::string GroupName(gid_t gid)
{
    struct group gr;
    struct group* found = nullptr;
    char buf[4096];
    return getgrgid_r(gid, &gr, buf, sizeof(buf), &found) == 0 && found != nullptr ? found->gr_name
                                                                                    : std::to_string(gid);
}

// Hands each chunk of `fd`, from its start, to `use` until the end or until
// `use` returns false; false on a read error too (errno says which).
bool ForEachChunk(int fd, const std::function<bool(const char*, size_t)>& use)
{
    std::string chunk(kCopyChunk, '\0');
    off_t at = 0;
    for (;;) {
        const ssize_t n = pread(fd, &chunk[0], chunk.size(), at);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return n == 0;
        }
        if (!use(chunk.data(), static_cast<size_t>(n))) {
            return false;
        }
        at += n;
    }
}

// Copies all of `from` (from its start) into `to` and syncs it.
SDK::Status CopyAndSync(int from, int to, const std::string& what)
{
    SDK::Status written;
    const bool read = ForEachChunk(from, [&](const char* data, size_t size) {
        written = SDK::WriteAll(to, std::string(data, size), what);
        return static_cast<bool>(written);
    });
    if (!written) {
        return written;
    }
    if (!read) {
        return Errno("cannot read " + what);
    }
    return fsync(to) == 0 ? SDK::Status::Ok() : Errno("cannot sync the copy of " + what);
}

// Writes `text` as `name` in the directory `dirFd`, atomically, 0600.
SDK::Status WriteFileAt(int dirFd, const std::string& name, const std::string& text)
{
    const std::string part = name + ".part";
    SDK::UniqueFd fd(openat(dirFd, part.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd.Valid()) {
        return Errno("cannot create " + part);
    }
    SDK::Status written = SDK::WriteAll(fd.Get(), text, part);
    if (written && fsync(fd.Get()) != 0) {
        written = Errno("cannot sync " + part);
    }
    if (written && renameat(dirFd, part.c_str(), dirFd, name.c_str()) != 0) {
        written = Errno("cannot name " + name);
    }
    if (!written) {
        unlinkat(dirFd, part.c_str(), 0);
    }
    return written;
}

bool SameFile(const struct stat& a, const struct stat& b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Moves `from` in `fromDir` to `to` in `toDir` without replacing anything
// there: EEXIST when `to` exists, EXDEV across filesystems.
int MoveNoReplace(int fromDir, const std::string& from, int toDir, const std::string& to)
{
    if (renameat2(fromDir, from.c_str(), toDir, to.c_str(), RENAME_NOREPLACE) == 0) {
        return 0;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        return -1;
    }
    // A filesystem without RENAME_NOREPLACE: a link fails when the name exists.
    if (linkat(fromDir, from.c_str(), toDir, to.c_str(), 0) != 0) {
        return -1;
    }
    unlinkat(fromDir, from.c_str(), 0);
    return 0;
}

Json::Value Time(const struct timespec& ts)
{
    Json::Value v(Json::objectValue);
    v["sec"] = Json::Int64(ts.tv_sec);
    v["nsec"] = Json::Int64(ts.tv_nsec);
    return v;
}

bool ReadTime(const Json::Value& v, struct timespec& out)
{
    if (!v.isObject() || !v["sec"].isInt64() || !v["nsec"].isInt64()) {
        return false;
    }
    out.tv_sec = static_cast<time_t>(v["sec"].asInt64());
    out.tv_nsec = static_cast<long>(v["nsec"].asInt64());
    return out.tv_nsec >= 0 && out.tv_nsec < 1000000000L;
}

}  // namespace

std::string Sha256Of(const std::string& data)
{
    Poco::SHA2Engine engine(Poco::SHA2Engine::SHA_256);
    engine.update(data.data(), static_cast<unsigned>(data.size()));
    return Poco::DigestEngine::digestToHex(engine.digest());
}

std::string Sha256OfFd(int fd)
{
    Poco::SHA2Engine engine(Poco::SHA2Engine::SHA_256);
    const bool read = ForEachChunk(fd, [&](const char* data, size_t size) {
        engine.update(data, static_cast<unsigned>(size));
        return true;
    });
    return read ? Poco::DigestEngine::digestToHex(engine.digest()) : std::string();
}

Json::Value QuarantineRecord::ToJson() const
{
    Json::Value v(Json::objectValue);
    bool escaped = false;
    v["id"] = id;
    v["path"] = SDK::JsonUtils::EscapeNonUtf8(path, escaped);
    v["path_b64"] = Base64(path);  // the exact bytes, whatever the name holds
    v["uid"] = Json::UInt(uid);
    v["gid"] = Json::UInt(gid);
    v["owner"] = owner;
    v["group"] = group;
    char octal[8];
    snprintf(octal, sizeof(octal), "%04o", static_cast<unsigned>(mode & 07777));
    v["mode"] = octal;
    v["atime"] = Time(atime);
    v["mtime"] = Time(mtime);
    v["size"] = Json::UInt64(size);
    v["sha256"] = sha256;
    v["rule"] = rule;
    v["quarantined_at"] = quarantinedAt;
    return v;
}

SDK::Status QuarantineRecord::FromJson(const Json::Value& v, QuarantineRecord& out)
{
    if (!v.isObject() || !v["id"].isString() || !v["path_b64"].isString() || !v["uid"].isUInt() ||
        !v["gid"].isUInt() || !v["mode"].isString() || !v["sha256"].isString() || !ReadTime(v["atime"], out.atime) ||
        !ReadTime(v["mtime"], out.mtime)) {
        return SDK::Status::Error("the record lacks a key or has one of another type");
    }
    out.id = v["id"].asString();
    out.path = FromBase64(v["path_b64"].asString());
    if (out.path.empty() || out.path[0] != '/') {
        return SDK::Status::Error("the record's path is not absolute");
    }
    out.uid = static_cast<uid_t>(v["uid"].asUInt());
    out.gid = static_cast<gid_t>(v["gid"].asUInt());
    out.owner = v["owner"].asString();
    out.group = v["group"].asString();
    char* end = nullptr;
    const std::string mode = v["mode"].asString();
    out.mode = static_cast<mode_t>(strtoul(mode.c_str(), &end, 8) & 07777);
    out.size = v["size"].asUInt64();
    out.sha256 = v["sha256"].asString();
    out.rule = v["rule"].asString();
    out.quarantinedAt = v["quarantined_at"].asString();
    return SDK::Status::Ok();
}

Quarantine::Quarantine(const std::string& installDir) : m_dir(installDir + "data/quarantine/") {}

SDK::Status Quarantine::Take(const std::string& path, const struct stat& scanned, const std::string& sha256,
                             const std::string& rule, const std::vector<std::string>& roots,
                             std::string& id) const
{
    std::string dirPath;
    std::string name;
    SplitPath(path, dirPath, name);
    SDK::UniqueFd dir(open(dirPath.c_str(), kDirOpenFlags));
    if (!dir.Valid()) {
        return Errno("cannot open its directory " + dirPath);
    }
    const std::string realDir = RealPathOf(dir.Get());
    const std::string realPath = (realDir == "/" ? "" : realDir) + "/" + name;
    bool inside = false;
    for (const auto& root : roots) {
        const std::string realRoot = SDK::PathUtils::GetLinkRealPath(root);
        inside = inside || (!realRoot.empty() && !realDir.empty() && Under(realPath, realRoot));
    }
    if (!inside) {
        return SDK::Status::Error("its real path " + realPath + " is outside the scan roots");
    }
    SDK::UniqueFd file;
    const SDK::ReadResult opened = SDK::OpenRegularFileAt(dir.Get(), name, true, file);
    if (!opened.ok()) {
        struct stat link;
        if (fstatat(dir.Get(), name.c_str(), &link, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(link.st_mode)) {
            return SDK::Status::Error("it is a symbolic link");
        }
        return SDK::Status::Error(opened.reason);
    }
    struct stat st;
    if (fstat(file.Get(), &st) != 0) {
        return Errno("cannot stat it");
    }
    if (!SameFile(st, scanned)) {
        return SDK::Status::Error("it was replaced since it was checked");
    }
    if (Sha256OfFd(file.Get()) != sha256) {
        return SDK::Status::Error("its content changed since it was checked");
    }

    const SDK::Status made = SDK::MakePrivateDir(m_dir, 0700);
    if (!made) {
        return made.Prefixed("the quarantine directory " + m_dir);
    }
    SDK::UniqueFd qdir(open(m_dir.c_str(), kDirOpenFlags | O_NOFOLLOW));
    if (!qdir.Valid()) {
        return Errno("cannot open " + m_dir);
    }
    QuarantineRecord record;
    record.id = NewId();
    record.path = realPath;
    record.uid = st.st_uid;
    record.gid = st.st_gid;
    record.owner = OwnerName(st.st_uid);
    record.group = GroupName(st.st_gid);
    record.mode = st.st_mode & 07777;
    record.atime = scanned.st_atim;  // before the scan read it
    record.mtime = st.st_mtim;
    record.size = static_cast<uint64_t>(st.st_size);
    record.sha256 = sha256;
    record.rule = rule;
    record.quarantinedAt = Poco::DateTimeFormatter::format(Poco::Timestamp(), Poco::DateTimeFormat::ISO8601_FORMAT);
    // The record first: a file in quarantine always says where it came from.
    const std::string recordName = record.id + kRecordSuffix;
    SDK::Status status = WriteFileAt(qdir.Get(), recordName, SDK::JsonUtils::JsonToString(record.ToJson()) + "\n");
    if (!status) {
        return status;
    }
    auto undoRecord = [&]() { unlinkat(qdir.Get(), recordName.c_str(), 0); };

    if (renameat(dir.Get(), name.c_str(), qdir.Get(), record.id.c_str()) == 0) {
        struct stat moved;
        // Swapped for another file between the checks and the move: put it back.
        if (fstatat(qdir.Get(), record.id.c_str(), &moved, AT_SYMLINK_NOFOLLOW) != 0 || !SameFile(moved, st)) {
            renameat(qdir.Get(), record.id.c_str(), dir.Get(), name.c_str());
            undoRecord();
            return SDK::Status::Error("it was replaced while it was being moved");
        }
        if (fchmod(file.Get(), 0600) != 0) {
            status = Errno("cannot make it private");
        }
    } else if (errno == EXDEV) {
        const std::string part = record.id + ".part";
        SDK::UniqueFd copy(
            openat(qdir.Get(), part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!copy.Valid()) {
            undoRecord();
            return Errno("cannot create its copy in " + m_dir);
        }
        status = CopyAndSync(file.Get(), copy.Get(), path);
        if (status && renameat(qdir.Get(), part.c_str(), qdir.Get(), record.id.c_str()) != 0) {
            status = Errno("cannot name its copy");
        }
        struct stat still;
        if (status && (fstatat(dir.Get(), name.c_str(), &still, AT_SYMLINK_NOFOLLOW) != 0 || !SameFile(still, st))) {
            status = SDK::Status::Error("it was replaced while it was being copied");
        }
        if (status && unlinkat(dir.Get(), name.c_str(), 0) != 0) {
            status = Errno("cannot remove it after the copy");
        }
        if (!status) {
            unlinkat(qdir.Get(), part.c_str(), 0);
            unlinkat(qdir.Get(), record.id.c_str(), 0);
            undoRecord();
            return status;
        }
        fsync(dir.Get());
    } else {
        status = Errno("cannot move it to " + m_dir);
        undoRecord();
        return status;
    }
    fsync(qdir.Get());
    id = record.id;
    return status;
}

SDK::Status Quarantine::List(std::vector<QuarantineRecord>& out, std::vector<std::string>& problems) const
{
    std::vector<SDK::DirEntry> entries;
    const SDK::ReadResult listed = SDK::ListDirectory(m_dir, entries);
    if (listed.error == SDK::ReadError::Missing) {
        return SDK::Status::Ok();
    }
    if (!listed.ok()) {
        return listed.status;
    }
    const size_t suffix = strlen(kRecordSuffix);
    for (const auto& entry : entries) {
        if (entry.type != SDK::DirEntry::Type::File || entry.name.size() <= suffix ||
            entry.name.compare(entry.name.size() - suffix, suffix, kRecordSuffix) != 0) {
            continue;
        }
        std::string text;
        Json::Value value;
        QuarantineRecord record;
        const SDK::ReadResult read = SDK::ReadRegularFile(m_dir + entry.name, kMaxRecordBytes, text, true);
        SDK::Status parsed = read.ok() ? SDK::Status::Ok() : read.status;
        if (parsed && (SDK::JsonUtils::ParseJsonStr(text, value) != 0)) {
            parsed = SDK::Status::Error("not JSON");
        }
        if (parsed) {
            parsed = QuarantineRecord::FromJson(value, record);
        }
        if (!parsed) {
            problems.push_back(m_dir + entry.name + ": " + parsed.message());
            continue;
        }
        out.push_back(record);
    }
    std::sort(out.begin(), out.end(),
              [](const QuarantineRecord& a, const QuarantineRecord& b) { return a.id < b.id; });
    return SDK::Status::Ok();
}

SDK::Status Quarantine::Restore(const std::string& id, QuarantineRecord& record) const
{
    if (!ValidId(id)) {
        return SDK::Status::Error("\"" + id + "\" is not a quarantine id");
    }
    std::string text;
    const SDK::ReadResult read = SDK::ReadRegularFile(m_dir + id + kRecordSuffix, kMaxRecordBytes, text, true);
    if (read.error == SDK::ReadError::Missing) {
        return SDK::Status::Error("nothing is quarantined as " + id + " in " + m_dir);
    }
    if (!read.ok()) {
        return read.status;
    }
    Json::Value value;
    if (SDK::JsonUtils::ParseJsonStr(text, value) != 0) {
        return SDK::Status::Error("the record " + m_dir + id + kRecordSuffix + " is not JSON");
    }
    SDK::Status status = QuarantineRecord::FromJson(value, record);
    if (!status) {
        return status.Prefixed("the record " + m_dir + id + kRecordSuffix);
    }
    SDK::UniqueFd qdir(open(m_dir.c_str(), kDirOpenFlags | O_NOFOLLOW));
    SDK::UniqueFd file;
    if (!qdir.Valid() || !SDK::OpenRegularFileAt(qdir.Get(), id, true, file).ok()) {
        return SDK::Status::Error("the quarantined content " + m_dir + id + " is missing");
    }
    if (Sha256OfFd(file.Get()) != record.sha256) {
        return SDK::Status::Error("the quarantined content " + m_dir + id + " does not have its recorded SHA-256");
    }
    std::string dirPath;
    std::string name;
    SplitPath(record.path, dirPath, name);
    SDK::UniqueFd dir(open(dirPath.c_str(), kDirOpenFlags));
    if (!dir.Valid()) {
        return Errno("cannot open the original directory " + dirPath);
    }
    // A directory now reached through a link would send the file elsewhere.
    if (RealPathOf(dir.Get()) != dirPath) {
        return SDK::Status::Error("the original directory " + dirPath + " is now reached through a symbolic link");
    }
    struct stat existing;
    if (fstatat(dir.Get(), name.c_str(), &existing, AT_SYMLINK_NOFOLLOW) == 0) {
        return SDK::Status::Error(record.path + " exists; move it away first, nothing was replaced");
    }

    int placed = -1;  // the descriptor of the file now at the original path
    SDK::UniqueFd copy;
    bool copied = false;
    if (MoveNoReplace(qdir.Get(), id, dir.Get(), name) == 0) {
        placed = file.Get();
    } else if (errno == EXDEV) {
        const std::string part = "." + name + ".ardent-restore";
        copy.Reset(openat(dir.Get(), part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!copy.Valid()) {
            return Errno("cannot create " + dirPath + "/" + part);
        }
        status = CopyAndSync(file.Get(), copy.Get(), m_dir + id);
        if (status && MoveNoReplace(dir.Get(), part, dir.Get(), name) != 0) {
            status = errno == EEXIST ? SDK::Status::Error(record.path + " appeared meanwhile; nothing was replaced")
                                     : Errno("cannot name " + record.path);
        }
        if (!status) {
            unlinkat(dir.Get(), part.c_str(), 0);
            return status;
        }
        placed = copy.Get();
        copied = true;
    } else if (errno == EEXIST) {
        return SDK::Status::Error(record.path + " appeared meanwhile; nothing was replaced");
    } else {
        return Errno("cannot move it back to " + record.path);
    }
    // Owner first: changing it clears the setuid and setgid bits the mode then restores.
    const struct timespec times[2] = {record.atime, record.mtime};
    if (fchown(placed, record.uid, record.gid) != 0) {
        status = Errno("restored to " + record.path + " but its owner could not be set");
    } else if (fchmod(placed, record.mode) != 0) {
        status = Errno("restored to " + record.path + " but its mode could not be set");
    } else if (futimens(placed, times) != 0) {
        status = Errno("restored to " + record.path + " but its times could not be set");
    }
    fsync(placed);
    fsync(dir.Get());
    if (copied) {
        unlinkat(qdir.Get(), id.c_str(), 0);
    }
    unlinkat(qdir.Get(), (id + kRecordSuffix).c_str(), 0);
    fsync(qdir.Get());
    return status;
}

void QuarantineMatch(const std::string& installDir, const std::string& path, const struct stat& scanned,
                     const std::vector<std::string>& roots, DetectResult& result,
                     const std::function<const std::string&()>& digest)
{
    Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger(kModuleName, false);
    const Quarantine quarantine(installDir);
    std::string id;
    const std::string& sha256 = digest();
    const SDK::Status taken = sha256.empty() ? SDK::Status::Error("its content cannot be read")
                                             : quarantine.Take(path, scanned, sha256, result.ruleName, roots, id);
    result.quarantineId = id;
    if (!taken && id.empty()) {
        struct stat gone;
        if (lstat(path.c_str(), &gone) != 0 && errno == ENOENT) {
            SDK_LOG(logger, Poco::Message::PRIO_WARNING, kSource,
                    "Web shell %s vanished before it could be quarantined (%s); the event says so.", path,
                    taken.message());
        } else {
            SDK_LOG(logger, Poco::Message::PRIO_WARNING, kSource,
                    "Web shell %s not quarantined: %s. It stays in place; the event says so.", path,
                    taken.message());
        }
        // Only the quarantine directory itself is the agent's fault.
        if (taken.message().find(quarantine.Dir()) != std::string::npos) {
            Framework::Health::Raise(kHealthKey, Framework::Health::Severity::Degraded,
                                     "certain web shells cannot be quarantined: " + taken.message());
        }
        return;
    }
    Framework::Health::Clear(kHealthKey);
    SDK_LOG(logger, Poco::Message::PRIO_WARNING, kSource,
            "Web shell %s (rule %s) quarantined as %s in %s%s; `ardent-agent quarantine restore %s` puts it back.",
            path, result.ruleName, id, quarantine.Dir(), taken ? std::string() : " (" + taken.message() + ")", id);
}

}  // namespace Engine
