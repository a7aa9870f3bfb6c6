#include "OciBundle.h"

namespace Container {

namespace {

void StringArray(const Json::Value& doc, const char* key, std::vector<std::string>& out)
{
    const Json::Value& arr = doc[key];
    if (!arr.isArray()) {
        return;
    }
    for (const auto& item : arr) {
        if (item.isString()) {
            out.push_back(item.asString());
        }
    }
}

std::string StringMember(const Json::Value& obj, const char* key)
{
    if (!obj.isObject()) {
        return std::string();
    }
    const Json::Value& v = obj[key];
    return v.isString() ? v.asString() : std::string();
}

SDK::HostRoot ProcView(const SDK::HostRoot& host, long pid, const char* rel)
{
    return host.Below("/proc/" + std::to_string(pid) + rel);
}

}  // namespace

bool ParseOciConfig(const Json::Value& doc, OciConfig& out, std::string& reason)
{
    out = OciConfig();
    if (!doc.isObject()) {
        reason = "not an OCI runtime configuration (not a JSON object)";
        return false;
    }
    const Json::Value& process = doc["process"];
    if (process.isObject()) {
        StringArray(process, "args", out.args);
        StringArray(process, "env", out.env);
    }
    out.rootPath = StringMember(doc["root"], "path");

    const Json::Value& annotations = doc["annotations"];
    if (annotations.isObject()) {
        for (const auto& key : annotations.getMemberNames()) {
            const Json::Value& v = annotations[key];
            if (v.isString()) {
                out.annotations[key] = v.asString();
            }
        }
    }

    const Json::Value& mounts = doc["mounts"];
    if (mounts.isArray()) {
        for (const auto& m : mounts) {
            if (!m.isObject()) {
                continue;
            }
            Engine::MountPoint mp;
            mp.mountText1 = StringMember(m, "source");
            mp.mountText2 = StringMember(m, "destination");
            mp.mountText3 = StringMember(m, "type");
            const Json::Value& options = m["options"];
            if (options.isArray()) {
                for (const auto& o : options) {
                    if (o.isString() && o.asString() == "ro") {
                        mp.mountFlag = true;
                    }
                }
            }
            out.mounts.push_back(mp);
        }
    }

    const Json::Value& linux = doc["linux"];
    if (linux.isObject() && linux["namespaces"].isArray()) {
        bool ownNetwork = false;
        for (const auto& ns : linux["namespaces"]) {
            if (StringMember(ns, "type") == "network") {
                ownNetwork = true;
            }
        }
        out.hostNetwork = !ownNetwork;
    }
    return true;
}

bool ResolveRootPath(const SDK::HostRoot& host, const std::string& bundleDir,
                     const std::string& rootPath, const std::string& fallback, long pid,
                     std::string& out, std::string& reason)
{
    for (const std::string* p : {&rootPath, &fallback}) {
        if (HasDotDot(*p)) {
            reason = "root path \"" + *p + "\" climbs out with '..', container skipped";
            return false;
        }
    }
    std::string path;
    if (rootPath.empty()) {
        path = (!fallback.empty() && fallback[0] == '/') ? fallback : bundleDir + "/rootfs";
    } else {
        path = SDK::HostRoot::Join(bundleDir, rootPath);
    }
    path = SDK::HostRoot::StripTrailingSlash(path);
    if (!host.IsDirectory(path) && pid > 0) {
        // Taken as written: /proc/PID/root is the kernel's to resolve.
        const SDK::HostRoot procRoot = ProcView(host, pid, "/root");
        if (procRoot.IsDirectory("/")) {
            out = procRoot.Prefix();
            return true;
        }
    }
    out = host.HostPath(path);
    return true;
}

bool ProcessRunning(const SDK::HostRoot& host, long pid)
{
    return pid > 0 && ProcView(host, pid, "").IsDirectory("/");
}

std::vector<std::string> Subdirectories(const SDK::HostRoot& host, const std::string& dir,
                                        Discovery& out)
{
    std::vector<SDK::DirEntry> entries;
    const SDK::ReadResult r = host.ListDir(dir, entries);
    if (!r.ok() && r.error != SDK::ReadError::Missing) {
        out.AddProblem(host, dir, "cannot list the directory: " + r.reason);
    }
    std::vector<std::string> names;
    for (const auto& e : entries) {
        if (e.type == SDK::DirEntry::Type::Dir) {
            names.push_back(e.name);
        }
    }
    return names;
}

void FillFromOci(const OciConfig& config, Engine::ContainerInfo& info)
{
    info.list1 = config.args;
    info.list2 = config.env;
    info.textMap = config.annotations;
    info.mountPointList = config.mounts;
    info.flag3 = config.hostNetwork;
}

std::string Lookup(const std::map<std::string, std::string>& map, const std::string& key)
{
    auto it = map.find(key);
    return it == map.end() ? std::string() : it->second;
}

std::string ShortId(const std::string& id)
{
    const bool generated = id.size() == 64 &&
                           id.find_first_not_of("0123456789abcdef") == std::string::npos;
    return generated ? id.substr(0, 12) : id;
}

}  // namespace Container
