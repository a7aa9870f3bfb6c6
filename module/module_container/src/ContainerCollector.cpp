#include "ContainerCollector.h"

#include <algorithm>

#include "ContainerdRuntime.h"
#include "ContainersStorage.h"
#include "sdk/LogMacros.h"

namespace Container {

namespace {

const char* const kSource = "module/module_container/src/ContainerCollector";

bool SameInstance(const Engine::ContainerInfo& a, const Engine::ContainerInfo& b)
{
    // A restart keeps the id but brings a new process and maybe a new mount.
    return a.text4 == b.text4 && a.rootPath == b.rootPath;
}

}  // namespace

std::vector<std::unique_ptr<ContainerRuntime>> MakeDefaultRuntimes()
{
    std::vector<std::unique_ptr<ContainerRuntime>> runtimes;
    runtimes.push_back(std::make_unique<ContainerdRuntime>());
    runtimes.push_back(std::make_unique<PodmanRuntime>());
    runtimes.push_back(std::make_unique<CrioRuntime>());
    return runtimes;
}

ContainerCollector::ContainerCollector(const std::string& hostRoot, Poco::Logger* logger)
    : ContainerCollector(hostRoot, MakeDefaultRuntimes(), logger)
{
}

ContainerCollector::ContainerCollector(const std::string& hostRoot,
                                       std::vector<std::unique_ptr<ContainerRuntime>> runtimes,
                                       Poco::Logger* logger)
    : m_host(hostRoot), m_runtimes(std::move(runtimes)), m_logger(logger)
{
}

std::vector<std::shared_ptr<Engine::ContainerInfo>> ContainerCollector::Poll()
{
    Discovery found;
    found.where = FindStateLocations(m_host, found.problems);
    KeepEarlierLocations(m_host, m_where, found.where);
    m_where = found.where;
    for (auto& runtime : m_runtimes) {
        runtime->Discover(m_host, found);
    }
    std::sort(found.problems.begin(), found.problems.end());
    found.problems.erase(std::unique(found.problems.begin(), found.problems.end(),
                                     [](const Problem& a, const Problem& b) {
                                         return !(a < b) && !(b < a);
                                     }),
                         found.problems.end());
    LogProblems(found.problems);
    m_problems = found.problems;

    std::map<std::string, std::shared_ptr<Engine::ContainerInfo>> now;
    for (auto& info : found.running) {
        now.emplace(info->id, info);  // the first runtime to report an id wins
    }

    std::vector<std::shared_ptr<Engine::ContainerInfo>> stopped;
    std::vector<std::shared_ptr<Engine::ContainerInfo>> started;
    for (auto it = m_reported.begin(); it != m_reported.end();) {
        auto current = now.find(it->first);
        bool gone = false;
        if (current == now.end()) {
            gone = found.unsure.count(it->first) == 0;
        } else {
            gone = !SameInstance(*it->second, *current->second);
        }
        if (!gone) {
            ++it;
            continue;
        }
        auto copy = std::make_shared<Engine::ContainerInfo>(*it->second);
        copy->running = false;
        SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource,
                "container %s (id %s, %s) stopped: pid %s, root file system %s; reporting it gone",
                copy->name, ShortId(copy->id), copy->text1, copy->text4, copy->rootPath);
        stopped.push_back(copy);
        it = m_reported.erase(it);
    }
    for (auto& entry : now) {
        if (m_reported.count(entry.first) != 0) {
            continue;
        }
        const auto& info = entry.second;
        SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource,
                "container %s (id %s, %s) started: image %s, pid %s, root file system %s",
                info->name, ShortId(info->id), info->text1,
                info->imageName.empty() ? std::string("(unknown)") : info->imageName, info->text4,
                info->rootPath);
        m_reported.emplace(entry.first, info);
        started.push_back(info);
    }
    stopped.insert(stopped.end(), started.begin(), started.end());
    return stopped;
}

std::vector<std::shared_ptr<Engine::ContainerInfo>> ContainerCollector::Running() const
{
    std::vector<std::shared_ptr<Engine::ContainerInfo>> out;
    out.reserve(m_reported.size());
    for (const auto& entry : m_reported) {
        out.push_back(entry.second);
    }
    return out;
}

void ContainerCollector::LogProblems(const std::vector<Problem>& problems)
{
    // Each problem is logged when it appears, not at every poll while it
    // lasts; the current list is in the status.
    for (const auto& p : problems) {
        if (!std::binary_search(m_problems.begin(), m_problems.end(), p)) {
            SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource,
                    "container state %s not used: %s (logged once while it lasts)", p.path,
                    p.reason);
        }
    }
}

}  // namespace Container
