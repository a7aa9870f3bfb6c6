#include "asset/RootedFs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <set>

#include <Poco/DirectoryIterator.h>
#include <Poco/Exception.h>
#include <Poco/Glob.h>

namespace Asset {

namespace {

constexpr int kMaxLinks = 40;
constexpr int kMaxDirDepth = 8;

std::vector<std::string> Components(const std::string& path)
{
    std::vector<std::string> out;
    size_t pos = 0;
    while (pos <= path.size()) {
        size_t next = path.find('/', pos);
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

}  // namespace

RootedFs::RootedFs(const std::string& prefix) : m_prefix(StripTrailingSlash(prefix))
{
    if (m_prefix == "/") {
        m_prefix.clear();
    }
}

bool RootedFs::HasGlob(const std::string& text)
{
    return text.find_first_of("*?[") != std::string::npos;
}

std::string RootedFs::DirName(const std::string& path)
{
    std::string p = StripTrailingSlash(path);
    size_t slash = p.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    if (slash == 0) {
        return "/";
    }
    return p.substr(0, slash);
}

std::string RootedFs::Join(const std::string& base, const std::string& rel)
{
    if (!rel.empty() && rel[0] == '/') {
        return rel;
    }
    if (base.empty()) {
        return rel;
    }
    if (base.back() == '/') {
        return base + rel;
    }
    return base + "/" + rel;
}

std::string RootedFs::StripTrailingSlash(const std::string& path)
{
    std::string p = path;
    while (p.size() > 1 && p.back() == '/') {
        p.pop_back();
    }
    return p;
}

std::string RootedFs::Resolve(const std::string& path) const
{
    std::deque<std::string> todo;
    for (auto& c : Components(path)) {
        todo.push_back(c);
    }
    std::vector<std::string> done;
    int links = 0;
    bool exists = true;
    while (!todo.empty()) {
        std::string c = todo.front();
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
        if (++links > kMaxLinks) {
            exists = false;
            continue;
        }
        char buf[4096];
        ssize_t n = ::readlink(host.c_str(), buf, sizeof(buf) - 1);
        if (n <= 0) {
            exists = false;
            continue;
        }
        std::string target(buf, static_cast<size_t>(n));
        done.pop_back();
        if (target[0] == '/') {
            done.clear();
        }
        auto parts = Components(target);
        for (auto it = parts.rbegin(); it != parts.rend(); ++it) {
            todo.push_front(*it);
        }
    }
    return JoinComponents(done);
}

std::string RootedFs::HostPath(const std::string& path) const
{
    if (m_prefix.empty()) {
        return path;
    }
    std::string resolved = Resolve(path);
    return resolved == "/" ? m_prefix : m_prefix + resolved;
}

bool RootedFs::ReadFile(const std::string& path, std::string& out, std::string& error,
                        size_t maxBytes) const
{
    const std::string host = HostPath(path);
    // O_NONBLOCK: a FIFO named like a configuration file must not hang discovery.
    int fd = ::open(host.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        error = std::strerror(errno);
        return false;
    }
    struct stat st;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        error = S_ISDIR(st.st_mode) ? "is a directory" : "not a regular file";
        ::close(fd);
        return false;
    }
    if (static_cast<size_t>(st.st_size) > maxBytes) {
        error = "larger than " + std::to_string(maxBytes) + " bytes";
        ::close(fd);
        return false;
    }
    out.clear();
    char buf[65536];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof(buf));
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            error = std::strerror(errno);
            ::close(fd);
            return false;
        }
        if (n == 0) {
            break;
        }
        out.append(buf, static_cast<size_t>(n));
        if (out.size() > maxBytes) {
            error = "larger than " + std::to_string(maxBytes) + " bytes";
            ::close(fd);
            return false;
        }
    }
    ::close(fd);
    return true;
}

bool RootedFs::IsDirectory(const std::string& path) const
{
    struct stat st;
    return ::stat(HostPath(path).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::vector<std::string> RootedFs::Glob(const std::string& pattern) const
{
    if (!HasGlob(pattern)) {
        return {pattern};
    }
    // Resolve the literal leading directories inside the prefix, then let
    // the pattern part match under that host directory.
    auto parts = Components(pattern);
    size_t firstGlob = 0;
    while (firstGlob < parts.size() && !HasGlob(parts[firstGlob])) {
        ++firstGlob;
    }
    std::vector<std::string> fixed(parts.begin(), parts.begin() + static_cast<long>(firstGlob));
    std::string serverBase = m_prefix.empty() ? JoinComponents(fixed) : Resolve(JoinComponents(fixed));
    std::string rest;
    for (size_t i = firstGlob; i < parts.size(); ++i) {
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
        if (m.compare(0, hostBase.size(), hostBase) != 0) {
            continue;
        }
        std::string tail = m.substr(hostBase.size());
        out.push_back(serverBase == "/" ? tail : serverBase + tail);
    }
    std::sort(out.begin(), out.end());
    return out;
}

namespace {

void CollectFiles(const std::string& hostDir, const std::string& serverDir, int depth, size_t limit,
                  std::vector<std::string>& out)
{
    if (depth > kMaxDirDepth || out.size() >= limit) {
        return;
    }
    std::vector<std::string> names;
    try {
        for (Poco::DirectoryIterator it(hostDir), end; it != end; ++it) {
            names.push_back(it.name());
        }
    } catch (const Poco::Exception&) {
        return;
    }
    std::sort(names.begin(), names.end());
    for (const auto& name : names) {
        if (out.size() >= limit) {
            return;
        }
        const std::string host = hostDir + "/" + name;
        struct stat st;
        if (::stat(host.c_str(), &st) != 0) {
            continue;
        }
        if (S_ISDIR(st.st_mode)) {
            CollectFiles(host, serverDir + "/" + name, depth + 1, limit, out);
        } else if (S_ISREG(st.st_mode)) {
            out.push_back(serverDir + "/" + name);
        }
    }
}

}  // namespace

std::vector<std::string> RootedFs::FilesUnder(const std::string& dir, size_t limit) const
{
    std::vector<std::string> out;
    std::string serverDir = StripTrailingSlash(dir);
    if (serverDir == "/") {
        serverDir.clear();
    }
    CollectFiles(HostPath(dir), serverDir, 0, limit, out);
    return out;
}

}  // namespace Asset
