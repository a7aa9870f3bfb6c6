#include "asset/ProcessTable.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>

#include "asset/RootedFs.h"

namespace Asset {

namespace {

constexpr size_t kContainerIdLength = 64;
constexpr size_t kMaxProcFileBytes = 1u << 20;

// /proc files report no size: read until the end.
bool ReadProcFile(const std::string& path, std::string& out)
{
    int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    out.clear();
    char buf[8192];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        out.append(buf, static_cast<size_t>(n));
        if (out.size() > kMaxProcFileBytes) {
            break;
        }
    }
    ::close(fd);
    return true;
}

std::string ReadLink(const std::string& path)
{
    char buf[4096];
    ssize_t n = ::readlink(path.c_str(), buf, sizeof(buf) - 1);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
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
    : m_hostRoot(RootedFs::StripTrailingSlash(hostRoot))
{
    if (m_hostRoot == "/") {
        m_hostRoot.clear();
    }
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
    if (ReadProcFile(m_hostRoot + "/proc/1/cgroup", text)) {
        m_hostCgroupId = ContainerIdFromCgroup(text);
    }
    m_hostMountNs = ReadLink(m_hostRoot + "/proc/1/ns/mnt");
    if (m_hostMountNs.empty() && m_hostRoot.empty()) {
        // pid 1 may be out of reach (hardened /proc); our own namespace is
        // the host's when the agent runs on the host.
        m_hostMountNs = ReadLink("/proc/self/ns/mnt");
    }
    const std::string procDir = m_hostRoot + "/proc";
    DIR* dir = ::opendir(procDir.c_str());
    if (dir == nullptr) {
        return;
    }
    while (struct dirent* entry = ::readdir(dir)) {
        char* end = nullptr;
        long pid = std::strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != '\0' || pid <= 0) {
            continue;
        }
        ProcessInfo info;
        if (ReadProcess(static_cast<int>(pid), info)) {
            m_processes.emplace(info.pid, std::move(info));
        }
    }
    ::closedir(dir);
}

bool ProcessTable::ReadProcess(int pid, ProcessInfo& out) const
{
    const std::string base = m_hostRoot + "/proc/" + std::to_string(pid);
    std::string stat;
    if (!ReadProcFile(base + "/stat", stat)) {
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
    if (ReadProcFile(base + "/cmdline", cmdline)) {
        out.argv = SplitCmdline(cmdline);
    }
    if (out.argv.empty()) {
        return false;
    }
    out.exe = ReadLink(base + "/exe");
    std::string cgroup;
    ReadProcFile(base + "/cgroup", cgroup);
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
    const std::string base = m_hostRoot + "/proc/" + std::to_string(pid);
    const std::string ns = ReadLink(base + "/ns/mnt");
    const std::string root = ReadLink(base + "/root");
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
    if (!ReadProcFile(m_hostRoot + "/proc/" + std::to_string(pid) + "/environ", raw)) {
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

std::string ProcessTable::FsPrefix(const ProcessInfo& process) const
{
    if (process.containerId.empty()) {
        return m_hostRoot;
    }
    return m_hostRoot + "/proc/" + std::to_string(process.pid) + "/root";
}

}  // namespace Asset
