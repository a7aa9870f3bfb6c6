#pragma once
// Owned POSIX handles and the careful reads every component needs. Input we
// do not control (policies, server configuration, runtime state, web roots)
// is read through these: never blocking on a FIFO or device, never more than
// a cap, never reading a status after a failed call.

#include <dirent.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "sdk/Status.h"

namespace SDK {

// strerror text for an errno value ("No such file or directory").
std::string ErrnoText(int err);

// An owned file descriptor, closed on destruction.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : m_fd(fd) {}
    ~UniqueFd() { Reset(); }
    UniqueFd(UniqueFd&& other) noexcept : m_fd(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        if (this != &other) {
            Reset(other.Release());
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int Get() const { return m_fd; }
    bool Valid() const { return m_fd >= 0; }
    int Release()
    {
        int fd = m_fd;
        m_fd = -1;
        return fd;
    }
    void Reset(int fd = -1);

private:
    int m_fd = -1;
};

// An owned directory stream, closed on destruction.
class UniqueDir {
public:
    UniqueDir() = default;
    explicit UniqueDir(DIR* dir) : m_dir(dir) {}
    ~UniqueDir() { Reset(); }
    UniqueDir(UniqueDir&& other) noexcept : m_dir(other.m_dir) { other.m_dir = nullptr; }
    UniqueDir& operator=(UniqueDir&& other) noexcept
    {
        if (this != &other) {
            Reset(other.m_dir);
            other.m_dir = nullptr;
        }
        return *this;
    }
    UniqueDir(const UniqueDir&) = delete;
    UniqueDir& operator=(const UniqueDir&) = delete;

    DIR* Get() const { return m_dir; }
    bool Valid() const { return m_dir != nullptr; }
    void Reset(DIR* dir = nullptr);

private:
    DIR* m_dir = nullptr;
};

// Why a read of a regular file did not give its content.
enum class ReadError {
    None,
    Missing,     // ENOENT or ENOTDIR: not an error for optional files
    NotRegular,  // a FIFO, socket, device or directory: never read
    TooLarge,    // larger than the cap
    Failed,      // permission, I/O error, ...
};

struct ReadResult {
    ReadError error = ReadError::None;
    Status status;       // the reason, naming the path, when error != None
    std::string reason;  // the same without the path ("not a regular file")
    bool ok() const { return error == ReadError::None; }

    // A failure of `what` (a path) for `reason`.
    static ReadResult Failure(ReadError error, const std::string& what, const std::string& reason);
};

// Opens a regular file for reading without blocking (O_NONBLOCK, so a FIFO
// never waits for a writer) and without following a final symbolic link
// when `noFollow`. Anything but a regular file is refused.
ReadResult OpenRegularFile(const std::string& path, bool noFollow, UniqueFd& out);
// The same, relative to a directory descriptor (openat semantics).
ReadResult OpenRegularFileAt(int dirFd, const std::string& name, bool noFollow, UniqueFd& out);

// Whole content of a regular file of at most `cap` bytes.
ReadResult ReadRegularFile(const std::string& path, std::size_t cap, std::string& out,
                           bool noFollow = false);
// Whole content of an open descriptor, at most `cap` bytes; `what` names it in errors.
ReadResult ReadAll(int fd, std::size_t cap, std::string& out, const std::string& what);

// Writes all of `data` to fd, retrying short writes and EINTR.
Status WriteAll(int fd, const std::string& data, const std::string& what);

// One entry of a directory; a symbolic link is a Link, never what it points to.
struct DirEntry {
    enum class Type { File, Dir, Link, Other };
    std::string name;
    Type type = Type::Other;
};

// The entries of directory `path` but "." and "..", sorted by name.
// ReadError::Missing when it does not exist.
ReadResult ListDirectory(const std::string& path, std::vector<DirEntry>& out);

// Creates `dir` (and missing parents) with `mode`, and makes an existing one
// have exactly that mode. A symbolic link in place of `dir` and a directory
// of another user are refused, never changed.
Status MakePrivateDir(const std::string& dir, unsigned mode = 0700);

// Removes the regular files of `dir` whose names start with `namePrefix`
// and that were last written more than `olderThanS` seconds ago: the
// temporary files of a writer that died before it could remove them.
// Returns how many went.
int RemoveStaleFiles(const std::string& dir, const std::string& namePrefix, int64_t olderThanS);

}  // namespace SDK
