#pragma once
// A view of a file system tree as a server process sees it.
//
// Configuration paths are written in the server's own namespace
// ("/etc/nginx/nginx.conf"). The agent reads them under a prefix: the host
// root the agent was given ("" for "/"), plus "/proc/<pid>/root" for a
// server inside a container. Under a non-empty prefix, symbolic links are
// resolved by hand inside the prefix, so that an absolute link inside a
// container (Debian's sites-enabled links are absolute) points into the
// container and not into the agent's own root.

#include <string>
#include <vector>

namespace Asset {

class RootedFs {
public:
    // `prefix` is a host path without the trailing slash; "" and "/" mean
    // the agent's own root.
    explicit RootedFs(const std::string& prefix = "");

    const std::string& Prefix() const { return m_prefix; }

    // The host-visible path of `path` (a path of the server's namespace).
    // Symbolic links are resolved inside the prefix as far as the path
    // exists; the part that does not exist is kept as written.
    std::string HostPath(const std::string& path) const;

    // Reads a whole regular file (at most `maxBytes`). false and `error`
    // set when it cannot.
    bool ReadFile(const std::string& path, std::string& out, std::string& error,
                  size_t maxBytes = kMaxConfigBytes) const;

    bool IsDirectory(const std::string& path) const;

    // The paths (server namespace) that a shell-style pattern matches, in
    // byte order. Hidden files match only a pattern that names the dot.
    std::vector<std::string> Glob(const std::string& pattern) const;

    // Regular files under a directory, recursively, in byte order (at most
    // `limit`). Used for Apache's Include of a directory.
    std::vector<std::string> FilesUnder(const std::string& dir, size_t limit) const;

    // Real configuration files are kilobytes; this bounds what a hostile one costs.
    static constexpr size_t kMaxConfigBytes = 4u << 20;

    // Helpers on plain path texts.
    static bool HasGlob(const std::string& text);
    static std::string DirName(const std::string& path);
    // `base` + "/" + `rel` unless `rel` is absolute.
    static std::string Join(const std::string& base, const std::string& rel);
    // Drops trailing slashes (but keeps "/").
    static std::string StripTrailingSlash(const std::string& path);

private:
    // Resolves symbolic links of `path` inside the prefix (server namespace
    // in, server namespace out).
    std::string Resolve(const std::string& path) const;

    std::string m_prefix;
};

}  // namespace Asset
