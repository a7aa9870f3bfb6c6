#pragma once
// libyara wrapper: one compiled rule set per object (or shared between
// objects, ShareRulesOf), scanned by the owner.
//
// Threads: an object is used by one thread at a time (each scan task owns
// one, and each scanning thread of a threaded pass). It keeps one libyara
// scanner, made when rules load and reused for every buffer, and the
// scanner's variables and callback belong to the scan in progress.
//
// External variables. Every library gets these, defined on the compiler
// before rule source is added and set before each scan, so rules written
// for public rule sets compile and can look at them:
//   filepath         string   full path of the file as scanned
//   filename         string   its last path component
//   extension        string   text after the last "." of the name, lower case ("" if none)
//   filetype         string   "PHP", "JSP", "ASP", "ASPX", "CFM", "PERL", "PYTHON",
//                             "SHELL", "HTML" or "OTHER", from the extension
//   layer_depth      integer  0 for the file itself, N for a layer N decoding steps deep
//   longest_line     integer  bytes of the longest line of the scanned buffer
//   control_pct      integer  0..100, share of control bytes (below 0x20 other
//                             than tab, CR, LF; and 0x7f)
//   longest_literal  integer  length of the longest '...' or "..." literal on one line
//   literal_entropy  float    Shannon entropy (bits per byte) of that literal,
//                             0.0 when it is shorter than 32 bytes
// A compiled (yarac) library built without them still loads; setting a
// variable it does not know is skipped.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

struct YR_RULES;
struct YR_SCAN_CONTEXT;  // libyara's YR_SCANNER

namespace SDK {

// What the rules are told about the buffer they scan.
struct ScanContext {
    std::string filepath;
    std::string filename;
    std::string extension;
    std::string filetype;
    int64_t layerDepth = 0;
    int64_t longestLine = 0;
    int64_t controlPct = 0;
    int64_t longestLiteral = 0;
    double literalEntropy = 0.0;

    // The path fields for `path`; the buffer signals stay zero.
    static ScanContext ForPath(const std::string& path);
    // Sets the buffer signals (longest line, control share, longest literal
    // and its entropy) from `data`: one pass over it.
    void Measure(const char* data, std::size_t size);
};

class YaraUtils {
public:
    // YARA's scan callback convention: (context, message, messageData, userData).
    using Callback = int (*)(void* context, int message, void* messageData, void* userData);

    explicit YaraUtils(Callback callback);
    ~YaraUtils();
    YaraUtils(const YaraUtils&) = delete;
    YaraUtils& operator=(const YaraUtils&) = delete;

    // Accepts compiled rules (yarac output) and rule source. Compile errors
    // are logged with file and line. false leaves the rules loaded before
    // (if any) in force: new rules replace them only once they are ready.
    bool LoadRuleFromFile(const std::string& path);
    // Scans from here on with the rules `source` has loaded (shared, with a
    // scanner of this object's own, so each object still belongs to one
    // thread); the rules live while any object uses them. false, keeping
    // the rules in force, when `source` has none or no scanner can be made.
    bool ShareRulesOf(const YaraUtils& source);
    // Drops the loaded rules; harmless when none are loaded.
    void CleanUsedRules();
    bool HasRules() const;

    // Scans one regular file with the loaded rules, calling the callback with
    // `userData` for each matching rule. `timeout` is in seconds. The path is
    // opened with O_NONBLOCK and checked with fstat: anything but a regular
    // file (FIFO, socket, device) is refused without being read or waited on.
    // The variables are computed from the path and the content. false when
    // there are no rules, the file cannot be opened or the scan failed (a
    // timeout too; LastError says which). A callback that stops the scan
    // early (CALLBACK_ABORT) still makes a successful scan. timeout <= 0: none.
    bool CheckFile(const std::string& path, void* userData, int timeout);
    // The same for a file the caller opened (a walk opens files relative to
    // their directory, so no path length limit applies); `name` names it in
    // LastError. Anything but a regular file is refused.
    bool CheckFd(int fd, const std::string& name, void* userData, int timeout);

    // Scans a buffer already in memory with the variables of `context`
    // (whose filepath names it in errors); otherwise as CheckFile.
    //
    // Memory: a buffer over 64 KiB is first scanned in fast mode (one match
    // per string: the same rules match). Without a match that is all; with
    // one it is scanned again in full when its string matches, counted
    // 64 KiB at a time, stay within a budget, and in fast mode otherwise
    // (OverMatchBudget). `timeout` covers these scans together.
    bool CheckBuffer(const void* data, std::size_t size, void* userData, int timeout,
                     const ScanContext& context);

    // The last error text (for logs).
    const std::string& LastError() const { return m_lastError; }
    // The last failed check stopped at its time limit (not another error).
    bool TimedOut() const { return m_timedOut; }
    // The last check had more string matches than libyara is allowed to
    // keep: it decided the rules as ever, but quoted the first match of each
    // string rather than the last.
    bool OverMatchBudget() const { return m_overBudget; }

private:
    using RawCallback = int (*)(YR_SCAN_CONTEXT*, int, void*, void*);
    bool Scan(const void* data, std::size_t size, int fd, void* userData, int timeout,
              const ScanContext& context);
    // One libyara scan; `limit` is the file's whole time limit, for the error text.
    bool ScanOnce(const void* data, std::size_t size, int fd, RawCallback callback, void* userData, int flags,
                  int seconds, int limit, const ScanContext& context);

    Callback m_callback;
    std::shared_ptr<YR_RULES> m_rules;
    YR_SCAN_CONTEXT* m_scanner = nullptr;
    std::string m_lastError;
    bool m_timedOut = false;
    bool m_overBudget = false;
};

}  // namespace SDK
