#include "sdk/PathUtils.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mutex>

#include <Poco/Exception.h>
#include <Poco/Path.h>

namespace SDK {

namespace {

std::mutex g_installMutex;
std::string g_installDir;  // guarded by g_installMutex; empty: derive from the executable

std::string ParentDir(const std::string& path)
{
    std::string p = path;
    while (p.size() > 1 && p.back() == '/') {
        p.pop_back();
    }
    const std::string::size_type slash = p.rfind('/');
    if (slash == std::string::npos) {
        return std::string();
    }
    if (slash == 0) {
        return "/";
    }
    return p.substr(0, slash);
}

bool IsDirectory(const std::string& path)
{
    struct stat st {};
    return !path.empty() && stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

int PathUtils::GetInstallationPath(std::string& out)
{
    std::string dir;
    {
        std::lock_guard<std::mutex> lock(g_installMutex);
        dir = g_installDir;
    }
    if (dir.empty()) {
        // <install>/bin/ardent-agent -> <install>
        const std::string exe = GetLinkRealPath("/proc/self/exe");
        if (exe.empty()) {
            return -1;
        }
        dir = ParentDir(ParentDir(exe));
    }
    if (!IsDirectory(dir)) {
        return -1;
    }
    if (dir.back() != '/') {
        dir += '/';
    }
    out = dir;
    return 0;
}

void PathUtils::SetInstallationPath(const std::string& dir)
{
    std::string absolute = dir;
    if (!absolute.empty() && absolute.front() != '/') {
        // A relative --install-dir means "from where the agent was started";
        // fix it now so a later chdir cannot move it.
        try {
            Poco::Path path(absolute);
            path.makeDirectory();
            path.makeAbsolute();
            absolute = path.toString();
        } catch (const Poco::Exception&) {
            absolute.clear();
        }
    }
    std::lock_guard<std::mutex> lock(g_installMutex);
    g_installDir = absolute;
}

std::string PathUtils::GetLinkRealPath(const std::string& path)
{
    if (path.empty()) {
        return std::string();
    }
    char* resolved = realpath(path.c_str(), nullptr);
    if (resolved == nullptr) {
        return std::string();
    }
    std::string result(resolved);
    free(resolved);
    return result;
}

}  // namespace SDK
