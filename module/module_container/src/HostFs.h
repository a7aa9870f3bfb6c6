#pragma once
// Read-only access to a host's file system seen under a root directory
// (the agent's --host-root). Everything the collector reads about container
// runtimes goes through here, so a test can hand in a fake host tree.
//
// Runtime state is input we do not control: files are read with a size cap,
// never through a symbolic link, and only when they are regular files (a
// FIFO named config.json must not block the poll).

#include <string>
#include <vector>

#include <json/json.h>

namespace Container {

// What a read found. Missing is not an error: a runtime that is not
// installed, or a container that went away between listing and reading.
enum class ReadStatus { OK, MISSING, FAILED };

class HostFs {
public:
    // Per-container state files (config.json, config.v2.json, pid files).
    static constexpr std::size_t kStateFileCap = 4u * 1024u * 1024u;
    // Shared indexes (Podman's containers.json lists every container).
    static constexpr std::size_t kIndexFileCap = 32u * 1024u * 1024u;

    // An empty root or "/" means the real root. Trailing slashes are dropped.
    explicit HostFs(const std::string& root);

    // The root as configured ("/" for the real root).
    std::string Root() const { return m_root.empty() ? std::string("/") : m_root; }

    // Host path of an absolute path as the host sees it: "/run/x" under
    // root "/tmp/h" is "/tmp/h/run/x"; under "/" it stays "/run/x".
    std::string Path(const std::string& absolutePath) const;

    // A real directory (a symbolic link to one does not count).
    bool IsDir(const std::string& path) const;
    // A directory, following symbolic links (/proc/PID/root is one).
    bool IsDirFollow(const std::string& path) const;

    // Names of the real subdirectories of `path`, sorted. A missing
    // directory gives MISSING and no names.
    ReadStatus ListDirs(const std::string& path, std::vector<std::string>& names,
                        std::string& reason) const;

    // Whole content of a regular file of at most `cap` bytes.
    ReadStatus ReadFile(const std::string& path, std::size_t cap, std::string& out,
                        std::string& reason) const;
    // ReadFile, then parse one JSON document.
    ReadStatus ReadJson(const std::string& path, std::size_t cap, Json::Value& out,
                        std::string& reason) const;

    // DIR/proc/PID exists.
    bool ProcessExists(long pid) const;

private:
    std::string m_root;  // "" for the real root, else without trailing slash
};

// A file name a runtime could have written for a namespace or container id:
// 1 to 128 of [A-Za-z0-9_.-], not starting with a dot. Anything else (a
// control character, a byte that is not ASCII, "..") is refused.
bool IsPlainName(const std::string& name);

// A pid file's content: decimal digits, surrounding white space allowed,
// 1 .. 4194304 (the kernel's largest pid_max). 0 when it is anything else.
long ParsePid(const std::string& text);

// True when `path` has a ".." component.
bool HasDotDot(const std::string& path);

}  // namespace Container
