#pragma once
// What the collector takes from an OCI bundle: its config.json (the runtime
// configuration every OCI runtime reads) and where its root file system is.

#include <map>
#include <string>
#include <vector>

#include <json/json.h>

#include "ContainerRuntime.h"
#include "container/ContainerMessage.h"

namespace Container {

struct OciConfig {
    std::vector<std::string> args;
    std::vector<std::string> env;
    std::map<std::string, std::string> annotations;
    std::vector<Engine::MountPoint> mounts;
    std::string rootPath;  // root.path as written (absolute, relative or empty)
    bool hostNetwork = false;  // no network namespace of its own
};

// false (and `reason`) when the document is not an OCI configuration.
// Members of the wrong type are ignored one by one.
bool ParseOciConfig(const Json::Value& doc, OciConfig& out, std::string& reason);

// Host path of a container's root file system:
//   root.path absolute -> under the host root;
//   root.path relative -> against the bundle directory;
//   root.path empty    -> `fallback` (an absolute path, e.g. CRI-O's
//                         MountPoint) when given, else the bundle's rootfs.
// When that is not a directory but /proc/PID/root is, the process's view is
// used (the runtime mounted the root where the host root cannot see it).
// false (and `reason`) for a root path that climbs out with "..".
bool ResolveRootPath(const SDK::HostRoot& host, const std::string& bundleDir,
                     const std::string& rootPath, const std::string& fallback, long pid,
                     std::string& out, std::string& reason);

// /proc/PID exists under the host root.
bool ProcessRunning(const SDK::HostRoot& host, long pid);

// Names of the real subdirectories of `dir` (links are not followed: the
// runtimes write real directories, and a link could lead anywhere). A missing
// directory has none; one that cannot be read is a problem.
std::vector<std::string> Subdirectories(const SDK::HostRoot& host, const std::string& dir,
                                        Discovery& out);

// Copies what every runtime reports the same way into `info`.
void FillFromOci(const OciConfig& config, Engine::ContainerInfo& info);

// Value of `key` in `map`, or empty.
std::string Lookup(const std::map<std::string, std::string>& map, const std::string& key);

// A readable stand-in name. A generated id (64 hex digits) is cut to its
// first 12, as `docker ps` shows it; any other id is one a user chose
// (`ctr run IMAGE web-frontend`) and is the container's only name: kept whole.
std::string ShortId(const std::string& id);

}  // namespace Container
