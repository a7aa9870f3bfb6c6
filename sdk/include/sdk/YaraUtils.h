#pragma once
// libyara wrapper: one compiled rule set per object, scanned by the owner.

#include <memory>
#include <string>

struct YR_RULES;

namespace SDK {

class YaraUtils {
public:
    // YARA's scan callback convention: (context, message, messageData, userData).
    using Callback = int (*)(void* context, int message, void* messageData, void* userData);

    explicit YaraUtils(Callback callback);
    ~YaraUtils();
    YaraUtils(const YaraUtils&) = delete;
    YaraUtils& operator=(const YaraUtils&) = delete;

    // Accepts compiled rules (yarac output) and rule source. Compile errors
    // are logged with file and line. false leaves no rules loaded.
    bool LoadRuleFromFile(const std::string& path);
    // Drops the loaded rules; harmless when none are loaded.
    void CleanUsedRules();
    bool HasRules() const;

    // Scans one regular file with the loaded rules, calling the callback with
    // `userData`. `timeout` is in seconds. The path is opened with O_NONBLOCK
    // and checked with fstat: anything but a regular file (FIFO, socket,
    // device) is refused without being read or waited on. false when there
    // are no rules, the file cannot be opened or the scan failed (a timeout
    // too; LastError says which). A callback that stops the scan early
    // (CALLBACK_ABORT) still makes a successful scan. timeout <= 0: none.
    bool CheckFile(const std::string& path, void* userData, int timeout);
    // The same for a file the caller opened (a walk opens files relative to
    // their directory, so no path length limit applies); `name` names it in
    // LastError. Anything but a regular file is refused.
    bool CheckFd(int fd, const std::string& name, void* userData, int timeout);

    // The last error text (for logs).
    const std::string& LastError() const { return m_lastError; }

private:
    Callback m_callback;
    YR_RULES* m_rules = nullptr;
    std::string m_lastError;
};

}  // namespace SDK
