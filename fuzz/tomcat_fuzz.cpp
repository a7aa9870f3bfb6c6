// Tomcat's server.xml, with one context file in the fake catalina.base so
// that hosts and their context directories are read as well.

#include <cstdint>
#include <map>
#include <sstream>
#include <string>

#include "FuzzSupport.h"
#include "asset/TomcatConfig.h"

namespace {

std::string g_root;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    Fuzz::SilenceLogs();
    g_root = Fuzz::ScratchDir() + "/host";
    Fuzz::WriteFile(g_root + "/opt/tomcat/conf/Catalina/localhost/app.xml",
                    "<Context docBase=\"${catalina.home}/apps/app\"/>\n");
    Fuzz::MakeDirs(g_root + "/opt/tomcat/webapps/ROOT");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    SDK::HostRoot fs(g_root);
    Asset::TomcatConfigParser parser(fs, "/opt/tomcat", {{"catalina.home", "/opt/tomcat"}});
    std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
    parser.ParseServerXml(in, "/opt/tomcat/conf/server.xml");
    return 0;
}
