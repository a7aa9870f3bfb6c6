#pragma once
// What reading one server's configuration yields: the web directories it
// names and the problems met on the way. Parsers never stop at the first
// problem: a line they cannot read is recorded here and the rest is used.

#include <cstddef>
#include <string>
#include <vector>

#include "sdk/HostRoot.h"

namespace Asset {

// Real configuration files are kilobytes; this bounds what a hostile one costs.
constexpr std::size_t kMaxConfigBytes = 4u << 20;

// A configuration file read through `fs`, at most kMaxConfigBytes. false
// and `error` ("Permission denied", "not a regular file") when it cannot be.
bool ReadConfigFile(const SDK::HostRoot& fs, const std::string& path, std::string& text,
                    std::string& error);

struct WebDir {
    std::string path;    // server namespace, absolute, no trailing slash
    std::string origin;  // directive or attribute it came from ("root", "alias", "DocumentRoot"...)
    std::string file;    // configuration file (server namespace)
    int line = 0;
};

struct ConfigIssue {
    std::string file;
    int line = 0;  // 0: the file as a whole
    std::string message;
};

struct ConfigScan {
    std::vector<WebDir> dirs;
    std::vector<ConfigIssue> issues;
    std::vector<std::string> files;  // every configuration file read, in order

    // Adds `dir` unless a directory of the same path is there already.
    void AddDir(const WebDir& dir);
    void AddIssue(const std::string& file, int line, const std::string& message)
    {
        issues.push_back(ConfigIssue{file, line, message});
    }
};

// The literal directory part of a path that contains run-time variables
// ("/var/www/$host" -> "/var/www", "/srv/${SITE}/htdocs" -> "/srv"): the
// deepest directory the server can serve from whatever the variables hold.
// A path without `marker` is returned as it is. Empty when nothing literal
// is left, or only "/" (watching the whole file system is never what a
// variable root means).
std::string LiteralDirPart(const std::string& path, char marker = '$');

}  // namespace Asset
