#pragma once
// nginx configuration, read the way nginx reads it: tokens separated by
// blanks, ";" ends a directive, "{ }" make blocks, "#" starts a comment at
// the beginning of a token, quotes and backslash escapes as nginx has them,
// "include" expanded in place (globs, relative to the directory of the main
// file, cycles and depth bounded).
//
// Web directories reported:
//   - every "alias" and "root" of a server or location (and of an "if"
//     inside a location);
//   - for a server or location without its own, the root it inherits from
//     the enclosing location, server or http block, as nginx merges it;
//   - nginx's built-in default "<prefix>html" for a server without locations
//     or a location that serves files and has no root anywhere above it.
// Relative paths are taken against the prefix (-p). A path with variables
// is reduced to its literal leading directories ("/var/www/$host" gives
// "/var/www").

#include <istream>
#include <set>
#include <string>
#include <vector>

#include "asset/ConfigScan.h"
#include "sdk/HostRoot.h"

namespace Asset {

class NginxConfigParser {
public:
    struct Directive {
        std::string name;
        std::vector<std::string> args;
        std::string file;
        int line = 0;
        bool block = false;
        std::vector<Directive> children;
    };

    // `prefix`: nginx's prefix (-p, or the built-in one), with or without the
    // trailing slash. Configuration files are read through `fs`.
    NginxConfigParser(const SDK::HostRoot& fs, const std::string& prefix);

    // Reads the main configuration file `confFile` (server namespace).
    ConfigScan ParseFile(const std::string& confFile);
    // The same for a text handed in; includes are relative to `confDir`.
    ConfigScan ParseStream(std::istream& in, const std::string& name, const std::string& confDir);

    // The directive tree of the last parse, includes expanded.
    const std::vector<Directive>& Tree() const { return m_tree; }

    static constexpr int kMaxIncludeDepth = 16;
    static constexpr size_t kMaxFiles = 512;
    static constexpr int kMaxBlockDepth = 64;

private:
    struct Source;
    struct Token;
    struct RootRef;

    void Reset(const std::string& confDir);
    void ParseText(const std::string& text, const std::string& file, int includeDepth,
                   std::vector<Directive>& out);
    bool NextToken(Source& src, Token& tok);
    void ParseBlock(Source& src, std::vector<Directive>& out, int blockDepth, bool inBlock);
    void ExpandInclude(const Directive& include, std::vector<Directive>& out, int includeDepth);
    // The root a "root" directive sets (an issue when it is malformed), else `inherited`.
    RootRef RootOf(const Directive* root, const RootRef& inherited);
    void Evaluate();
    void EvaluateServer(const Directive& server, const RootRef& inherited);
    void EvaluateLocation(const Directive& location, const RootRef& inherited);
    void Report(const RootRef& root, const std::string& origin);
    std::string Absolute(const std::string& path) const;

    const SDK::HostRoot& m_fs;
    std::string m_prefix;  // ends with "/"
    std::string m_confDir;
    ConfigScan m_scan;
    std::vector<Directive> m_tree;
    std::vector<std::string> m_includeStack;
    size_t m_fileCount = 0;
};

}  // namespace Asset
