#pragma once
// One container runtime's view of the host: which of its containers run now.
// Each runtime reads its own state on disk (OCI bundles, its own container
// configuration) through HostFs; the collector merges what they all report.

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "HostFs.h"
#include "container/ContainerMessage.h"

namespace Container {

// A state file or directory the collector could not use, and why.
struct Problem {
    std::string path;
    std::string reason;

    bool operator<(const Problem& other) const
    {
        return path != other.path ? path < other.path : reason < other.reason;
    }
};

struct Discovery {
    // Containers running now, each with every field the runtime knows.
    std::vector<std::shared_ptr<Engine::ContainerInfo>> running;
    // Containers whose state exists but could not be read this time (being
    // created or removed, or broken): neither reported nor declared gone.
    std::set<std::string> unsure;
    std::vector<Problem> problems;

    void AddProblem(const std::string& path, const std::string& reason)
    {
        problems.push_back(Problem{path, reason});
    }
};

class ContainerRuntime {
public:
    virtual ~ContainerRuntime() = default;
    // The runtime's name as reported in ContainerInfo::text1.
    virtual std::string Name() const = 0;
    // Adds the runtime's running containers to `out`.
    virtual void Discover(const HostFs& host, Discovery& out) = 0;
};

// The runtimes this collector knows, in the order they are asked.
std::vector<std::unique_ptr<ContainerRuntime>> MakeDefaultRuntimes();

}  // namespace Container
