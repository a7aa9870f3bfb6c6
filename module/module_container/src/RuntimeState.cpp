#include "container/RuntimeState.h"

#include "sdk/JsonUtils.h"

namespace Container {

namespace {

constexpr long kMaxPid = 4194304;  // PID_MAX_LIMIT on 64-bit kernels
constexpr std::size_t kMaxNameLength = 128;
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

void ReadLabels(const Json::Value& labels, DockerState& state)
{
    for (const auto& key : Keys(labels)) {
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

}  // namespace

SDK::ReadResult ReadStateJson(const SDK::HostRoot& host, const std::string& path, std::size_t cap,
                              Json::Value& out)
{
    std::string text;
    SDK::ReadResult r = host.ReadFile(path, cap, text, SDK::HostRoot::FinalLink::Refuse);
    if (!r.ok()) {
        return r;
    }
    if (SDK::JsonUtils::ParseJsonStr(text, out) != 0) {
        return SDK::ReadResult::Failure(SDK::ReadError::Failed, host.Path(path), "not valid JSON");
    }
    if (!out.isObject() && !out.isArray()) {
        return SDK::ReadResult::Failure(SDK::ReadError::Failed, host.Path(path),
                                        "not a JSON object or array");
    }
    return r;
}

std::string DockerDataRoot(const SDK::HostRoot& host, std::vector<Problem>& problems)
{
    const std::string path = "/etc/docker/daemon.json";
    Json::Value doc;
    const SDK::ReadResult r = ReadStateJson(host, path, kStateFileCap, doc);
    if (r.error == SDK::ReadError::Missing) {
        return kDefaultDataRoot;
    }
    if (!r.ok()) {
        problems.push_back({host.Path(path), r.reason + "; using " + kDefaultDataRoot});
        return kDefaultDataRoot;
    }
    std::string root = Str(doc, "data-root");
    if (root.empty()) {
        root = Str(doc, "graph");
    }
    if (root.empty() || root[0] != '/' || HasDotDot(root)) {
        return kDefaultDataRoot;
    }
    return SDK::HostRoot::StripTrailingSlash(root);
}

SDK::ReadError ReadDockerState(const SDK::HostRoot& host, const std::string& dataRoot,
                               const std::string& id, DockerState& state,
                               std::vector<Problem>& problems)
{
    state = DockerState();
    const std::string dir = dataRoot + "/containers/" + id;
    const std::string configPath = dir + "/config.v2.json";
    Json::Value doc;
    SDK::ReadResult r = ReadStateJson(host, configPath, kStateFileCap, doc);
    if (r.error == SDK::ReadError::None && !doc.isObject()) {
        r = SDK::ReadResult::Failure(SDK::ReadError::Failed, host.Path(configPath),
                                     "not a JSON object");
    }
    if (!r.ok()) {
        if (r.error != SDK::ReadError::Missing) {
            problems.push_back({host.Path(configPath), r.reason});
        }
        return r.error;
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
        state.pid = ParsePid(std::to_string(st["Pid"].asInt64()));
    }
    if (config.isObject()) {
        ReadLabels(config["Labels"], state);
        state.ports = Keys(config["ExposedPorts"]);
    }
    const Json::Value& net = doc["NetworkSettings"];
    if (net.isObject()) {
        state.networks = Keys(net["Networks"]);
    }

    // hostconfig.json is optional: without it the flags stay false.
    const std::string hostConfigPath = dir + "/hostconfig.json";
    Json::Value hostConfig;
    r = ReadStateJson(host, hostConfigPath, kStateFileCap, hostConfig);
    if (r.ok() && hostConfig.isObject()) {
        state.privileged = hostConfig["Privileged"].isBool() && hostConfig["Privileged"].asBool();
        state.hostNetwork = Str(hostConfig, "NetworkMode") == "host";
    } else if (r.error != SDK::ReadError::Missing && r.error != SDK::ReadError::None) {
        problems.push_back({host.Path(hostConfigPath), r.reason});
    }
    return SDK::ReadError::None;
}

bool IsPlainName(const std::string& name)
{
    if (name.empty() || name.size() > kMaxNameLength || name[0] == '.') {
        return false;
    }
    for (unsigned char c : name) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                        (c >= '0' && c <= '9') || c == '_' || c == '.' || c == '-';
        if (!ok) {
            return false;
        }
    }
    return true;
}

long ParsePid(const std::string& text)
{
    const std::size_t begin = text.find_first_not_of(" \t\r\n");
    if (begin == std::string::npos) {
        return 0;
    }
    const std::size_t end = text.find_last_not_of(" \t\r\n");
    const std::string digits = text.substr(begin, end - begin + 1);
    if (digits.size() > 7) {
        return 0;
    }
    long pid = 0;
    for (char c : digits) {
        if (c < '0' || c > '9') {
            return 0;
        }
        pid = pid * 10 + (c - '0');
    }
    return (pid >= 1 && pid <= kMaxPid) ? pid : 0;
}

bool HasDotDot(const std::string& path)
{
    std::size_t start = 0;
    while (start <= path.size()) {
        const std::size_t slash = path.find('/', start);
        const std::size_t len = (slash == std::string::npos ? path.size() : slash) - start;
        if (len == 2 && path.compare(start, 2, "..") == 0) {
            return true;
        }
        if (slash == std::string::npos) {
            break;
        }
        start = slash + 1;
    }
    return false;
}

}  // namespace Container
