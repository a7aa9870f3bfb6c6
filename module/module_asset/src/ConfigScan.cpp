#include "asset/ConfigScan.h"

namespace Asset {

bool ReadConfigFile(const SDK::HostRoot& fs, const std::string& path, std::string& text,
                    std::string& error)
{
    const SDK::ReadResult r = fs.ReadFile(path, kMaxConfigBytes, text);
    error = r.reason;
    return r.ok();
}

void ConfigScan::AddDir(const WebDir& dir)
{
    for (const auto& d : dirs) {
        if (d.path == dir.path) {
            return;
        }
    }
    dirs.push_back(dir);
}

std::string LiteralDirPart(const std::string& path, char marker)
{
    size_t var = path.find(marker);
    if (var == std::string::npos) {
        return path;
    }
    size_t slash = path.rfind('/', var);
    if (slash == std::string::npos || slash == 0) {
        return "";
    }
    std::string dir = path.substr(0, slash);
    while (dir.size() > 1 && dir.back() == '/') {
        dir.pop_back();
    }
    return dir == "/" ? "" : dir;
}

}  // namespace Asset
