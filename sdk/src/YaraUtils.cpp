#include "sdk/YaraUtils.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mutex>

#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"
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
struct CompilerDeleter {
    void operator()(YR_COMPILER* compiler) const { yr_compiler_destroy(compiler); }
};
using RulesPtr = std::unique_ptr<YR_RULES, RulesDeleter>;
using CompilerPtr = std::unique_ptr<YR_COMPILER, CompilerDeleter>;

class Fd {
public:
    explicit Fd(int fd) : m_fd(fd) {}
    ~Fd()
    {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return m_fd; }

private:
    int m_fd;
};

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
    if (call->callback == nullptr) {
        return CALLBACK_CONTINUE;
    }
    return call->callback(context, message, messageData, call->userData);
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
    RulesPtr old(m_rules);
    m_rules = nullptr;
}

bool YaraUtils::HasRules() const
{
    return m_rules != nullptr;
}

bool YaraUtils::LoadRuleFromFile(const std::string& path)
{
    CleanUsedRules();
    if (!EnsureYaraInitialized()) {
        m_lastError = "YARA library initialisation failed: " + YaraErrorText(g_yaraInitResult);
        return false;
    }
    Poco::Logger* logger = LoggerUtils::GetInstance()->GetRootLogger();

    Fd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    if (fd.get() < 0) {
        m_lastError = "cannot open rule file " + path + ": " + strerror(errno);
        SDK_LOG(logger, Poco::Message::PRIO_ERROR, kSource, "Loading rules: %s", m_lastError);
        return false;
    }
    struct stat st {};
    if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        m_lastError = "rule file " + path + " is not a regular file";
        SDK_LOG(logger, Poco::Message::PRIO_ERROR, kSource, "Loading rules: %s", m_lastError);
        return false;
    }
    // A damaged compiled library could abort the process inside libyara.
    const Status checked = CheckCompiledRules(fd.get(), path);
    if (!checked.ok()) {
        m_lastError = checked.message();
        SDK_LOG(logger, Poco::Message::PRIO_ERROR, kSource, "Loading rules: %s", m_lastError);
        return false;
    }

    // Compiled rules (yarac output) first.
    int fdValue = fd.get();
    YR_STREAM stream {};
    stream.user_data = &fdValue;
    stream.read = ReadFromFd;
    YR_RULES* loaded = nullptr;
    const int loadResult = yr_rules_load_stream(&stream, &loaded);
    if (loadResult == ERROR_SUCCESS) {
        m_rules = loaded;
        m_lastError.clear();
        return true;
    }
    if (loadResult != ERROR_INVALID_FILE) {
        m_lastError = "cannot load compiled rules " + path + ": " + YaraErrorText(loadResult);
        SDK_LOG(logger, Poco::Message::PRIO_ERROR, kSource, "Loading rules: %s", m_lastError);
        return false;
    }

    // Not a compiled file: compile it as rule source.
    if (lseek(fd.get(), 0, SEEK_SET) != 0) {
        m_lastError = "cannot rewind rule file " + path + ": " + strerror(errno);
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
    CompileLog log{logger, std::string(), 0};
    yr_compiler_set_callback(compiler.get(), OnCompileMessage, &log);
    const int errors = yr_compiler_add_fd(compiler.get(), fd.get(), nullptr, path.c_str());
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
    m_rules = loaded;
    m_lastError.clear();
    return true;
}

bool YaraUtils::CheckFile(const std::string& path, void* userData, int timeout)
{
    if (m_rules == nullptr) {
        m_lastError = "no rules loaded, cannot scan " + path;
        return false;
    }
    // O_NONBLOCK: opening a FIFO or a device must not wait; fstat then refuses it.
    Fd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    if (fd.get() < 0) {
        m_lastError = "cannot open " + path + ": " + strerror(errno);
        return false;
    }
    struct stat st {};
    if (fstat(fd.get(), &st) != 0) {
        m_lastError = "cannot stat " + path + ": " + strerror(errno);
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        m_lastError = path + " is not a regular file, not scanned";
        return false;
    }
    const int seconds = timeout > 0 ? timeout : 0;  // 0: no timeout
    ScanCall call{m_callback, userData};
    const int result =
        yr_rules_scan_fd(m_rules, fd.get(), 0, ForwardScanCallback, &call, seconds);
    if (result == ERROR_SUCCESS) {
        return true;
    }
    if (result == ERROR_SCAN_TIMEOUT) {
        m_lastError = "scan of " + path + " timed out after " + std::to_string(seconds) + " s";
    } else {
        m_lastError = "scan of " + path + " failed: " + YaraErrorText(result);
    }
    return false;
}

bool YaraUtils::CheckFd(int fd, const std::string& name, void* userData, int timeout)
{
    if (m_rules == nullptr) {
        m_lastError = "no rules loaded, cannot scan " + name;
        return false;
    }
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        m_lastError = name + " is not a regular file, not scanned";
        return false;
    }
    const int seconds = timeout > 0 ? timeout : 0;
    ScanCall call{m_callback, userData};
    const int result = yr_rules_scan_fd(m_rules, fd, 0, ForwardScanCallback, &call, seconds);
    if (result == ERROR_SUCCESS) {
        return true;
    }
    m_lastError = result == ERROR_SCAN_TIMEOUT
                      ? "scan of " + name + " timed out after " + std::to_string(seconds) + " s"
                      : "scan of " + name + " failed: " + YaraErrorText(result);
    return false;
}

}  // namespace SDK
