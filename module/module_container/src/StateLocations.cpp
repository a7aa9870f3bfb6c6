#include "StateLocations.h"

#include <algorithm>

namespace Container {

namespace {

const char* const kTaskV2 = "/io.containerd.runtime.v2.task";
const char* const kTaskV1 = "/io.containerd.runtime.v1.linux";
const char* const kDefaultDockerConfig = "/etc/docker/daemon.json";
const char* const kDefaultContainerdConfig = "/etc/containerd/config.toml";
const char* const kStorageConf = "/etc/containers/storage.conf";
constexpr std::size_t kCmdlineCap = 256u * 1024u;
constexpr std::size_t kCommCap = 64;

void Add(std::vector<std::string>& list, const std::string& path)
{
    if (std::find(list.begin(), list.end(), path) == list.end()) {
        list.push_back(path);
    }
}

// A directory a daemon was told to use: absolute, no "..". Relative paths
// are against the daemon's working directory, which we do not know.
bool UsablePath(const std::string& path)
{
    return !path.empty() && path[0] == '/' && !HasDotDot(path);
}

std::string Trim(const std::string& text)
{
    const std::size_t b = text.find_first_not_of(" \t\r");
    if (b == std::string::npos) {
        return std::string();
    }
    const std::size_t e = text.find_last_not_of(" \t\r");
    return text.substr(b, e - b + 1);
}

std::vector<std::string> SplitNul(const std::string& text)
{
    std::vector<std::string> args;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\0', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        args.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return args;
}

struct Daemon {
    long pid = 0;
    std::string comm;
    std::vector<std::string> args;
};

std::vector<Daemon> RuntimeDaemons(const SDK::HostRoot& host)
{
    std::vector<Daemon> out;
    std::vector<SDK::DirEntry> entries;
    if (!host.ListDir("/proc", entries).ok()) {
        return out;
    }
    for (const auto& e : entries) {
        const long pid = ParsePid(e.name);
        if (pid == 0 || e.type != SDK::DirEntry::Type::Dir) {
            continue;
        }
        const std::string dir = "/proc/" + e.name;
        std::string comm;
        if (!host.ReadFile(dir + "/comm", kCommCap, comm).ok()) {
            continue;  // gone, or not a process directory
        }
        comm = Trim(comm.substr(0, comm.find('\n')));
        if (comm != "dockerd" && comm != "containerd" && comm != "conmon") {
            continue;
        }
        std::string cmdline;
        if (!host.ReadFile(dir + "/cmdline", kCmdlineCap, cmdline).ok()) {
            continue;
        }
        out.push_back(Daemon{pid, comm, SplitNul(cmdline)});
    }
    return out;
}

class Finder {
public:
    Finder(const SDK::HostRoot& host, std::vector<Problem>& problems)
        : m_host(host), m_problems(problems)
    {
    }

    // A directory named by `daemon`: kept when it exists.
    bool Named(const Daemon& daemon, const std::string& flag, const std::string& path)
    {
        if (!UsablePath(path)) {
            return false;
        }
        if (!m_host.IsDirectory(path)) {
            m_problems.push_back({m_host.Path(path),
                                  "named by " + flag + " of " + daemon.comm + " (pid " +
                                      std::to_string(daemon.pid) +
                                      ") but not a directory; its containers are not read"});
            return false;
        }
        return true;
    }

    void Dockerd(const Daemon& d, StateLocations& where)
    {
        std::string configPath = FlagValue(d.args, "config-file");
        if (!UsablePath(configPath)) {
            configPath = kDefaultDockerConfig;
        }
        Json::Value config;
        const SDK::ReadResult r = ReadStateJson(m_host, configPath, kStateFileCap, config);
        if (!r.ok() && r.error != SDK::ReadError::Missing) {
            m_problems.push_back({m_host.Path(configPath), r.reason + "; dockerd's flags and "
                                                                      "the standard places used"});
        }
        auto fromConfig = [&](const char* key) {
            return config.isObject() && config[key].isString() ? config[key].asString()
                                                               : std::string();
        };
        std::string dataRoot = FlagValue(d.args, "data-root");
        std::string dataFlag = "--data-root";
        if (dataRoot.empty()) {
            dataRoot = FlagValue(d.args, "graph");
            dataFlag = "--graph";
        }
        if (dataRoot.empty()) {
            dataRoot = fromConfig("data-root");
            dataFlag = "data-root of " + configPath;
        }
        if (dataRoot.empty()) {
            dataRoot = fromConfig("graph");
            dataFlag = "graph of " + configPath;
        }
        if (!dataRoot.empty() && Named(d, dataFlag, dataRoot)) {
            Add(where.dockerDataRoots, SDK::HostRoot::StripTrailingSlash(dataRoot));
        }
        std::string execRoot = FlagValue(d.args, "exec-root");
        std::string execFlag = "--exec-root";
        if (execRoot.empty()) {
            execRoot = fromConfig("exec-root");
            execFlag = "exec-root of " + configPath;
        }
        if (!execRoot.empty() && Named(d, execFlag, execRoot)) {
            // The containerd dockerd starts itself keeps its tasks here.
            const std::string state = SDK::HostRoot::StripTrailingSlash(execRoot) + "/containerd/daemon";
            Add(where.taskRoots, state + kTaskV2);
            Add(where.taskRoots, state + kTaskV1);
        }
    }

    void Containerd(const Daemon& d, StateLocations& where)
    {
        std::string configPath = FlagValue(d.args, "config");
        if (configPath.empty()) {
            configPath = FlagValue(d.args, "c");
        }
        if (!UsablePath(configPath)) {
            configPath = kDefaultContainerdConfig;
        }
        std::string text;
        const SDK::ReadResult r = m_host.ReadFile(configPath, kStateFileCap, text);
        if (!r.ok() && r.error != SDK::ReadError::Missing) {
            m_problems.push_back({m_host.Path(configPath),
                                  r.reason + "; containerd's flags and the standard places used"});
        }
        std::string state = FlagValue(d.args, "state");
        std::string flag = "--state";
        if (state.empty()) {
            state = TomlString(text, "", "state");
            flag = "state of " + configPath;
        }
        if (!state.empty() && Named(d, flag, state)) {
            state = SDK::HostRoot::StripTrailingSlash(state);
            Add(where.taskRoots, state + kTaskV2);
            Add(where.taskRoots, state + kTaskV1);
        }
    }

    void Conmon(const Daemon& d, StateLocations& where)
    {
        // The bundle is <storage>/<driver>-containers/<id>/userdata.
        std::string bundle = FlagValue(d.args, "bundle");
        if (bundle.empty()) {
            bundle = FlagValue(d.args, "b");
        }
        bundle = SDK::HostRoot::StripTrailingSlash(bundle);
        if (UsablePath(bundle)) {
            std::string storage = bundle;
            for (int up = 0; up < 3 && storage.size() > 1; ++up) {
                storage = SDK::HostRoot::DirName(storage);
            }
            if (storage.size() > 1 && m_host.IsDirectory(storage)) {
                Add(where.storageRoots, storage);
            }
        }
        // Podman passes its own --root and --runroot to the exit command.
        std::vector<std::string> exitArgs;
        for (std::size_t i = 0; i + 1 < d.args.size(); ++i) {
            if (d.args[i] == "--exit-command-arg") {
                exitArgs.push_back(d.args[++i]);
            }
        }
        for (const char* key : {"root", "runroot"}) {
            const std::string dir = FlagValue(exitArgs, key);
            if (!dir.empty() && Named(d, std::string("podman --") + key, dir)) {
                Add(where.storageRoots, SDK::HostRoot::StripTrailingSlash(dir));
            }
        }
    }

private:
    const SDK::HostRoot& m_host;
    std::vector<Problem>& m_problems;
};

}  // namespace

std::string FlagValue(const std::vector<std::string>& args, const std::string& name)
{
    std::string value;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a.size() < 2 || a[0] != '-') {
            continue;
        }
        const std::size_t dashes = a[1] == '-' ? 2 : 1;
        const std::size_t eq = a.find('=');
        const std::string key = a.substr(dashes, eq == std::string::npos ? std::string::npos
                                                                         : eq - dashes);
        if (key != name) {
            continue;
        }
        if (eq != std::string::npos) {
            value = a.substr(eq + 1);
        } else if (i + 1 < args.size()) {
            value = args[++i];
        }
    }
    return value;
}

std::string TomlString(const std::string& text, const std::string& table, const std::string& key)
{
    std::string current;  // "" until the first [table]
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        const std::string line = Trim(text.substr(start, end - start));
        start = end + 1;
        if (line.empty() || line[0] == '#') {
            continue;
        }
        if (line[0] == '[') {
            const std::size_t close = line.find(']');
            current = close == std::string::npos ? line : Trim(line.substr(1, close - 1));
            continue;
        }
        const std::size_t eq = line.find('=');
        if (current != table || eq == std::string::npos || Trim(line.substr(0, eq)) != key) {
            continue;
        }
        const std::string value = Trim(line.substr(eq + 1));
        if (value.size() >= 2 && (value[0] == '"' || value[0] == '\'')) {
            const std::size_t close = value.find(value[0], 1);
            if (close != std::string::npos) {
                return value.substr(1, close - 1);
            }
        }
        return std::string();
    }
    return std::string();
}

void KeepEarlierLocations(const SDK::HostRoot& host, const StateLocations& earlier,
                          StateLocations& now)
{
    auto keep = [&](const std::vector<std::string>& from, std::vector<std::string>& into) {
        for (const auto& dir : from) {
            if (host.IsDirectory(dir)) {
                Add(into, dir);
            }
        }
    };
    keep(earlier.taskRoots, now.taskRoots);
    keep(earlier.dockerDataRoots, now.dockerDataRoots);
    keep(earlier.storageRoots, now.storageRoots);
}

StateLocations FindStateLocations(const SDK::HostRoot& host, std::vector<Problem>& problems)
{
    StateLocations where;
    for (const char* state : {"/run/containerd", "/run/docker/containerd/daemon"}) {
        Add(where.taskRoots, std::string(state) + kTaskV2);
        Add(where.taskRoots, std::string(state) + kTaskV1);
    }
    Add(where.dockerDataRoots, DockerDataRoot(host, problems));
    Add(where.storageRoots, "/run/containers/storage");
    Add(where.storageRoots, "/var/lib/containers/storage");
    std::string conf;
    if (host.ReadFile(kStorageConf, kStateFileCap, conf).ok()) {
        for (const char* key : {"runroot", "graphroot"}) {
            const std::string dir = TomlString(conf, "storage", key);
            if (UsablePath(dir)) {
                Add(where.storageRoots, SDK::HostRoot::StripTrailingSlash(dir));
            }
        }
    }

    Finder finder(host, problems);
    for (const auto& daemon : RuntimeDaemons(host)) {
        if (daemon.comm == "dockerd") {
            finder.Dockerd(daemon, where);
        } else if (daemon.comm == "containerd") {
            finder.Containerd(daemon, where);
        } else {
            finder.Conmon(daemon, where);
        }
    }
    return where;
}

}  // namespace Container
