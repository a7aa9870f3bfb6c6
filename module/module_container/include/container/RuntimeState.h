#pragma once
// Reading what container runtimes leave on disk, shared by the container
// collector and the asset service (which names the containers its servers
// run in): state files under the host root, and Docker's own record of a
// container (<data root>/containers/<id>/config.v2.json, hostconfig.json).
//
// Runtime state is input we do not control: files are read with a size cap,
// never through a symbolic link, and only when they are regular files.

#include <cstddef>
#include <string>
#include <vector>

#include <json/json.h>

#include "sdk/HostRoot.h"

namespace Container {

// Per-container state files (config.json, config.v2.json, pid files).
constexpr std::size_t kStateFileCap = 4u * 1024u * 1024u;
// Shared indexes (Podman's containers.json lists every container).
constexpr std::size_t kIndexFileCap = 32u * 1024u * 1024u;
// init.pid, pidfile.
constexpr std::size_t kPidFileCap = 64;

// A state file or directory that could not be used, and why. `path` is the
// host path, as an operator finds it.
struct Problem {
    std::string path;
    std::string reason;

    bool operator<(const Problem& other) const
    {
        return path != other.path ? path < other.path : reason < other.reason;
    }
};

// The file at `path` (links refused), parsed as one JSON object or array.
SDK::ReadResult ReadStateJson(const SDK::HostRoot& host, const std::string& path, std::size_t cap,
                              Json::Value& out);

struct DockerState {
    std::string name;     // without Docker's leading "/"
    std::string image;    // Config.Image, as the user named it
    std::string imageId;  // Image ("sha256:...")
    bool stateKnown = false;  // config.v2.json has a State.Running
    bool running = false;
    long pid = 0;
    bool privileged = false;
    bool hostNetwork = false;
    std::vector<std::string> labels;    // key=value
    std::vector<std::string> ports;     // "80/tcp"
    std::vector<std::string> networks;  // network names
    std::string podName;        // labels Docker-based Kubernetes nodes set
    std::string podNamespace;
    std::string containerName;
};

// Docker's data root: "data-root" (or the older "graph") of
// /etc/docker/daemon.json, else /var/lib/docker.
std::string DockerDataRoot(const SDK::HostRoot& host, std::vector<Problem>& problems);

// Docker's record of container `id`. Missing when Docker keeps none; a
// failure (problem added) when it cannot be read.
SDK::ReadError ReadDockerState(const SDK::HostRoot& host, const std::string& dataRoot,
                               const std::string& id, DockerState& state,
                               std::vector<Problem>& problems);

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
