#include "DockerState.h"

#include <map>

#include "OciBundle.h"

namespace Container {

namespace {

const char* const kDefaultDataRoot = "/var/lib/docker";

std::string Str(const Json::Value& obj, const char* key)
{
    if (!obj.isObject() || !obj[key].isString()) {
        return std::string();
    }
    return obj[key].asString();
}

std::vector<std::string> Keys(const Json::Value& obj)
{
    return obj.isObject() ? obj.getMemberNames() : std::vector<std::string>();
}

}  // namespace

std::string DockerDataRoot(const HostFs& host, Discovery& out)
{
    const std::string path = host.Path("/etc/docker/daemon.json");
    Json::Value doc;
    std::string reason;
    ReadStatus status = host.ReadJson(path, HostFs::kStateFileCap, doc, reason);
    if (status == ReadStatus::FAILED) {
        out.AddProblem(path, reason + "; using " + std::string(kDefaultDataRoot));
        return kDefaultDataRoot;
    }
    if (status == ReadStatus::MISSING) {
        return kDefaultDataRoot;
    }
    std::string root = Str(doc, "data-root");
    if (root.empty()) {
        root = Str(doc, "graph");
    }
    if (root.empty() || root[0] != '/' || HasDotDot(root)) {
        return kDefaultDataRoot;
    }
    while (root.size() > 1 && root.back() == '/') {
        root.pop_back();
    }
    return root;
}

ReadStatus ReadDockerState(const HostFs& host, const std::string& dataRoot, const std::string& id,
                           DockerState& state, Discovery& out)
{
    state = DockerState();
    const std::string dir = host.Path(dataRoot + "/containers/" + id);
    const std::string configPath = dir + "/config.v2.json";
    Json::Value doc;
    std::string reason;
    ReadStatus status = host.ReadJson(configPath, HostFs::kStateFileCap, doc, reason);
    if (status == ReadStatus::FAILED) {
        out.AddProblem(configPath, reason);
        return status;
    }
    if (status == ReadStatus::MISSING) {
        return status;
    }
    if (!doc.isObject()) {
        out.AddProblem(configPath, "not a JSON object");
        return ReadStatus::FAILED;
    }

    state.name = Str(doc, "Name");
    if (!state.name.empty() && state.name[0] == '/') {
        state.name.erase(0, 1);
    }
    const Json::Value& config = doc["Config"];
    state.image = Str(config, "Image");
    state.imageId = Str(doc, "Image");

    const Json::Value& st = doc["State"];
    if (st.isObject() && st["Running"].isBool()) {
        state.stateKnown = true;
        state.running = st["Running"].asBool();
    }
    if (st.isObject() && st["Pid"].isIntegral() && st["Pid"].isInt64()) {
        Json::Int64 pid = st["Pid"].asInt64();
        state.pid = ParsePid(std::to_string(pid));
    }

    if (config.isObject() && config["Labels"].isObject()) {
        const Json::Value& labels = config["Labels"];
        for (const auto& key : labels.getMemberNames()) {
            if (!labels[key].isString()) {
                continue;
            }
            const std::string value = labels[key].asString();
            state.labels.push_back(key + "=" + value);
            if (key == "io.kubernetes.pod.name") {
                state.podName = value;
            } else if (key == "io.kubernetes.pod.namespace") {
                state.podNamespace = value;
            } else if (key == "io.kubernetes.container.name") {
                state.containerName = value;
            }
        }
    }
    if (config.isObject()) {
        state.ports = Keys(config["ExposedPorts"]);
    }
    const Json::Value& net = doc["NetworkSettings"];
    if (net.isObject()) {
        state.networks = Keys(net["Networks"]);
    }

    // hostconfig.json is optional: without it the flags stay false.
    const std::string hostConfigPath = dir + "/hostconfig.json";
    Json::Value hostConfig;
    status = host.ReadJson(hostConfigPath, HostFs::kStateFileCap, hostConfig, reason);
    if (status == ReadStatus::FAILED) {
        out.AddProblem(hostConfigPath, reason);
    } else if (status == ReadStatus::OK && hostConfig.isObject()) {
        state.privileged = hostConfig["Privileged"].isBool() && hostConfig["Privileged"].asBool();
        state.hostNetwork = Str(hostConfig, "NetworkMode") == "host";
    }
    return ReadStatus::OK;
}

}  // namespace Container
