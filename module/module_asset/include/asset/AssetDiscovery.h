#pragma once
// One discovery round: the web servers running on the host and in its
// containers, found from /proc under the host root, and the web directories
// their configuration files name.
//
// Servers recognised (kind in parentheses):
//   nginx   (0)  the master process; configuration from -c (relative to the
//                prefix -p) or /etc/nginx/nginx.conf; built-in prefix
//                /usr/share/nginx/ as Debian builds it.
//   apache  (0)  the parent apache2/httpd process; configuration from -f
//                (relative to ServerRoot, -d) or the distribution default
//                (/etc/apache2/apache2.conf, /etc/httpd/conf/httpd.conf);
//                -D, -C and -c of the command line; ${VARS} from Define,
//                the process environment and <ServerRoot>/envvars.
//   tomcat  (4)  a java process with -Dcatalina.base= (or catalina.home).
// A server inside a container is read through /proc/<pid>/root and its
// paths are given as the host sees them there.

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>

#include "asset/ConfigScan.h"
#include "asset/ProcessTable.h"
#include "message/AssetMessage.h"

namespace Asset {

using AssetInfo = Engine::AssetMessage::assetInfo;
using AssetList = std::vector<std::shared_ptr<AssetInfo>>;

enum class ServerType { NONE, NGINX, APACHE, TOMCAT };

struct DiscoveryIssue {
    std::string server;  // "nginx", "apache", "tomcat"
    int pid = 0;
    ConfigIssue issue;   // file is host-visible
};

struct DiscoveryResult {
    // Assets by kind (0 and 4 always present), in canonical order.
    std::map<unsigned int, AssetList> byKind;
    std::vector<DiscoveryIssue> issues;
};

class AssetDiscovery {
public:
    explicit AssetDiscovery(const std::string& hostRoot);

    DiscoveryResult Discover();

    // Which server a process is, given the table it came from (the parent
    // decides between an Apache parent and its children).
    static ServerType Classify(const ProcessInfo& process, const ProcessTable& table);
    static unsigned int KindOf(ServerType type);
    static const char* NameOf(ServerType type);

    // The record an operator sees and the text compared between rounds.
    static Json::Value ToJson(unsigned int kind, const AssetInfo& asset);
    static std::string CanonicalForm(unsigned int kind, const AssetList& assets);

private:
    std::shared_ptr<AssetInfo> DescribeNginx(const ProcessInfo& p, const ProcessTable& table,
                                             std::vector<DiscoveryIssue>& issues);
    std::shared_ptr<AssetInfo> DescribeApache(const ProcessInfo& p, const ProcessTable& table,
                                              std::vector<DiscoveryIssue>& issues);
    std::shared_ptr<AssetInfo> DescribeTomcat(const ProcessInfo& p, const ProcessTable& table,
                                              std::vector<DiscoveryIssue>& issues);
    std::string ContainerName(const std::string& containerId, std::string& dockerRoot) const;

    std::string m_hostRoot;
};

}  // namespace Asset
