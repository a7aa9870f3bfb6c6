#pragma once
// Asks every runtime which containers run now and compares the answer with
// what it reported before. Single-threaded: the owner serialises calls.

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <Poco/Logger.h>

#include "ContainerRuntime.h"
#include "sdk/HostRoot.h"

namespace Container {

class ContainerCollector {
public:
    // The default runtimes (containerd with Docker, Podman, CRI-O).
    ContainerCollector(const std::string& hostRoot, Poco::Logger* logger);
    ContainerCollector(const std::string& hostRoot,
                       std::vector<std::unique_ptr<ContainerRuntime>> runtimes,
                       Poco::Logger* logger);

    // One look at the host. Returns what changed since the previous poll:
    // first a copy with running false of every reported container that has
    // gone (or was restarted: new process or new root), then every container
    // not reported yet (running true), each group in id order. A container
    // whose state could not be read this time is left as it was.
    std::vector<std::shared_ptr<Engine::ContainerInfo>> Poll();

    // The containers reported as running, in id order. The records are
    // shared with the messages already sent and must not be changed.
    std::vector<std::shared_ptr<Engine::ContainerInfo>> Running() const;
    // What could not be used in the last poll.
    const std::vector<Problem>& Problems() const { return m_problems; }
    std::string HostRoot() const { return m_host.Display(); }

private:
    void LogProblems(const std::vector<Problem>& problems);

    SDK::HostRoot m_host;
    std::vector<std::unique_ptr<ContainerRuntime>> m_runtimes;
    Poco::Logger* m_logger;
    std::map<std::string, std::shared_ptr<Engine::ContainerInfo>> m_reported;  // by id
    std::vector<Problem> m_problems;
    StateLocations m_where;  // where state was found so far
};

}  // namespace Container
