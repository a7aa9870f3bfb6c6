#include "asset/ApacheConfig.h"

#include <algorithm>
#include <cctype>
#include <iterator>

namespace Asset {

namespace {

bool IsSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v';
}

std::string Lower(std::string s)
{
    std::transform(s.begin(), s.end(), s.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

std::string Trim(const std::string& s)
{
    size_t b = 0;
    size_t e = s.size();
    while (b < e && IsSpace(s[b])) {
        ++b;
    }
    while (e > b && IsSpace(s[e - 1])) {
        --e;
    }
    return s.substr(b, e - b);
}

bool ValidName(const std::string& name)
{
    if (name.empty()) {
        return false;
    }
    for (unsigned char c : name) {
        if (!std::isalnum(c) && c != '_') {
            return false;
        }
    }
    return true;
}

}  // namespace

ApacheConfigParser::ApacheConfigParser(const SDK::HostRoot& fs, const std::string& serverRoot,
                                       const std::map<std::string, std::string>& environment)
    : m_fs(fs), m_serverRoot(SDK::HostRoot::StripTrailingSlash(serverRoot)), m_environment(environment)
{
}

void ApacheConfigParser::Define(const std::string& name, const std::string& value)
{
    m_defines[name] = value;
}

std::vector<std::string> ApacheConfigParser::SplitArgs(const std::string& line)
{
    std::vector<std::string> out;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && IsSpace(line[i])) {
            ++i;
        }
        if (i >= line.size()) {
            break;
        }
        std::string word;
        const char quote = line[i];
        if (quote == '"' || quote == '\'') {
            ++i;
            while (i < line.size() && line[i] != quote) {
                // Only the quote itself (and a backslash before it) is escaped.
                if (line[i] == '\\' && i + 1 < line.size() &&
                    (line[i + 1] == quote || line[i + 1] == '\\')) {
                    ++i;
                }
                word += line[i++];
            }
            if (i < line.size()) {
                ++i;  // closing quote
            }
        } else {
            while (i < line.size() && !IsSpace(line[i])) {
                word += line[i++];
            }
        }
        out.push_back(word);
    }
    return out;
}

std::map<std::string, std::string> ApacheConfigParser::ParseEnvVars(const std::string& text)
{
    std::map<std::string, std::string> out;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string::npos) {
            end = text.size();
        }
        std::string line = Trim(text.substr(pos, end - pos));
        pos = end + 1;
        if (line.compare(0, 7, "export ") != 0) {
            continue;
        }
        line = Trim(line.substr(7));
        size_t eq = line.find('=');
        if (eq == std::string::npos || !ValidName(line.substr(0, eq))) {
            continue;
        }
        std::string name = line.substr(0, eq);
        std::string value = line.substr(eq + 1);
        if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
            value.back() == value.front()) {
            value = value.substr(1, value.size() - 2);
        }
        // The suffix names a second instance (/etc/apache2-NAME); the main one has none.
        for (const char* suffix : {"${SUFFIX}", "$SUFFIX"}) {
            size_t at;
            while ((at = value.find(suffix)) != std::string::npos) {
                value.erase(at, std::char_traits<char>::length(suffix));
            }
        }
        out[name] = value;
    }
    return out;
}

ConfigScan ApacheConfigParser::ParseFile(const std::string& confFile,
                                         const std::vector<std::string>& before,
                                         const std::vector<std::string>& after)
{
    m_scan = ConfigScan();
    m_includeStack.clear();
    m_sections.clear();
    m_fileCount = 0;
    int n = 0;
    for (const auto& line : before) {
        HandleLine(line, "<command line -C>", ++n, 0);
    }
    IncludeOne(confFile, false, "<command line>", 0, -1);
    n = 0;
    for (const auto& line : after) {
        HandleLine(line, "<command line -c>", ++n, 0);
    }
    return m_scan;
}

ConfigScan ApacheConfigParser::ParseStream(std::istream& in, const std::string& name)
{
    m_scan = ConfigScan();
    m_includeStack.clear();
    m_sections.clear();
    m_fileCount = 0;
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ParseText(text, name, 0);
    return m_scan;
}

void ApacheConfigParser::ParseText(const std::string& text, const std::string& file,
                                   int includeDepth)
{
    ++m_fileCount;
    m_scan.files.push_back(file);
    m_includeStack.push_back(file);
    const size_t sectionsAtStart = m_sections.size();
    size_t pos = 0;
    int lineNo = 0;
    while (pos < text.size()) {
        // One logical line: a trailing backslash joins the next physical line.
        std::string logical;
        const int startLine = lineNo + 1;
        for (;;) {
            size_t end = text.find('\n', pos);
            if (end == std::string::npos) {
                end = text.size();
            }
            std::string physical = text.substr(pos, end - pos);
            pos = end + 1;
            ++lineNo;
            if (!physical.empty() && physical.back() == '\r') {
                physical.pop_back();
            }
            if (!physical.empty() && physical.back() == '\\' && pos <= text.size()) {
                physical.pop_back();
                logical += physical;
                if (pos >= text.size()) {
                    break;
                }
                continue;
            }
            logical += physical;
            break;
        }
        HandleLine(logical, file, startLine, includeDepth);
    }
    while (m_sections.size() > sectionsAtStart) {
        m_scan.AddIssue(file, lineNo, "<" + m_sections.back() + "> is not closed in this file");
        m_sections.pop_back();
    }
    m_includeStack.pop_back();
}

std::string ApacheConfigParser::Substitute(const std::string& line, const std::string& file,
                                           int lineNo)
{
    std::string out;
    size_t pos = 0;
    while (pos < line.size()) {
        size_t start = line.find("${", pos);
        if (start == std::string::npos) {
            out += line.substr(pos);
            break;
        }
        size_t end = line.find('}', start + 2);
        if (end == std::string::npos) {
            out += line.substr(pos);
            break;
        }
        out += line.substr(pos, start - pos);
        const std::string name = line.substr(start + 2, end - start - 2);
        auto def = m_defines.find(name);
        if (def != m_defines.end()) {
            out += def->second;
        } else {
            auto env = m_environment.find(name);
            if (env != m_environment.end()) {
                out += env->second;
            } else {
                m_scan.AddIssue(file, lineNo, "variable ${" + name + "} is not defined");
                out += line.substr(start, end - start + 1);
            }
        }
        pos = end + 1;
    }
    return out;
}

void ApacheConfigParser::HandleLine(const std::string& raw, const std::string& file, int lineNo,
                                    int includeDepth)
{
    std::string line = Trim(raw);
    if (line.empty() || line[0] == '#') {
        return;
    }
    if (line[0] == '<') {
        if (line.size() > 1 && line[1] == '/') {
            const size_t gt = line.find('>');
            std::string name =
                Lower(Trim(line.substr(2, gt == std::string::npos ? std::string::npos : gt - 2)));
            if (m_sections.empty() || Lower(m_sections.back()) != name) {
                m_scan.AddIssue(file, lineNo,
                                "</" + name + "> without a matching opening section");
            } else {
                m_sections.pop_back();
            }
            return;
        }
        std::string inner = line.substr(1);
        if (!inner.empty() && inner.back() == '>') {
            inner.pop_back();
        } else {
            m_scan.AddIssue(file, lineNo, "section line without a closing \">\"");
        }
        auto words = SplitArgs(inner);
        if (!words.empty()) {
            m_sections.push_back(words[0]);
        }
        return;
    }
    // Define and UnDefine take effect before their own line is substituted.
    auto rawWords = SplitArgs(line);
    const std::string name = Lower(rawWords[0]);
    if (name == "define" || name == "undefine") {
        if (rawWords.size() < 2 || rawWords.size() > 3) {
            m_scan.AddIssue(file, lineNo, rawWords[0] + " takes one or two arguments");
            return;
        }
        if (name == "undefine") {
            m_defines.erase(rawWords[1]);
        } else {
            m_defines[rawWords[1]] =
                rawWords.size() == 3 ? Substitute(rawWords[2], file, lineNo) : std::string();
        }
        return;
    }
    auto words = SplitArgs(Substitute(line, file, lineNo));
    if (words.empty()) {
        return;
    }
    if (name == "serverroot") {
        if (words.size() != 2) {
            m_scan.AddIssue(file, lineNo, "ServerRoot takes one argument");
            return;
        }
        m_serverRoot = SDK::HostRoot::StripTrailingSlash(words[1]);
    } else if (name == "include" || name == "includeoptional") {
        if (words.size() != 2) {
            m_scan.AddIssue(file, lineNo, words[0] + " takes one argument");
            return;
        }
        Include(words[1], name == "includeoptional", file, lineNo, includeDepth);
    } else if (name == "documentroot") {
        if (words.size() != 2) {
            m_scan.AddIssue(file, lineNo, "DocumentRoot takes one argument");
            return;
        }
        Report(words[1], "DocumentRoot", file, lineNo);
    } else if (name == "alias" || name == "aliasmatch") {
        if (words.size() < 2 || words.size() > 3) {
            m_scan.AddIssue(file, lineNo, words[0] + " takes a URL path and a directory");
            return;
        }
        Report(words.back(), name == "alias" ? "Alias" : "AliasMatch", file, lineNo);
    }
}

void ApacheConfigParser::Report(const std::string& path, const std::string& origin,
                                const std::string& file, int lineNo)
{
    std::string literal = LiteralDirPart(path);
    if (literal.empty()) {
        m_scan.AddIssue(file, lineNo,
                        origin + " \"" + path + "\" has no literal directory; not reported");
        return;
    }
    std::string abs = SDK::HostRoot::StripTrailingSlash(SDK::HostRoot::Join(m_serverRoot, literal));
    m_scan.AddDir(WebDir{abs, origin, file, lineNo});
}

void ApacheConfigParser::Include(const std::string& pattern, bool optional,
                                 const std::string& file, int lineNo, int includeDepth)
{
    if (includeDepth + 1 > kMaxIncludeDepth) {
        m_scan.AddIssue(file, lineNo,
                        "includes nested deeper than " + std::to_string(kMaxIncludeDepth) + "; \"" +
                            pattern + "\" not read");
        return;
    }
    const std::string abs = SDK::HostRoot::Join(m_serverRoot, pattern);
    if (SDK::HostRoot::HasGlob(abs)) {
        auto matches = m_fs.Glob(abs);
        if (matches.empty() && !optional) {
            m_scan.AddIssue(file, lineNo, "Include \"" + abs + "\" matches no file");
        }
        for (const auto& m : matches) {
            IncludeOne(m, optional, file, lineNo, includeDepth);
        }
        return;
    }
    IncludeOne(abs, optional, file, lineNo, includeDepth);
}

void ApacheConfigParser::IncludeOne(const std::string& path, bool optional,
                                    const std::string& file, int lineNo, int includeDepth)
{
    std::vector<std::string> files;
    if (m_fs.IsDirectory(path)) {
        files = m_fs.FilesUnder(path, kMaxFiles);
    } else {
        files.push_back(path);
    }
    for (const auto& f : files) {
        if (std::find(m_includeStack.begin(), m_includeStack.end(), f) != m_includeStack.end()) {
            m_scan.AddIssue(file, lineNo, "include cycle: \"" + f + "\" is already being read");
            continue;
        }
        if (m_fileCount >= kMaxFiles) {
            m_scan.AddIssue(file, lineNo,
                            "more than " + std::to_string(kMaxFiles) +
                                " configuration files; \"" + f + "\" not read");
            return;
        }
        std::string text;
        std::string error;
        if (!ReadConfigFile(m_fs, f, text, error)) {
            if (!optional) {
                m_scan.AddIssue(lineNo == 0 ? f : file, lineNo,
                                "cannot read configuration file \"" + f + "\": " + error);
            }
            continue;
        }
        ParseText(text, f, includeDepth + 1);
    }
}

}  // namespace Asset
