#pragma once
// One container runtime's view of the host: which of its containers run now.
// Each runtime reads its own state on disk (OCI bundles, its own container
// configuration) under the host root; the collector merges what they all
// report. Runtimes work with paths as the host sees them under that root
// ("/run/containerd/..."); what they report carries host paths.

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "container/ContainerMessage.h"
#include "StateLocations.h"
#include "container/RuntimeState.h"
#include "sdk/HostRoot.h"

namespace Container {

struct Discovery {
    // Where the runtimes keep their state, found at the start of the poll.
    StateLocations where;
    // Containers running now, each with every field the runtime knows.
    std::vector<std::shared_ptr<Engine::ContainerInfo>> running;
    // Containers whose state exists but could not be read this time (being
    // created or removed, or broken): neither reported nor declared gone.
    std::set<std::string> unsure;
    std::vector<Problem> problems;

    // `path` as the host root sees it.
    void AddProblem(const SDK::HostRoot& host, const std::string& path, const std::string& reason)
    {
        problems.push_back(Problem{host.Path(path), reason});
    }
};

class ContainerRuntime {
public:
    virtual ~ContainerRuntime() = default;
    // The runtime's name as reported in ContainerInfo::text1.
    virtual std::string Name() const = 0;
    // Adds the runtime's running containers to `out`.
    virtual void Discover(const SDK::HostRoot& host, Discovery& out) = 0;
};

// The runtimes this collector knows, in the order they are asked.
std::vector<std::unique_ptr<ContainerRuntime>> MakeDefaultRuntimes();

}  // namespace Container
