#pragma once
// Tomcat configuration: <catalina.base>/conf/server.xml and the context
// files of each host (<catalina.base>/conf/<Engine name>/<Host name>/*.xml,
// or the Host's xmlBase).
//
// Web directories reported: the appBase of every Host (default "webapps",
// relative to catalina.base) and the docBase of every Context, in
// server.xml or in a context file (relative to its Host's appBase, as
// Tomcat resolves it). ${property} in attribute values is replaced from
// the JVM's -D properties (catalina.base, catalina.home...).

#include <istream>
#include <map>
#include <string>
#include <vector>

#include "asset/ConfigScan.h"
#include "sdk/HostRoot.h"

namespace Asset {

class TomcatConfigParser {
public:
    // `properties`: the -D system properties of the JVM; catalina.base and
    // catalina.home are added from `catalinaBase` when missing.
    TomcatConfigParser(const SDK::HostRoot& fs, const std::string& catalinaBase,
                       const std::map<std::string, std::string>& properties = {});

    // Reads <catalina.base>/conf/server.xml and the context files.
    ConfigScan Parse();
    // The same with the text of server.xml handed in (context files are
    // still read through the file system view).
    ConfigScan ParseServerXml(std::istream& in, const std::string& name);

    struct Host {
        std::string engine;
        std::string name;
        std::string appBase;  // absolute
        std::string xmlBase;  // as written, may be empty
        std::string file;
        int line = 0;
    };
    struct Context {
        int host = -1;  // index into the hosts; -1 outside any Host
        std::string docBase;  // as written (properties substituted)
        std::string file;
        int line = 0;
    };

private:
    void ParseXml(std::istream& in, const std::string& file, bool contextFile, int host);
    void Finish();
    std::string Substitute(const std::string& value) const;
    void Report(const std::string& path, const std::string& origin, const std::string& file,
                int line);

    friend class TomcatSaxHandler;

    const SDK::HostRoot& m_fs;
    std::string m_base;
    std::map<std::string, std::string> m_properties;
    ConfigScan m_scan;
    std::vector<Host> m_hosts;
    std::vector<Context> m_contexts;
};

}  // namespace Asset
