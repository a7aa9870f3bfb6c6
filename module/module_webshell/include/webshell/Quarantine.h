#pragma once
// Certain web shells taken out of the web root and kept where nothing
// serves or runs them, until an operator puts one back.
//
// <install>/data/quarantine/ (0700) holds, for each file, its content as
// ID (0600, never executable) and ID.json, the record of where it was and
// what it looked like: path, owner, group, mode, access and modification
// times, size, SHA-256, the rule that matched and when. Nothing is put in
// the file's place.
//
// A file is taken only when it is a regular file opened without following
// a symbolic link, its real directory lies under one of the scan roots, it
// is still the file the scan checked (device and inode) and its content
// still has the digest that matched. Across filesystems it is copied,
// synced, and only then removed.
//
// Restore puts content, owner, group, mode and times back, and never
// replaces a file that exists at the original path.

#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "sdk/Status.h"

namespace Json {
class Value;
}

namespace Engine {

struct DetectResult;

struct QuarantineRecord {
    std::string id;
    std::string path;  // real path it was taken from
    uid_t uid = 0;
    gid_t gid = 0;
    std::string owner;  // names when known, for people
    std::string group;
    mode_t mode = 0;  // permission bits, setuid/setgid/sticky included
    struct timespec atime {};
    struct timespec mtime {};
    uint64_t size = 0;
    std::string sha256;
    std::string rule;
    std::string quarantinedAt;  // RFC 3339, UTC

    Json::Value ToJson() const;
    static SDK::Status FromJson(const Json::Value& value, QuarantineRecord& out);
};

class Quarantine {
public:
    // `installDir` ends with "/".
    explicit Quarantine(const std::string& installDir);
    const std::string& Dir() const { return m_dir; }

    // Moves `path` away. `scanned` is the status the scan took of it before
    // reading, `sha256` the digest of what matched. On success `id` names it.
    SDK::Status Take(const std::string& path, const struct stat& scanned, const std::string& sha256,
                     const std::string& rule, const std::vector<std::string>& roots, std::string& id) const;
    // Every record, oldest first; records that do not parse are named in `problems`.
    SDK::Status List(std::vector<QuarantineRecord>& out, std::vector<std::string>& problems) const;
    SDK::Status Restore(const std::string& id, QuarantineRecord& restored) const;

private:
    std::string m_dir;
};

// Lower-case hex SHA-256 of `data`, and of what an open file holds from
// its start ("" when it cannot be read).
std::string Sha256Of(const std::string& data);
std::string Sha256OfFd(int fd);

// The scan's hook for a certain match under a policy that asks for
// quarantine: takes the file and sets result.quarantineId to its id, or to
// "" when it stays (the log says why).
void QuarantineMatch(const std::string& installDir, const std::string& path, const struct stat& scanned,
                     const std::vector<std::string>& roots, DetectResult& result,
                     const std::function<const std::string&()>& digest);

}  // namespace Engine
