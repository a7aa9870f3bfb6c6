#include "asset/AssetDiscovery.h"

#include <algorithm>
#include <tuple>

#include "asset/ApacheConfig.h"
#include "asset/NginxConfig.h"
#include "asset/TomcatConfig.h"
#include "container/RuntimeState.h"
#include "sdk/HostRoot.h"
#include "sdk/JsonUtils.h"

namespace Asset {

namespace {

constexpr const char* kNginxMasterTitle = "nginx: master process";
constexpr const char* kNginxDefaultPrefix = "/usr/share/nginx/";
constexpr const char* kNginxDefaultConf = "/etc/nginx/nginx.conf";

struct ApacheLayout {
    const char* binary;
    const char* serverRoot;
    const char* confFile;  // relative to the server root
};
// Debian builds apache2 with ServerRoot /etc/apache2; Red Hat builds httpd
// with /etc/httpd. A binary of either name may follow the other layout.
constexpr ApacheLayout kApacheLayouts[] = {
    {"apache2", "/etc/apache2", "apache2.conf"},
    {"httpd", "/etc/httpd", "conf/httpd.conf"},
};

std::string BaseName(const std::string& path)
{
    std::string p = path;
    const std::string deleted = " (deleted)";  // the binary was replaced by an upgrade
    if (p.size() > deleted.size() &&
        p.compare(p.size() - deleted.size(), deleted.size(), deleted) == 0) {
        p.resize(p.size() - deleted.size());
    }
    size_t slash = p.rfind('/');
    return slash == std::string::npos ? p : p.substr(slash + 1);
}

// The program a process runs: the executable's name when /proc shows it,
// else its process name.
std::string ProgramName(const ProcessInfo& p)
{
    return p.exe.empty() ? p.comm : BaseName(p.exe);
}

bool StartsWith(const std::string& text, const std::string& prefix)
{
    return text.compare(0, prefix.size(), prefix) == 0;
}

std::vector<std::string> SplitSpaces(const std::string& text)
{
    std::vector<std::string> out;
    size_t pos = 0;
    while (pos < text.size()) {
        while (pos < text.size() && text[pos] == ' ') {
            ++pos;
        }
        size_t end = text.find(' ', pos);
        if (end == std::string::npos) {
            end = text.size();
        }
        if (end > pos) {
            out.push_back(text.substr(pos, end - pos));
        }
        pos = end;
    }
    return out;
}

// "-c value" or "-cvalue": true and `value` set when argv[i] is option `opt`.
bool OptionValue(const std::vector<std::string>& args, size_t& i, const std::string& opt,
                 std::string& value)
{
    if (args[i] == opt) {
        if (i + 1 < args.size()) {
            value = args[++i];
            return true;
        }
        return false;
    }
    if (args[i].size() > opt.size() && StartsWith(args[i], opt)) {
        value = args[i].substr(opt.size());
        return true;
    }
    return false;
}

bool IsApacheProgram(const std::string& name)
{
    return name == "apache2" || name == "httpd";
}

void AddIssues(const ConfigScan& scan, const SDK::HostRoot& fs, const char* server, int pid,
               std::vector<DiscoveryIssue>& issues)
{
    for (const auto& issue : scan.issues) {
        ConfigIssue visible = issue;
        if (!visible.file.empty() && visible.file[0] == '/') {
            visible.file = fs.HostPath(visible.file);
        }
        issues.push_back(DiscoveryIssue{server, pid, visible});
    }
}

std::shared_ptr<AssetInfo> MakeAsset(const ProcessInfo& p, const char* server,
                                     const std::string& configFile, const ConfigScan& scan,
                                     const SDK::HostRoot& fs)
{
    auto asset = std::make_shared<AssetInfo>();
    asset->containerId = p.containerId;
    asset->server = server;
    asset->pid = p.pid;
    asset->exe = p.exe;
    asset->configFile = fs.HostPath(configFile);
    for (const auto& dir : scan.dirs) {
        auto web = std::make_shared<Engine::AssetMessage::webDirInfo>();
        web->path = SDK::HostRoot::StripTrailingSlash(fs.HostPath(dir.path));
        web->origin = dir.origin;
        web->configFile = fs.HostPath(dir.file);
        web->line = dir.line;
        // Two configured paths may meet at one host path through links.
        bool seen = false;
        for (const auto& existing : asset->webDirList) {
            seen = seen || existing->path == web->path;
        }
        if (!seen) {
            asset->webDirList.push_back(web);
        }
    }
    return asset;
}

}  // namespace

AssetDiscovery::AssetDiscovery(const std::string& hostRoot) : m_hostRoot(hostRoot) {}

unsigned int AssetDiscovery::KindOf(ServerType type)
{
    return type == ServerType::TOMCAT ? Engine::AssetMessage::KIND_JAVA_APP_SERVER
                                      : Engine::AssetMessage::KIND_WEB_SERVER;
}

const char* AssetDiscovery::NameOf(ServerType type)
{
    switch (type) {
    case ServerType::NGINX:
        return "nginx";
    case ServerType::APACHE:
        return "apache";
    case ServerType::TOMCAT:
        return "tomcat";
    case ServerType::NONE:
        break;
    }
    return "";
}

ServerType AssetDiscovery::Classify(const ProcessInfo& p, const ProcessTable& table)
{
    const std::string program = ProgramName(p);
    const std::string argv0 = p.argv.empty() ? std::string() : p.argv[0];
    if (program == "nginx") {
        if (StartsWith(argv0, kNginxMasterTitle)) {
            return ServerType::NGINX;
        }
        if (StartsWith(argv0, "nginx:")) {
            return ServerType::NONE;  // worker, cache manager, cache loader
        }
        // Not yet retitled, or running without a master: the one whose
        // parent is not nginx serves.
        const ProcessInfo* parent = table.Find(p.ppid);
        return parent != nullptr && ProgramName(*parent) == "nginx" ? ServerType::NONE
                                                                    : ServerType::NGINX;
    }
    if (IsApacheProgram(program)) {
        const ProcessInfo* parent = table.Find(p.ppid);
        return parent != nullptr && ProgramName(*parent) == program ? ServerType::NONE
                                                                    : ServerType::APACHE;
    }
    if (program == "java" || p.comm == "java" || BaseName(argv0) == "java") {
        for (const auto& arg : p.argv) {
            if (StartsWith(arg, "-Dcatalina.base=") || StartsWith(arg, "-Dcatalina.home=")) {
                return ServerType::TOMCAT;
            }
        }
    }
    return ServerType::NONE;
}

std::shared_ptr<AssetInfo> AssetDiscovery::DescribeNginx(const ProcessInfo& p,
                                                         const ProcessTable& table,
                                                         std::vector<DiscoveryIssue>& issues)
{
    // The master rewrites its title to "nginx: master process <argv joined
    // by blanks>": the original words are what follows.
    std::vector<std::string> args;
    if (!p.argv.empty() && StartsWith(p.argv[0], kNginxMasterTitle)) {
        args = SplitSpaces(p.argv[0].substr(std::char_traits<char>::length(kNginxMasterTitle)));
        for (size_t i = 1; i < p.argv.size(); ++i) {
            args.push_back(p.argv[i]);
        }
    } else {
        args = p.argv;
    }
    std::string prefix = kNginxDefaultPrefix;
    std::string conf;
    for (size_t i = 1; i < args.size(); ++i) {
        std::string value;
        if (OptionValue(args, i, "-p", value)) {
            prefix = value;
        } else if (OptionValue(args, i, "-c", value)) {
            conf = value;
        }
    }
    if (prefix.empty() || prefix.back() != '/') {
        prefix += '/';
    }
    conf = conf.empty() ? std::string(kNginxDefaultConf) : SDK::HostRoot::Join(prefix, conf);
    const SDK::HostRoot fs = table.FilesOf(p);
    NginxConfigParser parser(fs, prefix);
    ConfigScan scan = parser.ParseFile(conf);
    AddIssues(scan, fs, "nginx", p.pid, issues);
    return MakeAsset(p, "nginx", conf, scan, fs);
}

std::shared_ptr<AssetInfo> AssetDiscovery::DescribeApache(const ProcessInfo& p,
                                                          const ProcessTable& table,
                                                          std::vector<DiscoveryIssue>& issues)
{
    const SDK::HostRoot fs = table.FilesOf(p);
    const std::string program = ProgramName(p);
    std::string serverRoot;
    std::string conf;
    std::vector<std::string> before;
    std::vector<std::string> after;
    std::vector<std::string> defines;
    for (size_t i = 1; i < p.argv.size(); ++i) {
        std::string value;
        if (OptionValue(p.argv, i, "-d", value)) {
            serverRoot = value;
        } else if (OptionValue(p.argv, i, "-f", value)) {
            conf = value;
        } else if (OptionValue(p.argv, i, "-D", value)) {
            defines.push_back(value);
        } else if (OptionValue(p.argv, i, "-C", value)) {
            before.push_back(value);
        } else if (OptionValue(p.argv, i, "-c", value)) {
            after.push_back(value);
        }
    }
    const ApacheLayout* layout = &kApacheLayouts[program == "httpd" ? 1 : 0];
    const ApacheLayout* other = &kApacheLayouts[program == "httpd" ? 0 : 1];
    if (serverRoot.empty() && !fs.IsDirectory(layout->serverRoot) &&
        fs.IsDirectory(other->serverRoot)) {
        layout = other;
    }
    if (serverRoot.empty()) {
        serverRoot = layout->serverRoot;
    }
    conf = SDK::HostRoot::Join(serverRoot, conf.empty() ? std::string(layout->confFile) : conf);

    // Debian's apache2ctl exports envvars before starting the server; the
    // process environment is what the server really saw.
    std::map<std::string, std::string> environment;
    std::string envvars;
    std::string error;
    if (ReadConfigFile(fs, SDK::HostRoot::Join(serverRoot, "envvars"), envvars, error)) {
        environment = ApacheConfigParser::ParseEnvVars(envvars);
    }
    for (const auto& kv : table.Environment(p.pid)) {
        environment[kv.first] = kv.second;
    }
    ApacheConfigParser parser(fs, serverRoot, environment);
    for (const auto& d : defines) {
        parser.Define(d);
    }
    ConfigScan scan = parser.ParseFile(conf, before, after);
    AddIssues(scan, fs, "apache", p.pid, issues);
    return MakeAsset(p, "apache", conf, scan, fs);
}

std::shared_ptr<AssetInfo> AssetDiscovery::DescribeTomcat(const ProcessInfo& p,
                                                          const ProcessTable& table,
                                                          std::vector<DiscoveryIssue>& issues)
{
    std::map<std::string, std::string> properties;
    for (const auto& arg : p.argv) {
        if (StartsWith(arg, "-D")) {
            size_t eq = arg.find('=');
            if (eq != std::string::npos && eq > 2) {
                properties[arg.substr(2, eq - 2)] = arg.substr(eq + 1);
            }
        }
    }
    std::string base = properties.count("catalina.base") != 0 ? properties["catalina.base"]
                                                                : properties["catalina.home"];
    const SDK::HostRoot fs = table.FilesOf(p);
    TomcatConfigParser parser(fs, base, properties);
    ConfigScan scan = parser.Parse();
    AddIssues(scan, fs, "tomcat", p.pid, issues);
    const std::string conf =
        SDK::HostRoot::StripTrailingSlash(SDK::HostRoot::Join("/", base)) + "/conf/server.xml";
    return MakeAsset(p, "tomcat", conf, scan, fs);
}

std::string AssetDiscovery::ContainerName(const std::string& containerId,
                                          std::string& dockerRoot) const
{
    // Docker keeps the name in its own record; the container service reports
    // what cannot be read there.
    std::vector<Container::Problem> ignored;
    const SDK::HostRoot host(m_hostRoot);
    if (dockerRoot.empty()) {
        dockerRoot = Container::DockerDataRoot(host, ignored);
    }
    Container::DockerState state;
    Container::ReadDockerState(host, dockerRoot, containerId, state, ignored);
    return state.name;
}

DiscoveryResult AssetDiscovery::Discover()
{
    DiscoveryResult result;
    result.byKind[Engine::AssetMessage::KIND_WEB_SERVER];
    result.byKind[Engine::AssetMessage::KIND_JAVA_APP_SERVER];
    ProcessTable table(m_hostRoot);
    table.Load();
    std::map<std::string, std::string> names;  // container id -> name, one lookup a round
    std::string dockerRoot;                     // read when a container first needs it
    for (const auto& entry : table.Processes()) {
        const ProcessInfo& p = entry.second;
        const ServerType type = Classify(p, table);
        std::shared_ptr<AssetInfo> asset;
        switch (type) {
        case ServerType::NGINX:
            asset = DescribeNginx(p, table, result.issues);
            break;
        case ServerType::APACHE:
            asset = DescribeApache(p, table, result.issues);
            break;
        case ServerType::TOMCAT:
            asset = DescribeTomcat(p, table, result.issues);
            break;
        case ServerType::NONE:
            continue;
        }
        if (!asset->containerId.empty()) {
            auto it = names.find(asset->containerId);
            if (it == names.end()) {
                it = names.emplace(asset->containerId, ContainerName(asset->containerId, dockerRoot)).first;
            }
            asset->containerName = it->second;
        }
        result.byKind[KindOf(type)].push_back(asset);
    }
    for (auto& kv : result.byKind) {
        std::sort(kv.second.begin(), kv.second.end(),
                  [](const std::shared_ptr<AssetInfo>& a, const std::shared_ptr<AssetInfo>& b) {
                      return std::tie(a->containerId, a->server, a->configFile, a->pid) <
                             std::tie(b->containerId, b->server, b->configFile, b->pid);
                  });
    }
    return result;
}

Json::Value AssetDiscovery::ToJson(unsigned int kind, const AssetInfo& asset)
{
    Json::Value v(Json::objectValue);
    v["kind"] = kind;
    v["server"] = asset.server;
    v["pid"] = asset.pid;
    v["exe"] = asset.exe;
    v["configFile"] = asset.configFile;
    v["containerId"] = asset.containerId;
    v["containerName"] = asset.containerName;
    Json::Value dirs(Json::arrayValue);
    for (const auto& dir : asset.webDirList) {
        Json::Value d(Json::objectValue);
        d["path"] = dir->path;
        d["origin"] = dir->origin;
        d["configFile"] = dir->configFile;
        d["line"] = dir->line;
        dirs.append(d);
    }
    v["webDirs"] = dirs;
    return v;
}

std::string AssetDiscovery::CanonicalForm(unsigned int kind, const AssetList& assets)
{
    Json::Value list(Json::arrayValue);
    for (const auto& asset : assets) {
        list.append(ToJson(kind, *asset));
    }
    return SDK::JsonUtils::JsonToString(list);
}

}  // namespace Asset
