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

std::string DropTrailingSlashes(std::string path)
{
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path;
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

bool ResolveRootPath(const HostFs& host, const std::string& bundleDir, const std::string& rootPath,
                     const std::string& fallback, long pid, std::string& out, std::string& reason)
{
    for (const std::string* p : {&rootPath, &fallback}) {
        if (HasDotDot(*p)) {
            reason = "root path \"" + *p + "\" climbs out with '..', container skipped";
            return false;
        }
    }
    std::string path;
    if (rootPath.empty()) {
        path = (!fallback.empty() && fallback[0] == '/') ? host.Path(fallback) : bundleDir + "/rootfs";
    } else if (rootPath[0] == '/') {
        path = host.Path(rootPath);
    } else {
        path = bundleDir + "/" + rootPath;
    }
    path = DropTrailingSlashes(path);
    if (!host.IsDirFollow(path) && pid > 0) {
        std::string procRoot = host.Path("/proc/" + std::to_string(pid) + "/root");
        if (host.IsDirFollow(procRoot)) {
            path = procRoot;
        }
    }
    out = path;
    return true;
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
    return id.substr(0, 12);
}

}  // namespace Container
