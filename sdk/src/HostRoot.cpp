#include "sdk/HostRoot.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <set>

#include <Poco/Exception.h>
#include <Poco/Glob.h>

namespace SDK {

namespace {

constexpr int kMaxLinks = 40;  // the kernel's own bound
constexpr int kMaxDirDepth = 8;

std::vector<std::string> Components(const std::string& path)
{
    std::vector<std::string> out;
    std::size_t pos = 0;
    while (pos <= path.size()) {
        std::size_t next = path.find('/', pos);
        if (next == std::string::npos) {
            next = path.size();
        }
        std::string part = path.substr(pos, next - pos);
        if (!part.empty() && part != ".") {
            out.push_back(part);
        }
        pos = next + 1;
    }
    return out;
}

std::string JoinComponents(const std::vector<std::string>& parts)
{
    std::string out;
    for (const auto& p : parts) {
        out += "/";
        out += p;
    }
    return out.empty() ? "/" : out;
}

std::string BaseName(const std::string& path)
{
    const std::string p = HostRoot::StripTrailingSlash(path);
    const std::size_t slash = p.rfind('/');
    return slash == std::string::npos ? p : p.substr(slash + 1);
}

std::string Child(const std::string& dir, const std::string& name)
{
    return !dir.empty() && dir.back() == '/' ? dir + name : dir + "/" + name;
}

std::string ReadLinkText(const std::string& hostPath)
{
    char buf[4096];
    const ssize_t n = ::readlink(hostPath.c_str(), buf, sizeof(buf));
    if (n <= 0 || static_cast<std::size_t>(n) >= sizeof(buf)) {
        return std::string();  // not a link, or a target too long to be one we resolve
    }
    return std::string(buf, static_cast<std::size_t>(n));
}

}  // namespace

HostRoot::HostRoot(const std::string& prefix) : m_prefix(StripTrailingSlash(prefix))
{
    if (m_prefix == "/") {
        m_prefix.clear();
    }
}

bool HostRoot::HasGlob(const std::string& text)
{
    return text.find_first_of("*?[") != std::string::npos;
}

std::string HostRoot::DirName(const std::string& path)
{
    const std::string p = StripTrailingSlash(path);
    const std::size_t slash = p.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : p.substr(0, slash);
}

std::string HostRoot::Join(const std::string& base, const std::string& rel)
{
    if ((!rel.empty() && rel[0] == '/') || base.empty()) {
        return rel;
    }
    return Child(base, rel);
}

std::string HostRoot::StripTrailingSlash(const std::string& path)
{
    std::string p = path;
    while (p.size() > 1 && p.back() == '/') {
        p.pop_back();
    }
    return p;
}

std::string HostRoot::Path(const std::string& path) const
{
    return m_prefix + (!path.empty() && path[0] == '/' ? path : "/" + path);
}

std::string HostRoot::Resolve(const std::string& path, bool& confined) const
{
    std::deque<std::string> todo;
    for (auto& c : Components(path)) {
        todo.push_back(c);
    }
    std::vector<std::string> done;
    int links = 0;
    bool exists = true;
    confined = true;
    while (!todo.empty()) {
        const std::string c = todo.front();
        todo.pop_front();
        if (c == "..") {
            if (!done.empty()) {
                done.pop_back();
            }
            continue;
        }
        done.push_back(c);
        if (!exists) {
            continue;
        }
        const std::string host = m_prefix + JoinComponents(done);
        struct stat st;
        if (::lstat(host.c_str(), &st) != 0) {
            exists = false;  // the rest is kept as written
            continue;
        }
        if (!S_ISLNK(st.st_mode)) {
            continue;
        }
        const std::string target = ++links > kMaxLinks ? std::string() : ReadLinkText(host);
        if (target.empty()) {
            exists = false;
            confined = false;
            continue;
        }
        done.pop_back();
        if (target[0] == '/') {
            done.clear();
        }
        const auto parts = Components(target);
        todo.insert(todo.begin(), parts.begin(), parts.end());
    }
    return JoinComponents(done);
}

std::string HostRoot::HostPath(const std::string& path) const
{
    if (m_prefix.empty()) {
        return path;
    }
    bool confined = true;
    const std::string resolved = Resolve(path, confined);
    return resolved == "/" ? m_prefix : m_prefix + resolved;
}

std::string HostRoot::ConfinedPath(const std::string& path) const
{
    if (m_prefix.empty()) {
        return path;
    }
    bool confined = true;
    const std::string resolved = Resolve(path, confined);
    if (!confined) {
        return std::string();
    }
    return resolved == "/" ? m_prefix : m_prefix + resolved;
}

ReadResult HostRoot::ReadFile(const std::string& path, std::size_t cap, std::string& out,
                              FinalLink link) const
{
    out.clear();
    std::string host;
    if (link == FinalLink::Refuse) {
        const std::string dir = ConfinedPath(DirName(path));
        host = dir.empty() ? dir : Child(dir, BaseName(path));
    } else {
        host = ConfinedPath(path);
    }
    if (host.empty()) {
        return ReadResult::Failure(ReadError::Failed, Path(path),
                                   "its links cannot be resolved inside " + Display());
    }
    // Under a prefix the links are resolved already: one that appears now was
    // planted meanwhile and is not followed.
    return ReadRegularFile(host, cap, out, link == FinalLink::Refuse || !m_prefix.empty());
}

std::string HostRoot::ReadLink(const std::string& path) const
{
    const std::string dir = ConfinedPath(DirName(path));
    return dir.empty() ? std::string() : ReadLinkText(Child(dir, BaseName(path)));
}

bool HostRoot::IsDirectory(const std::string& path) const
{
    const std::string host = ConfinedPath(path);
    struct stat st;
    return !host.empty() && ::stat(host.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

ReadResult HostRoot::ListDir(const std::string& path, std::vector<DirEntry>& out) const
{
    const std::string host = ConfinedPath(path);
    if (host.empty()) {
        out.clear();
        return ReadResult::Failure(ReadError::Failed, Path(path),
                                   "its links cannot be resolved inside " + Display());
    }
    return ListDirectory(host, out);
}

std::vector<std::string> HostRoot::Glob(const std::string& pattern) const
{
    if (!HasGlob(pattern)) {
        return {pattern};
    }
    // The literal leading directories are resolved inside the prefix, then
    // the pattern part matches under that host directory.
    const auto parts = Components(pattern);
    std::size_t firstGlob = 0;
    while (firstGlob < parts.size() && !HasGlob(parts[firstGlob])) {
        ++firstGlob;
    }
    const std::vector<std::string> fixed(parts.begin(), parts.begin() + static_cast<long>(firstGlob));
    std::string serverBase = JoinComponents(fixed);
    if (!m_prefix.empty()) {
        bool confined = true;
        serverBase = Resolve(serverBase, confined);
        if (!confined) {
            return {};
        }
    }
    std::string rest;
    for (std::size_t i = firstGlob; i < parts.size(); ++i) {
        rest += (rest.empty() ? "" : "/") + parts[i];
    }
    const std::string hostBase = m_prefix + (serverBase == "/" ? "" : serverBase);
    std::set<std::string> matches;
    try {
        Poco::Glob::glob(hostBase + "/" + rest, matches, Poco::Glob::GLOB_DOT_SPECIAL);
    } catch (const Poco::Exception&) {
        return {};
    }
    std::vector<std::string> out;
    for (const auto& m : matches) {
        if (m.compare(0, hostBase.size(), hostBase) == 0) {
            const std::string tail = m.substr(hostBase.size());
            out.push_back(serverBase == "/" ? tail : serverBase + tail);
        }
    }
    std::sort(out.begin(), out.end());
    return out;
}

void HostRoot::CollectFiles(const std::string& dir, int depth, std::size_t limit,
                            std::vector<std::string>& out) const
{
    std::vector<DirEntry> entries;
    if (depth > kMaxDirDepth || out.size() >= limit || !ListDir(dir, entries).ok()) {
        return;
    }
    for (const auto& e : entries) {
        if (out.size() >= limit) {
            return;
        }
        const std::string path = Child(dir, e.name);
        DirEntry::Type type = e.type;
        if (type == DirEntry::Type::Link) {
            const std::string host = ConfinedPath(path);
            struct stat st;
            if (host.empty() || ::stat(host.c_str(), &st) != 0) {
                continue;
            }
            type = S_ISDIR(st.st_mode)   ? DirEntry::Type::Dir
                   : S_ISREG(st.st_mode) ? DirEntry::Type::File
                                         : DirEntry::Type::Other;
        }
        if (type == DirEntry::Type::Dir) {
            CollectFiles(path, depth + 1, limit, out);
        } else if (type == DirEntry::Type::File) {
            out.push_back(path);
        }
    }
}

std::vector<std::string> HostRoot::FilesUnder(const std::string& dir, std::size_t limit) const
{
    std::vector<std::string> out;
    CollectFiles(StripTrailingSlash(dir), 0, limit, out);
    return out;
}

}  // namespace SDK
