#pragma once
// Matches the operator has declared known and wanted: by path glob, by
// SHA-256 of the content, or by rule name. An allowed match is neither an
// event nor an upload, and is never quarantined.
//
// Two sources, both consulted on every match:
//   - the policy, "content.allow": {"paths": [...], "sha256": [...], "rules": [...]}
//   - <install>/etc/allow.d/*.list, one entry a line: "path:GLOB", "sha256:HEX"
//     or "rule:NAME"; "#" starts a comment line; blank lines are ignored. A
//     malformed line is reported with its file and line number and skipped,
//     the rest of the file is used. The files are read again when any of them
//     (or the directory) changed.
//
// Path globs match the whole absolute path of the file: "*" any run of
// characters but "/", "?" one character but "/", "**" any run including "/",
// and "**/" also zero directories ("/srv/**/cache/*.php" matches
// "/srv/cache/a.php"). Every other character stands for itself.
//
// Threads: Allowing is const and may run on any number of scanning threads
// at once; Refresh swaps in a new snapshot under the lock.

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <Poco/Mutex.h>

namespace Json {
class Value;
}

namespace Engine {

struct AllowEntries {
    std::vector<std::string> paths;  // globs
    std::set<std::string> sha256;    // lower-case hex
    std::set<std::string> rules;

    bool Empty() const { return paths.empty() && sha256.empty() && rules.empty(); }
    size_t Size() const { return paths.size() + sha256.size() + rules.size(); }
};

class AllowList {
public:
    // The policy's "content.allow" object; each problem goes to `errors`
    // naming its key (content.allow.sha256[2] ...), unknown keys to `warnings`.
    static AllowEntries FromPolicy(const Json::Value& allow, std::vector<std::string>& errors,
                                   std::vector<std::string>& warnings);
    // The text of one list file named `file`; a malformed line goes to
    // `problems` as "file:line: why" and is left out.
    static AllowEntries FromListText(const std::string& text, const std::string& file,
                                     std::vector<std::string>& problems);
    static bool GlobMatch(const std::string& pattern, const std::string& path);

    // The list of the installation `installDir` (ends with "/"), shared by
    // every task of the process.
    static AllowList& ForInstall(const std::string& installDir);

    explicit AllowList(const std::string& dir);
    AllowList(const AllowList&) = delete;
    AllowList& operator=(const AllowList&) = delete;

    // Reads the list files again when the directory or one of them changed
    // since the last read; malformed lines are logged at warning then (once
    // per change) and the health says so while they stay.
    void Refresh();

    // The entry that allows a match of `rule` on `path`, as the operator
    // wrote it with its source ("" when none does). `digest` gives the
    // content's SHA-256 and is called only when a sha256 entry exists.
    std::string Allowing(const AllowEntries& policy, const std::string& path, const std::string& rule,
                         const std::function<const std::string&()>& digest) const;

    // Counts one allowed match in status ("webshell.allow_list").
    void CountAllowed();

private:
    struct Snapshot {
        AllowEntries entries;
        std::string signature;  // of the files read
        std::vector<std::string> files;
        std::vector<std::string> problems;
    };
    std::shared_ptr<const Snapshot> Current() const;
    void Publish(const Snapshot& snapshot, uint64_t allowed) const;

    const std::string m_dir;
    mutable Poco::FastMutex m_mutex;
    std::shared_ptr<const Snapshot> m_snapshot;
    uint64_t m_allowed = 0;
};

// The scan's hook on a match of `rule` on `path`: true when an allow-list
// allows it (said at debug and counted). The lists of `installDir` are read
// again first if they changed; `digest` gives the SHA-256 of what matched.
bool AllowMatch(const std::string& installDir, const AllowEntries& policy, const std::string& path,
                const std::string& rule, const std::function<const std::string&()>& digest);

}  // namespace Engine
