#pragma once
// Apache httpd configuration, read line by line as httpd does: a backslash
// at the end of a line continues it, "#" starts a comment line, arguments
// may be quoted with " or ', ${NAME} is replaced by a Define or, failing
// that, by the server's environment (Debian's envvars).
//
// Web directories reported: every DocumentRoot, Alias and AliasMatch target
// of the main file and of the files it includes (Include, IncludeOptional;
// globs and directories, relative to ServerRoot), in the main server and in
// VirtualHost blocks. Conditional sections (IfModule, IfDefine...) are read
// as if they applied: reporting a directory too many only costs a scan,
// missing one hides a web shell. Relative paths are taken against
// ServerRoot; an AliasMatch target with back-references is reduced to its
// literal leading directories.

#include <istream>
#include <map>
#include <string>
#include <vector>

#include "asset/ConfigScan.h"
#include "sdk/HostRoot.h"

namespace Asset {

class ApacheConfigParser {
public:
    // `serverRoot`: the -d argument or the built-in ServerRoot.
    // `environment`: what ${NAME} falls back to when NAME is not Defined.
    ApacheConfigParser(const SDK::HostRoot& fs, const std::string& serverRoot,
                       const std::map<std::string, std::string>& environment = {});

    // A -D NAME of the command line.
    void Define(const std::string& name, const std::string& value = "");

    // Reads the main configuration file. `before` and `after` are the -C and
    // -c directives of the command line.
    ConfigScan ParseFile(const std::string& confFile, const std::vector<std::string>& before = {},
                         const std::vector<std::string>& after = {});
    ConfigScan ParseStream(std::istream& in, const std::string& name);

    const std::string& ServerRoot() const { return m_serverRoot; }

    // "export NAME=value" lines of a Debian envvars file ($SUFFIX is empty).
    static std::map<std::string, std::string> ParseEnvVars(const std::string& text);
    // The words of one directive line as httpd splits them.
    static std::vector<std::string> SplitArgs(const std::string& line);

    static constexpr int kMaxIncludeDepth = 16;
    static constexpr size_t kMaxFiles = 512;

private:
    void ParseText(const std::string& text, const std::string& file, int includeDepth);
    void HandleLine(const std::string& line, const std::string& file, int lineNo, int includeDepth);
    void Include(const std::string& pattern, bool optional, const std::string& file, int lineNo,
                 int includeDepth);
    void IncludeOne(const std::string& path, bool optional, const std::string& file, int lineNo,
                    int includeDepth);
    std::string Substitute(const std::string& line, const std::string& file, int lineNo);
    void Report(const std::string& path, const std::string& origin, const std::string& file,
                int lineNo);

    const SDK::HostRoot& m_fs;
    std::string m_serverRoot;
    std::map<std::string, std::string> m_environment;
    std::map<std::string, std::string> m_defines;
    ConfigScan m_scan;
    std::vector<std::string> m_includeStack;
    std::vector<std::string> m_sections;  // open <Section> names, innermost last
    size_t m_fileCount = 0;
};

}  // namespace Asset
