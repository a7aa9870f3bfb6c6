#include "asset/NginxConfig.h"

#include <algorithm>
#include <iterator>
#include <sstream>

namespace Asset {

struct NginxConfigParser::Source {
    const std::string& text;
    std::string file;
    size_t pos = 0;
    int line = 1;
    int includeDepth = 0;
};

struct NginxConfigParser::Token {
    enum Type { WORD, SEMICOLON, OPEN, CLOSE, END };
    Type type = END;
    std::string text;
    int line = 0;
};

struct NginxConfigParser::RootRef {
    bool set = false;
    std::string path;
    std::string origin;
    std::string file;
    int line = 0;
};

namespace {

// nginx's escapes: \" \' \\ stand for the character, \t \r \n for the
// control character. Appends it and steps past; false for anything else.
bool TakeEscape(const std::string& t, size_t& pos, std::string& out)
{
    if (t[pos] != '\\' || pos + 1 >= t.size()) {
        return false;
    }
    const char next = t[pos + 1];
    if (next == '"' || next == '\'' || next == '\\') {
        out += next;
    } else if (next == 't' || next == 'r' || next == 'n') {
        out += next == 't' ? '\t' : (next == 'r' ? '\r' : '\n');
    } else {
        return false;
    }
    pos += 2;
    return true;
}

bool IsBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

const Asset::NginxConfigParser::Directive* FindChild(
    const std::vector<Asset::NginxConfigParser::Directive>& children, const std::string& name)
{
    for (const auto& d : children) {
        if (!d.block && d.name == name) {
            return &d;
        }
    }
    return nullptr;
}

// Locations that hand requests on instead of serving files need no
// built-in default root.
bool PassesRequestsOn(const std::vector<Asset::NginxConfigParser::Directive>& children)
{
    static const char* const kHandlers[] = {"proxy_pass", "grpc_pass", "return", "memcached_pass"};
    for (const char* h : kHandlers) {
        if (FindChild(children, h) != nullptr) {
            return true;
        }
    }
    return false;
}

}  // namespace

NginxConfigParser::NginxConfigParser(const SDK::HostRoot& fs, const std::string& prefix)
    : m_fs(fs), m_prefix(prefix.empty() ? "/" : prefix)
{
    if (m_prefix.back() != '/') {
        m_prefix += '/';
    }
}

void NginxConfigParser::Reset(const std::string& confDir)
{
    m_confDir = confDir;
    m_scan = ConfigScan();
    m_tree.clear();
    m_includeStack.clear();
    m_fileCount = 0;
}

ConfigScan NginxConfigParser::ParseFile(const std::string& confFile)
{
    Reset(SDK::HostRoot::DirName(confFile));
    std::string text;
    std::string error;
    if (!ReadConfigFile(m_fs, confFile, text, error)) {
        m_scan.AddIssue(confFile, 0, "cannot read the configuration file: " + error);
        return m_scan;
    }
    ParseText(text, confFile, 0, m_tree);
    Evaluate();
    return m_scan;
}

ConfigScan NginxConfigParser::ParseStream(std::istream& in, const std::string& name,
                                          const std::string& confDir)
{
    Reset(confDir);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ParseText(text, name, 0, m_tree);
    Evaluate();
    return m_scan;
}

void NginxConfigParser::ParseText(const std::string& text, const std::string& file,
                                  int includeDepth, std::vector<Directive>& out)
{
    ++m_fileCount;
    m_scan.files.push_back(file);
    m_includeStack.push_back(file);
    Source src{text, file};
    src.includeDepth = includeDepth;
    ParseBlock(src, out, 0, false);
    m_includeStack.pop_back();
}

bool NginxConfigParser::NextToken(Source& src, Token& tok)
{
    const std::string& t = src.text;
    for (;;) {
        while (src.pos < t.size() && IsBlank(t[src.pos])) {
            if (t[src.pos] == '\n') {
                ++src.line;
            }
            ++src.pos;
        }
        if (src.pos >= t.size()) {
            tok.type = Token::END;
            tok.line = src.line;
            return true;
        }
        if (t[src.pos] != '#') {
            break;
        }
        while (src.pos < t.size() && t[src.pos] != '\n') {
            ++src.pos;
        }
    }
    tok.text.clear();
    tok.line = src.line;
    const char c = t[src.pos];
    if (c == ';' || c == '{' || c == '}') {
        tok.type = c == ';' ? Token::SEMICOLON : (c == '{' ? Token::OPEN : Token::CLOSE);
        ++src.pos;
        return true;
    }
    tok.type = Token::WORD;
    if (c == '"' || c == '\'') {
        ++src.pos;
        while (src.pos < t.size() && t[src.pos] != c) {
            char ch = t[src.pos];
            if (ch == '\n') {
                ++src.line;
            }
            if (TakeEscape(t, src.pos, tok.text)) {
                continue;
            }
            tok.text += ch;
            ++src.pos;
        }
        if (src.pos >= t.size()) {
            m_scan.AddIssue(src.file, tok.line, "unterminated quoted string");
            tok.type = Token::END;
            return false;
        }
        ++src.pos;  // closing quote
        return true;
    }
    bool inVariableBraces = false;
    while (src.pos < t.size()) {
        char ch = t[src.pos];
        if (!inVariableBraces && (IsBlank(ch) || ch == ';' || ch == '}')) {
            break;
        }
        if (ch == '{') {
            // "${name}" is a variable; any other "{" opens a block.
            if (!tok.text.empty() && tok.text.back() == '$') {
                inVariableBraces = true;
            } else {
                break;
            }
        } else if (ch == '}' && inVariableBraces) {
            inVariableBraces = false;
        }
        if (TakeEscape(t, src.pos, tok.text)) {
            continue;
        }
        if (ch == '\\' && src.pos + 1 < t.size()) {
            char next = t[src.pos + 1];
            tok.text += ch;
            tok.text += next;
            if (next == '\n') {
                ++src.line;
            }
            src.pos += 2;
            continue;
        }
        if (ch == '\n') {
            ++src.line;
        }
        tok.text += ch;
        ++src.pos;
    }
    return true;
}

void NginxConfigParser::ParseBlock(Source& src, std::vector<Directive>& out, int blockDepth,
                                   bool inBlock)
{
    std::vector<std::string> words;
    int firstLine = 0;
    Token tok;
    auto finish = [&]() {
        Directive d;
        d.name = words[0];
        d.args.assign(words.begin() + 1, words.end());
        d.file = src.file;
        d.line = firstLine;
        words.clear();
        if (d.name == "include") {
            ExpandInclude(d, out, src.includeDepth);
        } else {
            out.push_back(std::move(d));
        }
    };
    for (;;) {
        if (!NextToken(src, tok)) {
            src.pos = src.text.size();  // an unterminated quote swallows the rest
        }
        switch (tok.type) {
        case Token::WORD:
            if (words.empty()) {
                firstLine = tok.line;
            }
            words.push_back(tok.text);
            break;
        case Token::SEMICOLON:
            if (words.empty()) {
                m_scan.AddIssue(src.file, tok.line, "unexpected \";\"");
            } else {
                finish();
            }
            break;
        case Token::OPEN: {
            Directive d;
            if (words.empty()) {
                m_scan.AddIssue(src.file, tok.line, "unexpected \"{\"");
                firstLine = tok.line;
            } else {
                d.name = words[0];
                d.args.assign(words.begin() + 1, words.end());
            }
            d.file = src.file;
            d.line = firstLine;
            d.block = true;
            words.clear();
            if (blockDepth + 1 > kMaxBlockDepth) {
                m_scan.AddIssue(src.file, tok.line,
                                "blocks nested deeper than " + std::to_string(kMaxBlockDepth) +
                                    "; the rest of the file is ignored");
                src.pos = src.text.size();
                return;
            }
            ParseBlock(src, d.children, blockDepth + 1, true);
            if (!d.name.empty()) {
                out.push_back(std::move(d));
            }
            break;
        }
        case Token::CLOSE:
            if (!words.empty()) {
                // Taken as if the ";" were there: the rest of the block is still used.
                m_scan.AddIssue(src.file, tok.line,
                                "unexpected \"}\" after \"" + words[0] + "\" (missing \";\"?)");
                finish();
            }
            if (inBlock) {
                return;
            }
            m_scan.AddIssue(src.file, tok.line, "unexpected \"}\"");
            break;
        case Token::END:
            if (!words.empty()) {
                m_scan.AddIssue(src.file, tok.line,
                                "unexpected end of file after \"" + words[0] + "\", expecting \";\"");
                finish();
            }
            if (inBlock) {
                m_scan.AddIssue(src.file, tok.line, "unexpected end of file, expecting \"}\"");
            }
            return;
        }
    }
}

void NginxConfigParser::ExpandInclude(const Directive& include, std::vector<Directive>& out,
                                      int includeDepth)
{
    if (include.args.size() != 1) {
        m_scan.AddIssue(include.file, include.line, "invalid number of arguments in \"include\"");
        return;
    }
    if (includeDepth + 1 > kMaxIncludeDepth) {
        m_scan.AddIssue(include.file, include.line,
                        "includes nested deeper than " + std::to_string(kMaxIncludeDepth) +
                            "; \"" + include.args[0] + "\" not read");
        return;
    }
    const std::string pattern = SDK::HostRoot::Join(m_confDir, include.args[0]);
    for (const auto& file : m_fs.Glob(pattern)) {
        if (std::find(m_includeStack.begin(), m_includeStack.end(), file) != m_includeStack.end()) {
            m_scan.AddIssue(include.file, include.line,
                            "include cycle: \"" + file + "\" is already being read");
            continue;
        }
        if (m_fileCount >= kMaxFiles) {
            m_scan.AddIssue(include.file, include.line,
                            "more than " + std::to_string(kMaxFiles) +
                                " configuration files; \"" + file + "\" not read");
            return;
        }
        std::string text;
        std::string error;
        if (!ReadConfigFile(m_fs, file, text, error)) {
            m_scan.AddIssue(include.file, include.line,
                            "cannot read included file \"" + file + "\": " + error);
            continue;
        }
        ParseText(text, file, includeDepth + 1, out);
    }
}

std::string NginxConfigParser::Absolute(const std::string& path) const
{
    return SDK::HostRoot::StripTrailingSlash(SDK::HostRoot::Join(m_prefix, path));
}

void NginxConfigParser::Report(const RootRef& root, const std::string& origin)
{
    std::string literal = LiteralDirPart(root.path);
    if (literal.empty()) {
        m_scan.AddIssue(root.file, root.line,
                        "\"" + root.origin + " " + root.path +
                            "\" has no literal directory before its variables; not reported");
        return;
    }
    m_scan.AddDir(WebDir{Absolute(literal), origin, root.file, root.line});
}

NginxConfigParser::RootRef NginxConfigParser::RootOf(const Directive* root, const RootRef& inherited)
{
    if (root == nullptr) {
        return inherited;
    }
    if (root->args.size() != 1) {
        m_scan.AddIssue(root->file, root->line, "invalid number of arguments in \"root\"");
        return inherited;
    }
    return RootRef{true, root->args[0], "root", root->file, root->line};
}

void NginxConfigParser::Evaluate()
{
    for (const auto& top : m_tree) {
        if (!top.block || top.name != "http") {
            continue;
        }
        const RootRef httpRoot = RootOf(FindChild(top.children, "root"), RootRef());
        for (const auto& child : top.children) {
            if (child.block && child.name == "server") {
                EvaluateServer(child, httpRoot);
            }
        }
    }
}

void NginxConfigParser::EvaluateServer(const Directive& server, const RootRef& inherited)
{
    const Directive* root = FindChild(server.children, "root");
    const RootRef effective = RootOf(root, inherited);
    bool hasLocations = false;
    for (const auto& child : server.children) {
        hasLocations = hasLocations || (child.block && child.name == "location");
    }
    if (effective.set) {
        Report(effective, "root");
    } else if (!hasLocations && root == nullptr) {
        // A broken root is not replaced by the default: the operator meant another one.
        Report(RootRef{true, "html", "root", server.file, server.line}, "default root");
    }
    for (const auto& child : server.children) {
        if (child.block && child.name == "location") {
            EvaluateLocation(child, effective);
        }
    }
}

void NginxConfigParser::EvaluateLocation(const Directive& location, const RootRef& inherited)
{
    RootRef effective = inherited;
    const Directive* alias = FindChild(location.children, "alias");
    const Directive* root = FindChild(location.children, "root");
    if (alias != nullptr && alias->args.size() == 1) {
        effective = RootRef{true, alias->args[0], "alias", alias->file, alias->line};
        Report(effective, "alias");
    } else if (root != nullptr && root->args.size() == 1) {
        effective = RootRef{true, root->args[0], "root", root->file, root->line};
        Report(effective, "root");
    } else {
        if (alias != nullptr) {
            m_scan.AddIssue(alias->file, alias->line, "invalid number of arguments in \"alias\"");
        }
        if (root != nullptr) {
            m_scan.AddIssue(root->file, root->line, "invalid number of arguments in \"root\"");
        }
        if (inherited.set) {
            Report(inherited, inherited.origin);
        } else if (alias == nullptr && root == nullptr && !PassesRequestsOn(location.children)) {
            Report(RootRef{true, "html", "root", location.file, location.line}, "default root");
        }
    }
    for (const auto& child : location.children) {
        if (child.block && (child.name == "location" || child.name == "if")) {
            EvaluateLocation(child, effective);
        }
    }
}

}  // namespace Asset
