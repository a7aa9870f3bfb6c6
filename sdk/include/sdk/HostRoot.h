#pragma once
// A file system seen from a root directory: the agent's --host-root, or the
// root of a containerised process (<host root>/proc/<pid>/root). Paths
// handed in are paths of that root's namespace ("/etc/nginx/nginx.conf");
// they are read under the prefix.
//
// Under a non-empty prefix, symbolic links are resolved by hand and stay
// inside it: an absolute link in a container (Debian writes its
// sites-enabled links that way) points into the container and never into
// the agent's own root, and ".." never climbs above the prefix. A path whose
// links cannot be resolved inside the prefix (a loop, too many links) is not
// read. Under the agent's own root the kernel resolves links as usual.
//
// What is read here is input we do not control: regular files only, opened
// without blocking (a FIFO named like a configuration file never hangs the
// caller), never more than a cap.

#include <cstddef>
#include <string>
#include <vector>

#include "sdk/Posix.h"

namespace SDK {

class HostRoot {
public:
    // "" and "/" mean the agent's own root; trailing slashes are dropped.
    explicit HostRoot(const std::string& prefix = "");

    // "" for the agent's own root.
    const std::string& Prefix() const { return m_prefix; }
    // The prefix for a log line or the status: "/" for the agent's own root.
    std::string Display() const { return m_prefix.empty() ? std::string("/") : m_prefix; }

    // `path` under the prefix as written, links not resolved: "/run/x" under
    // "/tmp/h" is "/tmp/h/run/x". For naming a path to an operator.
    std::string Path(const std::string& path) const;
    // The host path of `path`: links resolved inside the prefix as far as the
    // path exists; the part that does not exist is kept as written.
    std::string HostPath(const std::string& path) const;
    // The view rooted at `path` of this one, e.g. "/proc/<pid>/root" of a
    // containerised process. The new prefix is taken as written, so that the
    // kernel resolves /proc's own links, which mean something only to it.
    HostRoot Below(const std::string& path) const { return HostRoot(Path(path)); }

    enum class FinalLink { Follow, Refuse };
    // Whole content of the regular file at `path`, at most `cap` bytes. With
    // Refuse, a symbolic link as the last component is refused ("is a
    // symbolic link"): runtime state files are never links.
    ReadResult ReadFile(const std::string& path, std::size_t cap, std::string& out,
                        FinalLink link = FinalLink::Follow) const;
    // The text of the symbolic link at `path` (its directory resolved inside
    // the prefix); empty when it is not a link.
    std::string ReadLink(const std::string& path) const;
    // A directory, links followed inside the prefix.
    bool IsDirectory(const std::string& path) const;
    // The entries of the directory at `path` (see SDK::ListDirectory).
    ReadResult ListDir(const std::string& path, std::vector<DirEntry>& out) const;

    // The paths (this root's namespace) a shell-style pattern matches, in byte
    // order. Hidden files match only a pattern that names the dot. A path
    // without a pattern character is returned as it is.
    std::vector<std::string> Glob(const std::string& pattern) const;
    // Regular files under a directory, recursively (links followed inside the
    // prefix, at most 8 levels), in byte order, at most `limit`.
    std::vector<std::string> FilesUnder(const std::string& dir, std::size_t limit) const;

    // Helpers on path texts.
    static bool HasGlob(const std::string& text);
    static std::string DirName(const std::string& path);
    // `base` + "/" + `rel` unless `rel` is absolute.
    static std::string Join(const std::string& base, const std::string& rel);
    // Drops trailing slashes (but keeps "/").
    static std::string StripTrailingSlash(const std::string& path);

private:
    // Resolves the links of `path` inside the prefix (namespace path in and
    // out). `confined` is false when resolution gave up (a loop, too many
    // links, an unreadable link) and the rest was kept as written.
    std::string Resolve(const std::string& path, bool& confined) const;
    // HostPath, or "" when `path` cannot be confined to the prefix.
    std::string ConfinedPath(const std::string& path) const;
    void CollectFiles(const std::string& dir, int depth, std::size_t limit,
                      std::vector<std::string>& out) const;

    std::string m_prefix;
};

}  // namespace SDK
