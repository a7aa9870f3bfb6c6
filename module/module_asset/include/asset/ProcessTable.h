#pragma once
// Processes as /proc under a host root shows them, and the container each
// one runs in.

#include <map>
#include <string>
#include <vector>

#include "sdk/HostRoot.h"

namespace Asset {

struct ProcessInfo {
    int pid = 0;
    int ppid = 0;
    std::string comm;               // /proc/<pid>/stat name
    char state = '?';               // /proc/<pid>/stat state letter
    std::vector<std::string> argv;  // /proc/<pid>/cmdline
    std::string exe;                // readlink /proc/<pid>/exe, empty when unreadable
    std::string containerId;        // empty: the host's own process
};

class ProcessTable {
public:
    // `hostRoot`: "" or "/" for the agent's own root.
    explicit ProcessTable(const std::string& hostRoot);

    // Reads every process. Processes that end while being read, zombies
    // and kernel threads (no command line) are skipped.
    void Load();

    const std::map<int, ProcessInfo>& Processes() const { return m_processes; }
    const ProcessInfo* Find(int pid) const;

    // /proc/<pid>/environ of one process (read on demand: it is only needed
    // for a few servers).
    std::map<std::string, std::string> Environment(int pid) const;

    // The root under which the process's files are read: the host root for
    // a host process, <host root>/proc/<pid>/root for a container.
    SDK::HostRoot FilesOf(const ProcessInfo& process) const;

    // The container id that a /proc/<pid>/cgroup text names (docker-<id>.scope,
    // /docker/<id>, cri-containerd-<id>.scope, libpod-<id>.scope,
    // crio-<id>.scope, or a 64-hex path component); empty when none.
    static std::string ContainerIdFromCgroup(const std::string& cgroupText);
    // "nginx: master process nginx -c x" style arguments, split on NUL.
    static std::vector<std::string> SplitCmdline(const std::string& raw);

private:
    // /proc files report no size; a cap bounds what one costs.
    bool ReadProcFile(int pid, const char* name, std::string& out) const;
    bool ReadProcess(int pid, ProcessInfo& out) const;
    std::string ContainerOf(int pid, const std::string& cgroupText) const;

    SDK::HostRoot m_root;
    // /proc as written: its links (self, <pid>/root, <pid>/exe) are the kernel's.
    SDK::HostRoot m_proc;
    std::map<int, ProcessInfo> m_processes;
    std::string m_hostCgroupId;   // container id of pid 1 (when the agent itself runs in one)
    std::string m_hostMountNs;    // mount namespace of pid 1, empty when unreadable
};

}  // namespace Asset
