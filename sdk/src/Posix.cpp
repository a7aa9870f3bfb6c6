#include "sdk/Posix.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

namespace SDK {

std::string ErrnoText(int err)
{
    char buf[256];
    // GNU strerror_r returns the text, which may or may not live in buf.
    const char* text = strerror_r(err, buf, sizeof(buf));
    return text != nullptr ? std::string(text) : "errno " + std::to_string(err);
}

void UniqueFd::Reset(int fd)
{
    if (m_fd >= 0) {
        ::close(m_fd);
    }
    m_fd = fd;
}

void UniqueDir::Reset(DIR* dir)
{
    if (m_dir != nullptr) {
        ::closedir(m_dir);
    }
    m_dir = dir;
}

ReadResult ReadResult::Failure(ReadError error, const std::string& what, const std::string& reason)
{
    ReadResult r;
    r.error = error;
    r.reason = reason;
    r.status = Status::Error(what + ": " + reason);
    return r;
}

namespace {

ReadResult Fail(ReadError error, const std::string& what, const std::string& reason)
{
    return ReadResult::Failure(error, what, reason);
}

ReadResult FromErrno(int err, const std::string& what)
{
    ReadError kind = (err == ENOENT || err == ENOTDIR) ? ReadError::Missing : ReadError::Failed;
    if (err == ELOOP) {
        kind = ReadError::NotRegular;  // O_NOFOLLOW met a symbolic link
        return Fail(kind, what, "is a symbolic link");
    }
    return Fail(kind, what, ErrnoText(err));
}

ReadResult CheckRegular(int fd, const std::string& what)
{
    struct stat st;
    if (::fstat(fd, &st) != 0) {
        return FromErrno(errno, what);
    }
    if (!S_ISREG(st.st_mode)) {
        return Fail(ReadError::NotRegular, what,
                    S_ISDIR(st.st_mode) ? "is a directory" : "not a regular file");
    }
    return {};
}

}  // namespace

ReadResult OpenRegularFileAt(int dirFd, const std::string& name, bool noFollow, UniqueFd& out)
{
    int flags = O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;
    if (noFollow) {
        flags |= O_NOFOLLOW;
    }
    UniqueFd fd(::openat(dirFd, name.c_str(), flags));
    if (!fd.Valid()) {
        return FromErrno(errno, name);
    }
    ReadResult r = CheckRegular(fd.Get(), name);
    if (!r.ok()) {
        return r;
    }
    // Reads should block normally once we know it is a regular file.
    int fl = ::fcntl(fd.Get(), F_GETFL);
    if (fl >= 0) {
        ::fcntl(fd.Get(), F_SETFL, fl & ~O_NONBLOCK);
    }
    out = std::move(fd);
    return {};
}

ReadResult OpenRegularFile(const std::string& path, bool noFollow, UniqueFd& out)
{
    return OpenRegularFileAt(AT_FDCWD, path, noFollow, out);
}

ReadResult ReadAll(int fd, std::size_t cap, std::string& out, const std::string& what)
{
    // Straight into the string, sized from fstat: one read and no copy for
    // nearly every file. One byte more than the size asked, so that a file
    // grown since is seen to go on rather than cut.
    struct stat st {};
    std::size_t want = 64 * 1024;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size >= 0) {
        want = std::min(static_cast<std::size_t>(st.st_size), cap) + 1;
    }
    out.resize(want);
    std::size_t got = 0;
    for (;;) {
        if (got == out.size()) {
            if (got > cap) {
                out.clear();
                return Fail(ReadError::TooLarge, what, "larger than " + std::to_string(cap) + " bytes");
            }
            out.resize(std::min(cap + 1, std::max(got * 2, got + 64 * 1024)));
        }
        const ssize_t n = ::read(fd, &out[got], out.size() - got);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            out.clear();
            return FromErrno(errno, what);
        }
        if (n == 0) {
            out.resize(got);
            return {};
        }
        got += static_cast<std::size_t>(n);
    }
}

ReadResult ReadRegularFile(const std::string& path, std::size_t cap, std::string& out, bool noFollow)
{
    UniqueFd fd;
    ReadResult r = OpenRegularFile(path, noFollow, fd);
    if (!r.ok()) {
        out.clear();
        return r;
    }
    return ReadAll(fd.Get(), cap, out, path);
}

Status WriteAll(int fd, const std::string& data, const std::string& what)
{
    std::size_t done = 0;
    while (done < data.size()) {
        ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return Status::Error(what + ": " + ErrnoText(errno));
        }
        done += static_cast<std::size_t>(n);
    }
    return {};
}

ReadResult ListDirectory(const std::string& path, std::vector<DirEntry>& out)
{
    out.clear();
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC));
    if (!fd.Valid()) {
        return FromErrno(errno, path);
    }
    UniqueDir dir(::fdopendir(fd.Get()));
    if (!dir.Valid()) {
        return FromErrno(errno, path);
    }
    fd.Release();  // the stream owns it now
    errno = 0;
    while (struct dirent* de = ::readdir(dir.Get())) {
        const char* name = de->d_name;
        if (::strcmp(name, ".") == 0 || ::strcmp(name, "..") == 0) {
            continue;
        }
        unsigned char type = de->d_type;
        if (type == DT_UNKNOWN) {
            struct stat st;
            if (::fstatat(::dirfd(dir.Get()), name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
                continue;  // removed meanwhile
            }
            type = IFTODT(st.st_mode);
        }
        DirEntry entry;
        entry.name = name;
        entry.type = type == DT_REG   ? DirEntry::Type::File
                     : type == DT_DIR ? DirEntry::Type::Dir
                     : type == DT_LNK ? DirEntry::Type::Link
                                      : DirEntry::Type::Other;
        out.push_back(std::move(entry));
    }
    std::sort(out.begin(), out.end(),
              [](const DirEntry& a, const DirEntry& b) { return a.name < b.name; });
    return {};
}

Status MakePrivateDir(const std::string& dir, unsigned mode)
{
    if (dir.empty()) {
        return Status::Error("empty directory name");
    }
    std::size_t pos = 0;
    while (pos != std::string::npos) {
        pos = dir.find('/', pos + 1);
        const std::string partial = dir.substr(0, pos);
        if (partial.empty()) {
            continue;
        }
        if (::mkdir(partial.c_str(), pos == std::string::npos ? mode : 0755) != 0 && errno != EEXIST) {
            return Status::Error("cannot create " + partial + ": " + ErrnoText(errno));
        }
    }
    // Opened without following a link, then changed through the descriptor:
    // a link planted in its place never lends its target our mode.
    UniqueFd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.Valid()) {
        const int err = errno;
        if (err == ELOOP || err == ENOTDIR) {
            return Status::Error(dir + ": not a directory (a link or file stands in its place)");
        }
        return Status::Error(dir + ": " + ErrnoText(err));
    }
    struct stat st;
    if (::fstat(fd.Get(), &st) != 0) {
        return Status::Error(dir + ": " + ErrnoText(errno));
    }
    if (st.st_uid != ::geteuid()) {
        return Status::Error(dir + " belongs to uid " + std::to_string(st.st_uid) +
                             ", not to the agent; its mode is left alone");
    }
    if ((st.st_mode & 07777) != mode && ::fchmod(fd.Get(), mode) != 0) {
        return Status::Error("cannot chmod " + dir + ": " + ErrnoText(errno));
    }
    return {};
}

int RemoveStaleFiles(const std::string& dir, const std::string& namePrefix, int64_t olderThanS)
{
    UniqueFd dirFd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    std::vector<DirEntry> entries;
    if (!dirFd.Valid() || !ListDirectory(dir, entries).ok()) {
        return 0;
    }
    const int64_t now = static_cast<int64_t>(::time(nullptr));
    int removed = 0;
    for (const auto& e : entries) {
        if (e.type != DirEntry::Type::File || e.name.compare(0, namePrefix.size(), namePrefix) != 0) {
            continue;
        }
        struct stat st;
        if (::fstatat(dirFd.Get(), e.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(st.st_mode) && now - static_cast<int64_t>(st.st_mtime) > olderThanS &&
            ::unlinkat(dirFd.Get(), e.name.c_str(), 0) == 0) {
            ++removed;
        }
    }
    return removed;
}

}  // namespace SDK
