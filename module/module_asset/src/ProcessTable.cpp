#include "asset/ProcessTable.h"

#include <cctype>
#include <cstdlib>

namespace Asset {

namespace {

constexpr size_t kContainerIdLength = 64;
constexpr size_t kMaxProcFileBytes = 1u << 20;

// A path below /proc.
std::string ProcFile(int pid, const char* name)
{
    return "/" + std::to_string(pid) + "/" + name;
}

bool IsHexId(const std::string& text)
{
    if (text.size() != kContainerIdLength) {
        return false;
    }
    for (unsigned char c : text) {
        if (!std::isxdigit(c) || std::isupper(c)) {
            return false;
        }
    }
    return true;
}

}  // namespace

ProcessTable::ProcessTable(const std::string& hostRoot)
    : m_root(hostRoot), m_proc(m_root.Below("/proc"))
{
}

bool ProcessTable::ReadProcFile(int pid, const char* name, std::string& out) const
{
    return m_proc.ReadFile(ProcFile(pid, name), kMaxProcFileBytes, out).ok();
}

std::vector<std::string> ProcessTable::SplitCmdline(const std::string& raw)
{
    std::vector<std::string> out;
    size_t pos = 0;
    while (pos < raw.size()) {
        size_t end = raw.find('\0', pos);
        if (end == std::string::npos) {
            end = raw.size();
        }
        out.push_back(raw.substr(pos, end - pos));
        pos = end + 1;
    }
    // A process that rewrote its title leaves NUL padding behind.
    while (!out.empty() && out.back().empty()) {
        out.pop_back();
    }
    return out;
}

std::string ProcessTable::ContainerIdFromCgroup(const std::string& cgroupText)
{
    static const char* const kPrefixes[] = {"docker-", "cri-containerd-", "libpod-", "crio-"};
    size_t pos = 0;
    while (pos < cgroupText.size()) {
        size_t end = cgroupText.find('\n', pos);
        if (end == std::string::npos) {
            end = cgroupText.size();
        }
        const std::string line = cgroupText.substr(pos, end - pos);
        pos = end + 1;
        // hierarchy-id:controllers:path
        size_t first = line.find(':');
        size_t second = first == std::string::npos ? std::string::npos : line.find(':', first + 1);
        if (second == std::string::npos) {
            continue;
        }
        const std::string path = line.substr(second + 1);
        size_t cpos = 0;
        while (cpos <= path.size()) {
            size_t cend = path.find('/', cpos);
            if (cend == std::string::npos) {
                cend = path.size();
            }
            std::string component = path.substr(cpos, cend - cpos);
            cpos = cend + 1;
            for (const char* prefix : kPrefixes) {
                const std::string p(prefix);
                if (component.compare(0, p.size(), p) == 0) {
                    component = component.substr(p.size());
                    break;
                }
            }
            const std::string scope = ".scope";
            if (component.size() > scope.size() &&
                component.compare(component.size() - scope.size(), scope.size(), scope) == 0) {
                component.resize(component.size() - scope.size());
            }
            // "libpod-conmon-<id>" and the like are runtime helpers, not the
            // container: they fail the hex test.
            if (IsHexId(component)) {
                return component;
            }
        }
    }
    return "";
}

void ProcessTable::Load()
{
    m_processes.clear();
    std::string text;
    m_hostCgroupId.clear();
    if (ReadProcFile(1, "cgroup", text)) {
        m_hostCgroupId = ContainerIdFromCgroup(text);
    }
    m_hostMountNs = m_proc.ReadLink(ProcFile(1, "ns/mnt"));
    if (m_hostMountNs.empty() && m_root.Prefix().empty()) {
        // pid 1 may be out of reach (hardened /proc); our own namespace is
        // the host's when the agent runs on the host.
        m_hostMountNs = m_proc.ReadLink("/self/ns/mnt");
    }
    std::vector<SDK::DirEntry> entries;
    m_proc.ListDir("/", entries);
    for (const auto& entry : entries) {
        char* end = nullptr;
        const long pid = std::strtol(entry.name.c_str(), &end, 10);
        if (entry.type != SDK::DirEntry::Type::Dir || *end != '\0' || pid <= 0) {
            continue;
        }
        ProcessInfo info;
        if (ReadProcess(static_cast<int>(pid), info)) {
            m_processes.emplace(info.pid, std::move(info));
        }
    }
}

bool ProcessTable::ReadProcess(int pid, ProcessInfo& out) const
{
    std::string stat;
    if (!ReadProcFile(pid, "stat", stat)) {
        return false;
    }
    // "pid (comm) state ppid ...": the name may hold spaces and parentheses.
    size_t open = stat.find('(');
    size_t close = stat.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open) {
        return false;
    }
    out.pid = pid;
    out.comm = stat.substr(open + 1, close - open - 1);
    out.ppid = 0;
    if (close + 4 < stat.size()) {
        out.state = stat[close + 2];
        out.ppid = std::atoi(stat.c_str() + close + 4);
    }
    // A zombie keeps its name but has nothing left to serve.
    if (out.state == 'Z' || out.state == 'X') {
        return false;
    }
    std::string cmdline;
    if (ReadProcFile(pid, "cmdline", cmdline)) {
        out.argv = SplitCmdline(cmdline);
    }
    if (out.argv.empty()) {
        return false;
    }
    out.exe = m_proc.ReadLink(ProcFile(pid, "exe"));
    std::string cgroup;
    ReadProcFile(pid, "cgroup", cgroup);
    out.containerId = ContainerOf(pid, cgroup);
    return true;
}

std::string ProcessTable::ContainerOf(int pid, const std::string& cgroupText) const
{
    std::string id = ContainerIdFromCgroup(cgroupText);
    if (!id.empty() && id != m_hostCgroupId) {
        return id;
    }
    // No runtime named in the cgroup: a process with a mount namespace of
    // its own and another root is still a container (or a chroot jail).
    const std::string ns = m_proc.ReadLink(ProcFile(pid, "ns/mnt"));
    const std::string root = m_proc.ReadLink(ProcFile(pid, "root"));
    if (!ns.empty() && !m_hostMountNs.empty() && ns != m_hostMountNs && !root.empty() &&
        root != "/") {
        std::string digits;
        for (char c : ns) {
            if (std::isdigit(static_cast<unsigned char>(c))) {
                digits += c;
            }
        }
        return "mntns-" + (digits.empty() ? ns : digits);
    }
    return "";
}

const ProcessInfo* ProcessTable::Find(int pid) const
{
    auto it = m_processes.find(pid);
    return it == m_processes.end() ? nullptr : &it->second;
}

std::map<std::string, std::string> ProcessTable::Environment(int pid) const
{
    std::map<std::string, std::string> out;
    std::string raw;
    if (!ReadProcFile(pid, "environ", raw)) {
        return out;
    }
    for (const auto& entry : SplitCmdline(raw)) {
        size_t eq = entry.find('=');
        if (eq != std::string::npos && eq > 0) {
            out.emplace(entry.substr(0, eq), entry.substr(eq + 1));
        }
    }
    return out;
}

SDK::HostRoot ProcessTable::FilesOf(const ProcessInfo& process) const
{
    return process.containerId.empty() ? m_root : m_proc.Below(ProcFile(process.pid, "root"));
}

}  // namespace Asset
