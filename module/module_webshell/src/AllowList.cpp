#include "webshell/AllowList.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <map>
#include <sstream>

#include <json/json.h>

#include "framework/Health.h"
#include "framework/StatusBoard.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"
#include "sdk/Posix.h"

namespace Engine {

namespace {

const char* const kSource = "module/module_webshell/src/AllowList";
const char* const kModuleName = "webshell_module";
const char* const kHealthKey = "webshell.allow_list";
const char* const kStatusKey = "webshell.allow_list";
const char* const kListSuffix = ".list";
// A list is a hand-written file: anything larger is a mistake, not a list.
const size_t kMaxListBytes = 4u << 20;
const size_t kMaxPatternBytes = 4096;
const size_t kMaxRuleNameBytes = 128;

Poco::Logger* Logger()
{
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger(kModuleName, false);
}

std::string Trim(const std::string& text)
{
    const auto first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos) {
        return std::string();
    }
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// Each checker returns "" for a good value, else why it is refused.
std::string CheckGlob(const std::string& glob)
{
    if (glob.empty()) {
        return "an empty path glob";
    }
    if (glob.size() > kMaxPatternBytes) {
        return "a path glob longer than " + std::to_string(kMaxPatternBytes) + " bytes";
    }
    if (glob[0] != '/' && glob[0] != '*') {
        return "path glob \"" + glob + "\" is not absolute (it matches whole paths: start it with / or **)";
    }
    for (char c : glob) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
            return "path glob holds a control character";
        }
    }
    return std::string();
}

std::string CheckSha256(std::string& hex)
{
    std::transform(hex.begin(), hex.end(), hex.begin(), [](unsigned char c) { return std::tolower(c); });
    if (hex.size() != 64 || hex.find_first_not_of("0123456789abcdef") != std::string::npos) {
        return "\"" + hex + "\" is not a SHA-256 (64 hexadecimal digits)";
    }
    return std::string();
}

std::string CheckRule(const std::string& rule)
{
    const bool identifier =
        !rule.empty() && rule.size() <= kMaxRuleNameBytes && !std::isdigit(static_cast<unsigned char>(rule[0])) &&
        std::all_of(rule.begin(), rule.end(), [](unsigned char c) { return std::isalnum(c) || c == '_'; });
    return identifier ? std::string() : "\"" + rule + "\" is not a rule name (letters, digits and _)";
}

// The state of the directory and of each list in it: a change of any
// rewrites it. A missing directory is a state too.
std::string Signature(const std::string& dir, std::vector<std::string>& lists)
{
    std::ostringstream out;
    std::vector<SDK::DirEntry> entries;
    if (!SDK::ListDirectory(dir, entries).ok()) {
        return "none";
    }
    for (const auto& entry : entries) {
        const std::string& name = entry.name;
        if (name.size() <= strlen(kListSuffix) ||
            name.compare(name.size() - strlen(kListSuffix), std::string::npos, kListSuffix) != 0) {
            continue;
        }
        struct stat st;
        const std::string path = dir + name;
        if (::stat(path.c_str(), &st) != 0) {
            continue;
        }
        lists.push_back(path);
        out << name << ' ' << st.st_ino << ' ' << st.st_size << ' ' << st.st_mtim.tv_sec << '.'
            << st.st_mtim.tv_nsec << '\n';
    }
    return out.str();
}

}  // namespace

AllowEntries AllowList::FromPolicy(const Json::Value& allow, std::vector<std::string>& errors,
                                   std::vector<std::string>& warnings)
{
    AllowEntries out;
    if (allow.isNull()) {
        return out;
    }
    if (!allow.isObject()) {
        errors.push_back("content.allow must be an object of \"paths\", \"sha256\" and \"rules\" arrays");
        return out;
    }
    for (const auto& key : allow.getMemberNames()) {
        if (key != "paths" && key != "sha256" && key != "rules") {
            warnings.push_back("unknown key content.allow." + key + " ignored (paths, sha256 or rules)");
        }
    }
    for (const char* key : {"paths", "sha256", "rules"}) {
        const std::string name = std::string("content.allow.") + key;
        const Json::Value& list = allow[key];
        if (list.isNull()) {
            continue;
        }
        if (!list.isArray()) {
            errors.push_back(name + " must be an array of strings");
            continue;
        }
        for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
            const std::string where = name + "[" + std::to_string(i) + "]";
            if (!list[i].isString()) {
                errors.push_back(where + " must be a string");
                continue;
            }
            std::string value = list[i].asString();
            const std::string key0(key);
            const std::string why = key0 == "paths"    ? CheckGlob(value)
                                    : key0 == "sha256" ? CheckSha256(value)
                                                       : CheckRule(value);
            if (!why.empty()) {
                errors.push_back(where + ": " + why);
            } else if (key0 == "paths") {
                out.paths.push_back(value);
            } else if (key0 == "sha256") {
                out.sha256.insert(value);
            } else {
                out.rules.insert(value);
            }
        }
    }
    return out;
}

AllowEntries AllowList::FromListText(const std::string& text, const std::string& file,
                                     std::vector<std::string>& problems)
{
    AllowEntries out;
    std::istringstream in(text);
    std::string raw;
    for (int number = 1; std::getline(in, raw); ++number) {
        const std::string line = Trim(raw);
        if (line.empty() || line[0] == '#') {
            continue;
        }
        const auto colon = line.find(':');
        const std::string kind = colon == std::string::npos ? std::string() : line.substr(0, colon);
        std::string value = colon == std::string::npos ? std::string() : Trim(line.substr(colon + 1));
        std::string why;
        if (kind == "path") {
            why = CheckGlob(value);
            if (why.empty()) {
                out.paths.push_back(value);
            }
        } else if (kind == "sha256") {
            why = CheckSha256(value);
            if (why.empty()) {
                out.sha256.insert(value);
            }
        } else if (kind == "rule") {
            why = CheckRule(value);
            if (why.empty()) {
                out.rules.insert(value);
            }
        } else {
            why = "no path:, sha256: or rule: before the entry";
        }
        if (!why.empty()) {
            problems.push_back(file + ":" + std::to_string(number) + ": " + why + "; line skipped");
        }
    }
    return out;
}

// Dynamic programming over (pattern position, path position), one row per
// pattern position kept for the three rows ahead: linear memory and no
// backtracking blow-up on patterns with many stars.
bool AllowList::GlobMatch(const std::string& pattern, const std::string& path)
{
    const size_t p = pattern.size();
    const size_t s = path.size();
    // row(i)[j]: the pattern from position i matches the path from j.
    std::vector<std::vector<char>> rows(4, std::vector<char>(s + 1, 0));
    auto row = [&](size_t i) -> std::vector<char>& { return rows[i % 4]; };
    row(p).assign(s + 1, 0);
    row(p)[s] = 1;
    for (size_t i = p; i-- > 0;) {
        std::vector<char>& cur = row(i);
        const std::vector<char>& next = row(i + 1);
        const bool doubleStar = pattern[i] == '*' && i + 1 < p && pattern[i + 1] == '*';
        // "**/" is any run ending with "/", or nothing at all: whole directories.
        const bool dirStar = doubleStar && i + 2 < p && pattern[i + 2] == '/';
        char anyRun = 0;  // "**" then the rest of the pattern matches from j
        for (size_t j = s + 1; j-- > 0;) {
            char ok = 0;
            if (doubleStar) {
                anyRun = row(i + 2)[j] || anyRun;
                ok = anyRun || (dirStar && row(i + 3)[j]);
            } else if (pattern[i] == '*') {
                ok = next[j] || (j < s && path[j] != '/' && cur[j + 1]);
            } else if (j < s) {
                ok = (pattern[i] == '?' ? path[j] != '/' : pattern[i] == path[j]) && next[j + 1];
            }
            cur[j] = ok;
        }
    }
    return row(0)[0] != 0;
}

AllowList& AllowList::ForInstall(const std::string& installDir)
{
    static Poco::FastMutex mutex;
    static std::map<std::string, std::unique_ptr<AllowList>> lists;
    Poco::FastMutex::ScopedLock lock(mutex);
    std::unique_ptr<AllowList>& list = lists[installDir];
    if (!list) {
        list.reset(new AllowList(installDir + "etc/allow.d/"));
    }
    return *list;
}

AllowList::AllowList(const std::string& dir) : m_dir(dir), m_snapshot(std::make_shared<Snapshot>()) {}

std::shared_ptr<const AllowList::Snapshot> AllowList::Current() const
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    return m_snapshot;
}

void AllowList::Refresh()
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    std::vector<std::string> lists;
    const std::string signature = Signature(m_dir, lists);
    if (signature == m_snapshot->signature) {
        return;
    }
    auto next = std::make_shared<Snapshot>();
    next->signature = signature;
    for (const auto& path : lists) {
        std::string text;
        const SDK::ReadResult read = SDK::ReadRegularFile(path, kMaxListBytes, text, true);
        if (!read.ok()) {
            next->problems.push_back(path + ": cannot be read (" + read.reason + "); none of its entries is used");
            continue;
        }
        const AllowEntries found = FromListText(text, path, next->problems);
        next->entries.paths.insert(next->entries.paths.end(), found.paths.begin(), found.paths.end());
        next->entries.sha256.insert(found.sha256.begin(), found.sha256.end());
        next->entries.rules.insert(found.rules.begin(), found.rules.end());
        next->files.push_back(path);
    }
    Poco::Logger* logger = Logger();
    for (const auto& problem : next->problems) {
        SDK_LOG(logger, Poco::Message::PRIO_WARNING, kSource, "Allow-list %s.", problem);
    }
    SDK_LOG(logger, Poco::Message::PRIO_INFORMATION, kSource,
            "Allow-lists of %s read: %lu entries from %lu file(s), %lu line(s) skipped.", m_dir,
            static_cast<unsigned long>(next->entries.Size()), static_cast<unsigned long>(next->files.size()),
            static_cast<unsigned long>(next->problems.size()));
    if (next->problems.empty()) {
        Framework::Health::Clear(kHealthKey);
    } else {
        Framework::Health::Raise(kHealthKey, Framework::Health::Severity::Degraded,
                                 std::to_string(next->problems.size()) + " allow-list line(s) not used, first: " +
                                     next->problems.front());
    }
    m_snapshot = next;
    Publish(*next, m_allowed);
}

std::string AllowList::Allowing(const AllowEntries& policy, const std::string& path, const std::string& rule,
                                const std::function<const std::string&()>& digest) const
{
    const std::shared_ptr<const Snapshot> files = Current();
    const std::pair<const AllowEntries*, const char*> sources[] = {{&policy, "policy"},
                                                                    {&files->entries, "allow.d"}};
    for (const auto& source : sources) {
        if (source.first->rules.count(rule) != 0) {
            return std::string(source.second) + " rule:" + rule;
        }
        for (const auto& glob : source.first->paths) {
            if (GlobMatch(glob, path)) {
                return std::string(source.second) + " path:" + glob;
            }
        }
    }
    if (policy.sha256.empty() && files->entries.sha256.empty()) {
        return std::string();
    }
    const std::string& sha = digest();
    for (const auto& source : sources) {
        if (!sha.empty() && source.first->sha256.count(sha) != 0) {
            return std::string(source.second) + " sha256:" + sha;
        }
    }
    return std::string();
}

void AllowList::CountAllowed()
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    ++m_allowed;
    Publish(*m_snapshot, m_allowed);
}

// Under m_mutex.
void AllowList::Publish(const Snapshot& snapshot, uint64_t allowed) const
{
    Json::Value v(Json::objectValue);
    v["dir"] = m_dir;
    v["files"] = Json::Value(Json::arrayValue);
    for (const auto& file : snapshot.files) {
        v["files"].append(file);
    }
    v["entries"] = Json::UInt64(snapshot.entries.Size());
    v["problems"] = Json::Value(Json::arrayValue);
    for (const auto& problem : snapshot.problems) {
        v["problems"].append(problem);
    }
    v["allowed"] = Json::UInt64(allowed);
    Framework::StatusBoard::Publish(kStatusKey, v);
}

bool AllowMatch(const std::string& installDir, const AllowEntries& policy, const std::string& path,
                const std::string& rule, const std::function<const std::string&()>& digest)
{
    AllowList& list = AllowList::ForInstall(installDir);
    list.Refresh();
    const std::string entry = list.Allowing(policy, path, rule, digest);
    if (entry.empty()) {
        return false;
    }
    list.CountAllowed();
    SDK_LOG(Logger(), Poco::Message::PRIO_DEBUG, kSource, "Match of rule %s on %s allowed by %s: not reported.", rule,
            path, entry);
    return true;
}

}  // namespace Engine
