#include "sdk/YaraUtils.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <initializer_list>
#include <mutex>

#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"
#include "sdk/Posix.h"
#include "sdk/RuleCheck.h"

// Last: libyara's headers define short macros (parent(), ...) that clash with Poco.
#include <yara.h>

namespace SDK {

namespace {

const char* const kSource = "sdk/src/YaraUtils";

std::once_flag g_yaraOnce;
int g_yaraInitResult = ERROR_SUCCESS;

// libyara keeps process-wide tables; they are set up once and kept for the
// life of the process (finalizing while another thread scans would be fatal).
bool EnsureYaraInitialized()
{
    std::call_once(g_yaraOnce, [] { g_yaraInitResult = yr_initialize(); });
    return g_yaraInitResult == ERROR_SUCCESS;
}

struct RulesDeleter {
    void operator()(YR_RULES* rules) const { yr_rules_destroy(rules); }
};
struct ScannerDeleter {
    void operator()(YR_SCANNER* scanner) const { yr_scanner_destroy(scanner); }
};
struct CompilerDeleter {
    void operator()(YR_COMPILER* compiler) const { yr_compiler_destroy(compiler); }
};
using RulesPtr = std::unique_ptr<YR_RULES, RulesDeleter>;
using ScannerPtr = std::unique_ptr<YR_SCANNER, ScannerDeleter>;
using CompilerPtr = std::unique_ptr<YR_COMPILER, CompilerDeleter>;

// Files up to this size are read and scanned from memory, so the variables
// can be measured on the content; larger ones are scanned from the file.
const std::size_t kInMemoryScanLimit = 64u << 20;

// The external variables (names fixed for rule authors).
const char* const kVarFilepath = "filepath";
const char* const kVarFilename = "filename";
const char* const kVarExtension = "extension";
const char* const kVarFiletype = "filetype";
const char* const kVarLayerDepth = "layer_depth";
const char* const kVarLongestLine = "longest_line";
const char* const kVarControlPct = "control_pct";
const char* const kVarLongestLiteral = "longest_literal";
const char* const kVarLiteralEntropy = "literal_entropy";

// A literal shorter than this has no meaningful entropy.
const std::size_t kEntropyMinLiteral = 32;

// Bytes below 0x20 other than tab, CR and LF, and DEL.
std::size_t CountControlBytes(const unsigned char* bytes, std::size_t size)
{
    // Bitwise, not short-circuit: no branch in the loop body.
    auto isControl = [](unsigned char c) -> unsigned char {
        return static_cast<unsigned char>(((c < 0x20) & (c != '\t') & (c != '\r') & (c != '\n')) | (c == 0x7f));
    };
    const std::size_t kBlock = 64;
    std::size_t control = 0;
    std::size_t i = 0;
    for (; i + kBlock <= size; i += kBlock) {
        unsigned char block = 0;  // at most kBlock
        for (std::size_t k = 0; k < kBlock; ++k) {
            block += isControl(bytes[i + k]);
        }
        control += block;
    }
    for (; i < size; ++i) {
        control += isControl(bytes[i]);
    }
    return control;
}

// The next position of one byte value at or after a point, searched with
// memchr and remembered, for a walk that only moves forward.
class NextByte {
public:
    NextByte(const unsigned char* bytes, std::size_t size, unsigned char value)
        : m_bytes(bytes), m_size(size), m_value(value)
    {
    }
    std::size_t From(std::size_t pos)
    {
        if (!m_found || m_next < pos) {
            m_found = true;
            const void* hit = pos < m_size ? memchr(m_bytes + pos, m_value, m_size - pos) : nullptr;
            m_next = hit == nullptr ? m_size : static_cast<const unsigned char*>(hit) - m_bytes;
        }
        return m_next;
    }

private:
    const unsigned char* m_bytes;
    std::size_t m_size;
    unsigned char m_value;
    std::size_t m_next = 0;
    bool m_found = false;
};

struct FileTypeGroup {
    const char* type;
    std::initializer_list<const char*> extensions;
};
const FileTypeGroup kFileTypes[] = {
    {"PHP", {"php", "php3", "php4", "php5", "php6", "php7", "php8", "phtml", "pht", "phar", "inc"}},
    {"JSP", {"jsp", "jspx", "jspf"}},
    {"ASP", {"asp", "asa", "cer"}},
    {"ASPX", {"aspx", "ashx", "asmx", "ascx", "asax", "svc"}},
    {"CFM", {"cfm", "cfml", "cfc"}},
    {"PERL", {"pl", "pm", "cgi"}},
    {"PYTHON", {"py"}},
    {"SHELL", {"sh"}},
    {"HTML", {"htm", "html", "shtml"}},
};

const char* FileTypeOf(const std::string& extension)
{
    for (const FileTypeGroup& group : kFileTypes) {
        for (const char* ext : group.extensions) {
            if (extension == ext) {
                return group.type;
            }
        }
    }
    return "OTHER";
}

// Defines the variables on a compiler; false names the one that failed.
bool DefineExternals(YR_COMPILER* compiler, std::string& failed)
{
    for (const char* name : {kVarFilepath, kVarFilename, kVarExtension, kVarFiletype}) {
        if (yr_compiler_define_string_variable(compiler, name, "") != ERROR_SUCCESS) {
            failed = name;
            return false;
        }
    }
    for (const char* name : {kVarLayerDepth, kVarLongestLine, kVarControlPct, kVarLongestLiteral}) {
        if (yr_compiler_define_integer_variable(compiler, name, 0) != ERROR_SUCCESS) {
            failed = name;
            return false;
        }
    }
    if (yr_compiler_define_float_variable(compiler, kVarLiteralEntropy, 0.0) != ERROR_SUCCESS) {
        failed = kVarLiteralEntropy;
        return false;
    }
    return true;
}

// Sets the variables on the scanner. A library compiled without a variable
// (or with another type for it) refuses it; that is fine.
void SetExternals(YR_SCANNER* scanner, const ScanContext& context)
{
    yr_scanner_define_string_variable(scanner, kVarFilepath, context.filepath.c_str());
    yr_scanner_define_string_variable(scanner, kVarFilename, context.filename.c_str());
    yr_scanner_define_string_variable(scanner, kVarExtension, context.extension.c_str());
    yr_scanner_define_string_variable(scanner, kVarFiletype, context.filetype.c_str());
    yr_scanner_define_integer_variable(scanner, kVarLayerDepth, context.layerDepth);
    yr_scanner_define_integer_variable(scanner, kVarLongestLine, context.longestLine);
    yr_scanner_define_integer_variable(scanner, kVarControlPct, context.controlPct);
    yr_scanner_define_integer_variable(scanner, kVarLongestLiteral, context.longestLiteral);
    yr_scanner_define_float_variable(scanner, kVarLiteralEntropy, context.literalEntropy);
}

std::string YaraErrorText(int code)
{
    switch (code) {
    case ERROR_SUCCESS: return "success";
    case ERROR_INSUFFICIENT_MEMORY: return "out of memory";
    case ERROR_COULD_NOT_OPEN_FILE: return "could not open file";
    case ERROR_COULD_NOT_MAP_FILE: return "could not map file";
    case ERROR_COULD_NOT_READ_FILE: return "could not read file";
    case ERROR_INVALID_FILE: return "not a compiled rules file";
    case ERROR_CORRUPT_FILE: return "corrupt compiled rules file";
    case ERROR_UNSUPPORTED_FILE_VERSION:
        return "compiled rules file of another YARA version";
    case ERROR_SCAN_TIMEOUT: return "scan timed out";
    case ERROR_TOO_MANY_SCAN_THREADS: return "too many threads scanning with one rule set";
    case ERROR_CALLBACK_ERROR: return "match callback reported an error";
    case ERROR_TOO_MANY_MATCHES: return "too many matches";
    case ERROR_EXEC_STACK_OVERFLOW: return "rule condition stack overflow";
    case ERROR_INTERNAL_FATAL_ERROR: return "internal YARA error";
    case ERROR_INVALID_ARGUMENT: return "invalid argument";
    case ERROR_CALLBACK_REQUIRED: return "no match callback";
    default: return "YARA error " + std::to_string(code);
    }
}

// yr_rules_load_stream over a descriptor the caller opened and checked.
size_t ReadFromFd(void* ptr, size_t size, size_t count, void* userData)
{
    if (size == 0 || count == 0) {
        return 0;
    }
    const int fd = *static_cast<int*>(userData);
    char* out = static_cast<char*>(ptr);
    const size_t wanted = size * count;
    size_t got = 0;
    while (got < wanted) {
        const ssize_t n = read(fd, out + got, wanted - got);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        got += static_cast<size_t>(n);
    }
    return got / size;
}

// Hands the scan callback to the owner's callback with the owner's user data.
struct ScanCall {
    YaraUtils::Callback callback;
    void* userData;
};

int ForwardScanCallback(YR_SCAN_CONTEXT* context, int message, void* messageData, void* userData)
{
    const auto* call = static_cast<const ScanCall*>(userData);
    if (call == nullptr || call->callback == nullptr) {
        return CALLBACK_CONTINUE;
    }
    return call->callback(context, message, messageData, call->userData);
}

// A buffer larger than this is scanned under the match budget; smaller ones
// (nearly every script) in one full scan, whose matches this size bounds.
const std::size_t kBudgetWindow = 64u << 10;
// String matches a buffer may have for a full scan; an ordinary page has a
// few hundred at most. About 60 bytes each (more with long matched data).
const uint64_t kMatchBudget = 20000;

struct MatchCount {
    uint64_t rules = 0;    // rules that matched
    uint64_t strings = 0;  // matches of all strings (full scan)
};

int CountRules(YR_SCAN_CONTEXT* context, int message, void* messageData, void* userData)
{
    (void)context;
    (void)messageData;
    if (message == CALLBACK_MSG_RULE_MATCHING) {
        ++static_cast<MatchCount*>(userData)->rules;
    }
    return CALLBACK_CONTINUE;
}

// The matches libyara recorded, read when the scan ends (before they are freed).
__attribute__((no_sanitize("alignment")))
int CountStrings(YR_SCAN_CONTEXT* context, int message, void* messageData, void* userData)
{
    (void)messageData;
    if (message == CALLBACK_MSG_SCAN_FINISHED && context != nullptr) {
        auto* count = static_cast<MatchCount*>(userData);
        const YR_RULE* rule = nullptr;
        yr_rules_foreach(context->rules, rule)
        {
            const YR_STRING* string = nullptr;
            yr_rule_strings_foreach(rule, string)
            {
                count->strings += static_cast<uint64_t>(context->matches[string->idx].count);
            }
        }
    }
    return CALLBACK_CONTINUE;
}

struct CompileLog {
    Poco::Logger* logger;
    std::string firstError;
    int errors = 0;
};

void OnCompileMessage(int errorLevel, const char* fileName, int lineNumber, const YR_RULE* rule,
                      const char* message, void* userData)
{
    (void)rule;
    auto* log = static_cast<CompileLog*>(userData);
    const std::string where = std::string(fileName != nullptr ? fileName : "<rules>") + ":" +
                              std::to_string(lineNumber);
    const std::string text = message != nullptr ? message : "";
    if (errorLevel == YARA_ERROR_LEVEL_ERROR) {
        if (log->errors++ == 0) {
            log->firstError = where + ": " + text;
        }
        SDK_LOG(log->logger, Poco::Message::PRIO_ERROR, kSource,
                "YARA rule compile error at %s: %s", where, text);
    } else {
        SDK_LOG(log->logger, Poco::Message::PRIO_WARNING, kSource,
                "YARA rule compile warning at %s: %s", where, text);
    }
}

}  // namespace

ScanContext ScanContext::ForPath(const std::string& path)
{
    ScanContext context;
    context.filepath = path;
    const std::string::size_type slash = path.rfind('/');
    context.filename = slash == std::string::npos ? path : path.substr(slash + 1);
    const std::string::size_type dot = context.filename.rfind('.');
    if (dot != std::string::npos) {
        context.extension = context.filename.substr(dot + 1);
        for (char& c : context.extension) {
            if (c >= 'A' && c <= 'Z') {
                c = static_cast<char>(c | 0x20);
            }
        }
    }
    context.filetype = FileTypeOf(context.extension);
    return context;
}

void ScanContext::Measure(const char* data, std::size_t size)
{
    longestLine = 0;
    controlPct = 0;
    longestLiteral = 0;
    literalEntropy = 0.0;
    if (size == 0) {
        return;
    }
    // Every file is measured before it is scanned, so this runs over every
    // byte the agent reads: memchr finds line breaks and quotes, and the
    // control count is a fixed-size loop the compiler turns into vector code.
    const auto* bytes = reinterpret_cast<const unsigned char*>(data);
    std::size_t longest = 0;
    for (std::size_t lineStart = 0;;) {
        const void* hit = memchr(bytes + lineStart, '\n', size - lineStart);
        const std::size_t lineEnd = hit == nullptr ? size : static_cast<const unsigned char*>(hit) - bytes;
        longest = std::max(longest, lineEnd - lineStart);
        if (hit == nullptr) {
            break;
        }
        lineStart = lineEnd + 1;
    }
    longestLine = static_cast<int64_t>(longest);
    controlPct = static_cast<int64_t>(CountControlBytes(bytes, size) * 100 / size);

    // Literals do not span lines here: an apostrophe in prose must not
    // open a "literal" that runs on for pages.
    std::size_t bestStart = 0;
    std::size_t bestLength = 0;
    NextByte nextDouble(bytes, size, '"');
    NextByte nextSingle(bytes, size, '\'');
    std::size_t i = 0;
    while (i < size) {
        i = std::min(nextDouble.From(i), nextSingle.From(i));
        if (i >= size) {
            break;
        }
        const unsigned char quote = bytes[i];
        std::size_t j = i + 1;
        while (j < size && bytes[j] != quote && bytes[j] != '\n') {
            j += (bytes[j] == '\\' && j + 1 < size && bytes[j + 1] != '\n') ? 2 : 1;
        }
        if (j < size && bytes[j] == quote) {
            if (j - i - 1 > bestLength) {
                bestStart = i + 1;
                bestLength = j - i - 1;
            }
            i = j + 1;
        } else {
            i = j;
        }
    }
    longestLiteral = static_cast<int64_t>(bestLength);
    if (bestLength >= kEntropyMinLiteral) {
        std::size_t counts[256] = {};
        for (std::size_t k = bestStart; k < bestStart + bestLength; ++k) {
            ++counts[bytes[k]];
        }
        double entropy = 0.0;
        for (const std::size_t count : counts) {
            if (count != 0) {
                const double p = static_cast<double>(count) / static_cast<double>(bestLength);
                entropy -= p * std::log2(p);
            }
        }
        literalEntropy = entropy;
    }
}

YaraUtils::YaraUtils(Callback callback) : m_callback(callback)
{
    if (!EnsureYaraInitialized()) {
        m_lastError = "YARA library initialisation failed: " + YaraErrorText(g_yaraInitResult);
    }
}

YaraUtils::~YaraUtils()
{
    CleanUsedRules();
}

void YaraUtils::CleanUsedRules()
{
    // The scanner refers to the rules: it goes first.
    ScannerPtr scanner(m_scanner);
    m_scanner = nullptr;
    scanner.reset();
    m_rules.reset();
}

bool YaraUtils::ShareRulesOf(const YaraUtils& source)
{
    if (source.m_rules == nullptr) {
        m_lastError = "no rules to share";
        return false;
    }
    YR_SCANNER* scanner = nullptr;
    const int result = yr_scanner_create(source.m_rules.get(), &scanner);
    if (result != ERROR_SUCCESS) {
        m_lastError = "cannot create a scanner: " + YaraErrorText(result);
        return false;
    }
    yr_scanner_set_flags(scanner, SCAN_FLAGS_REPORT_RULES_MATCHING);
    CleanUsedRules();
    m_rules = source.m_rules;
    m_scanner = scanner;
    m_lastError.clear();
    return true;
}

bool YaraUtils::HasRules() const
{
    return m_rules != nullptr;
}

// The new rules are built beside the loaded ones and take their place only
// once they compiled and got a scanner: a library that fails leaves the old
// rules in force.
bool YaraUtils::LoadRuleFromFile(const std::string& path)
{
    if (!EnsureYaraInitialized()) {
        m_lastError = "YARA library initialisation failed: " + YaraErrorText(g_yaraInitResult);
        return false;
    }
    Poco::Logger* logger = LoggerUtils::GetInstance()->GetRootLogger();

    UniqueFd fd;
    const ReadResult opened = OpenRegularFile(path, false, fd);
    if (!opened.ok()) {
        m_lastError = opened.error == ReadError::NotRegular ? "rule file " + path + " is not a regular file"
                                                            : "cannot open rule file " + opened.status.message();
        SDK_LOG(logger, Poco::Message::PRIO_ERROR, kSource, "Loading rules: %s", m_lastError);
        return false;
    }
    // A damaged compiled library could abort the process inside libyara.
    const Status checked = CheckCompiledRules(fd.Get(), path);
    if (!checked.ok()) {
        m_lastError = checked.message();
        SDK_LOG(logger, Poco::Message::PRIO_ERROR, kSource, "Loading rules: %s", m_lastError);
        return false;
    }

    // Compiled rules (yarac output) first.
    int fdValue = fd.Get();
    YR_STREAM stream {};
    stream.user_data = &fdValue;
    stream.read = ReadFromFd;
    YR_RULES* loaded = nullptr;
    const int loadResult = yr_rules_load_stream(&stream, &loaded);
    RulesPtr rules;
    if (loadResult == ERROR_SUCCESS) {
        rules.reset(loaded);
    } else if (loadResult != ERROR_INVALID_FILE) {
        m_lastError = "cannot load compiled rules " + path + ": " + YaraErrorText(loadResult);
        SDK_LOG(logger, Poco::Message::PRIO_ERROR, kSource, "Loading rules: %s", m_lastError);
        return false;
    } else {
        // Not a compiled file: compile it as rule source.
        if (lseek(fd.Get(), 0, SEEK_SET) != 0) {
            m_lastError = "cannot rewind rule file " + path + ": " + ErrnoText(errno);
            SDK_LOG(logger, Poco::Message::PRIO_ERROR, kSource, "Loading rules: %s", m_lastError);
            return false;
        }
        YR_COMPILER* rawCompiler = nullptr;
        const int createResult = yr_compiler_create(&rawCompiler);
        if (createResult != ERROR_SUCCESS) {
            m_lastError = "cannot create YARA compiler: " + YaraErrorText(createResult);
            SDK_LOG(logger, Poco::Message::PRIO_ERROR, kSource, "Loading rules: %s", m_lastError);
            return false;
        }
        CompilerPtr compiler(rawCompiler);
        std::string failed;
        if (!DefineExternals(compiler.get(), failed)) {
            m_lastError = "cannot define the variable " + failed + " for " + path;
            SDK_LOG(logger, Poco::Message::PRIO_ERROR, kSource, "Loading rules: %s", m_lastError);
            return false;
        }
        CompileLog log{logger, std::string(), 0};
        yr_compiler_set_callback(compiler.get(), OnCompileMessage, &log);
        const int errors = yr_compiler_add_fd(compiler.get(), fd.Get(), nullptr, path.c_str());
        if (errors > 0 || log.errors > 0) {
            m_lastError = "rule file " + path + " has " + std::to_string(errors > 0 ? errors : log.errors) +
                          " compile error(s), first: " + log.firstError;
            SDK_LOG(logger, Poco::Message::PRIO_ERROR, kSource, "Loading rules: %s; no rules loaded.",
                    m_lastError);
            return false;
        }
        const int getResult = yr_compiler_get_rules(compiler.get(), &loaded);
        if (getResult != ERROR_SUCCESS) {
            m_lastError = "cannot build rules from " + path + ": " + YaraErrorText(getResult);
            SDK_LOG(logger, Poco::Message::PRIO_ERROR, kSource, "Loading rules: %s", m_lastError);
            return false;
        }
        rules.reset(loaded);
    }

    // One scanner for the life of the rules: making one per file costs
    // more than scanning a small file.
    YR_SCANNER* scanner = nullptr;
    const int scannerResult = yr_scanner_create(rules.get(), &scanner);
    if (scannerResult != ERROR_SUCCESS) {
        m_lastError = "cannot create a scanner for " + path + ": " + YaraErrorText(scannerResult);
        SDK_LOG(logger, Poco::Message::PRIO_ERROR, kSource, "Loading rules: %s", m_lastError);
        return false;
    }
    // Only matching rules reach the callback.
    yr_scanner_set_flags(scanner, SCAN_FLAGS_REPORT_RULES_MATCHING);
    CleanUsedRules();
    m_rules.reset(rules.release(), RulesDeleter());
    m_scanner = scanner;
    m_lastError.clear();
    return true;
}

bool YaraUtils::CheckFile(const std::string& path, void* userData, int timeout)
{
    m_timedOut = false;
    if (m_rules == nullptr) {
        m_lastError = "no rules loaded, cannot scan " + path;
        return false;
    }
    // O_NONBLOCK: opening a FIFO or a device must not wait; fstat then refuses it.
    UniqueFd fd;
    const ReadResult opened = OpenRegularFile(path, false, fd);
    if (!opened.ok()) {
        m_lastError = opened.error == ReadError::NotRegular ? path + " is not a regular file, not scanned"
                                                            : "cannot open " + opened.status.message();
        return false;
    }
    return CheckFd(fd.Get(), path, userData, timeout);
}

bool YaraUtils::CheckFd(int fd, const std::string& name, void* userData, int timeout)
{
    m_timedOut = false;
    if (m_rules == nullptr) {
        m_lastError = "no rules loaded, cannot scan " + name;
        return false;
    }
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        m_lastError = name + " is not a regular file, not scanned";
        return false;
    }
    ScanContext context = ScanContext::ForPath(name);
    if (static_cast<std::size_t>(st.st_size) > kInMemoryScanLimit) {
        // Too big to hold: scanned from the file, without the content signals.
        return Scan(nullptr, 0, fd, userData, timeout, context);
    }
    std::string content;
    const ReadResult read = ReadAll(fd, kInMemoryScanLimit, content, name);
    if (!read.ok()) {
        m_lastError = "cannot read " + read.status.message();
        return false;
    }
    context.Measure(content.data(), content.size());
    return Scan(content.data(), content.size(), -1, userData, timeout, context);
}

bool YaraUtils::CheckBuffer(const void* data, std::size_t size, void* userData, int timeout,
                            const ScanContext& context)
{
    m_timedOut = false;
    if (m_rules == nullptr) {
        m_lastError = "no rules loaded, cannot scan " + context.filepath;
        return false;
    }
    return Scan(data, size, -1, userData, timeout, context);
}

bool YaraUtils::Scan(const void* data, std::size_t size, int fd, void* userData, int timeout,
                     const ScanContext& context)
{
    m_overBudget = false;
    const int seconds = timeout > 0 ? timeout : 0;  // 0: no timeout
    ScanCall call{m_callback, userData};
    if (fd >= 0 || size <= kBudgetWindow) {
        return ScanOnce(data, size, fd, ForwardScanCallback, &call, 0, seconds, seconds, context);
    }
    // libyara keeps every match of every string, about 60 bytes each, so a
    // file made of one short pattern repeated would take gigabytes. A fast
    // scan (one match per string) decides the same rules; only the matched
    // bytes quoted as the keyword can differ. So: most files, matching
    // nothing, are decided by the fast scan alone. A file that matched is
    // scanned again in full, to quote the same keyword as ever, once its
    // matches were counted window by window and stay within the budget.
    const auto started = std::chrono::steady_clock::now();
    auto left = [&]() {
        if (seconds == 0) {
            return 0;
        }
        const auto spent = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - started);
        return std::max(1, seconds - static_cast<int>(spent.count()));
    };
    MatchCount probe;
    if (!ScanOnce(data, size, -1, CountRules, &probe, SCAN_FLAGS_FAST_MODE, left(), seconds, context)) {
        return false;
    }
    if (probe.rules == 0) {
        return true;
    }
    const auto* bytes = static_cast<const uint8_t*>(data);
    uint64_t matches = 0;
    for (std::size_t offset = 0; offset < size && matches <= kMatchBudget; offset += kBudgetWindow) {
        MatchCount window;
        if (!ScanOnce(bytes + offset, std::min(kBudgetWindow, size - offset), -1, CountStrings, &window, 0,
                      left(), seconds, context)) {
            return false;
        }
        matches += window.strings;
    }
    m_overBudget = matches > kMatchBudget;
    return ScanOnce(data, size, -1, ForwardScanCallback, &call, m_overBudget ? SCAN_FLAGS_FAST_MODE : 0, left(),
                    seconds, context);
}

bool YaraUtils::ScanOnce(const void* data, std::size_t size, int fd, RawCallback callback, void* userData,
                         int flags, int seconds, int limit, const ScanContext& context)
{
    SetExternals(m_scanner, context);
    // libyara guards each scan against SIGBUS/SIGSEGV from a file mapping
    // that shrinks under it, at the price of several signal-handler system
    // calls per scan. A buffer of our own cannot shrink: only a scan of a
    // descriptor (libyara maps the file) keeps the guard.
    if (fd < 0) {
        flags |= SCAN_FLAGS_NO_TRYCATCH;
    }
    yr_scanner_set_flags(m_scanner, SCAN_FLAGS_REPORT_RULES_MATCHING | flags);
    yr_scanner_set_callback(m_scanner, callback, userData);
    yr_scanner_set_timeout(m_scanner, seconds);
    const int result = fd >= 0 ? yr_scanner_scan_fd(m_scanner, fd)
                               : yr_scanner_scan_mem(m_scanner, static_cast<const uint8_t*>(data), size);
    // The callback's user data lives on the caller's stack frame only.
    yr_scanner_set_callback(m_scanner, ForwardScanCallback, nullptr);
    m_timedOut = result == ERROR_SCAN_TIMEOUT;
    if (result == ERROR_SUCCESS) {
        return true;
    }
    const std::string what = context.layerDepth > 0
                                 ? "layer " + std::to_string(context.layerDepth) + " of " + context.filepath
                                 : context.filepath;
    if (result == ERROR_SCAN_TIMEOUT) {
        m_lastError = "scan of " + what + " timed out after " + std::to_string(limit) + " s";
    } else {
        m_lastError = "scan of " + what + " failed: " + YaraErrorText(result);
    }
    return false;
}

}  // namespace SDK
