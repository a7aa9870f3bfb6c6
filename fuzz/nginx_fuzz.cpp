// nginx configuration text, with includes resolved in a small fake root
// that holds an include cycle and a glob target.

#include <cstdint>
#include <sstream>
#include <string>

#include "FuzzSupport.h"
#include "asset/NginxConfig.h"

namespace {

std::string g_root;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    Fuzz::SilenceLogs();
    g_root = Fuzz::ScratchDir() + "/host";
    Fuzz::WriteFile(g_root + "/etc/nginx/conf.d/a.conf", "server { listen 80; root /srv/a; location /x { alias /srv/x/; } }\n");
    Fuzz::WriteFile(g_root + "/etc/nginx/conf.d/b.conf", "include /etc/nginx/conf.d/*.conf;\n");
    Fuzz::WriteFile(g_root + "/etc/nginx/loop.conf", "include loop.conf;\n");
    Fuzz::WriteFile(g_root + "/etc/nginx/mime.types", "types { text/html html; }\n");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    SDK::HostRoot fs(g_root);
    Asset::NginxConfigParser parser(fs, "/usr/share/nginx/");
    std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
    parser.ParseStream(in, "/etc/nginx/nginx.conf", "/etc/nginx");
    return 0;
}
