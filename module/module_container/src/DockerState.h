#pragma once
// Docker's own record of a container (its data root's
// containers/<id>/config.v2.json and hostconfig.json): the name the user
// gave, the image, and whether Docker considers it running.

#include <string>
#include <vector>

#include "ContainerRuntime.h"
#include "HostFs.h"

namespace Container {

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

// Docker's data root on the host: "data-root" (or the older "graph") of
// /etc/docker/daemon.json, else /var/lib/docker. A path as the host sees it.
std::string DockerDataRoot(const HostFs& host, Discovery& out);

// MISSING when Docker keeps no record for `id`; FAILED (problem added) when
// the record cannot be read.
ReadStatus ReadDockerState(const HostFs& host, const std::string& dataRoot, const std::string& id,
                           DockerState& state, Discovery& out);

}  // namespace Container
