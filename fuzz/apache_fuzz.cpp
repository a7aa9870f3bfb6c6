// Apache httpd configuration text, one directive line split as httpd does,
// and Debian's envvars; includes resolve in a small fake root.

#include <cstdint>
#include <map>
#include <sstream>
#include <string>

#include "FuzzSupport.h"
#include "asset/ApacheConfig.h"

namespace {

std::string g_root;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    Fuzz::SilenceLogs();
    g_root = Fuzz::ScratchDir() + "/host";
    Fuzz::WriteFile(g_root + "/etc/apache2/sites-enabled/000-default.conf",
                    "<VirtualHost *:80>\n  DocumentRoot ${APACHE_DOC}/html\n  Alias /a \"/srv/a\"\n</VirtualHost>\n");
    Fuzz::WriteFile(g_root + "/etc/apache2/loop.conf", "Include loop.conf\n");
    Fuzz::WriteFile(g_root + "/etc/apache2/envvars", "export APACHE_DOC=/var/www\n");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    SDK::HostRoot fs(g_root);
    Asset::ApacheConfigParser parser(fs, "/etc/apache2", Asset::ApacheConfigParser::ParseEnvVars(text));
    parser.Define("FUZZ");
    std::istringstream in(text);
    parser.ParseStream(in, "/etc/apache2/apache2.conf");
    Asset::ApacheConfigParser::SplitArgs(text.substr(0, text.find('\n')));
    return 0;
}
