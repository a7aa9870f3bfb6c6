#pragma once
// Helpers shared by the web-shell module tests: log capture on the module
// logger, a real engine with capture tasks standing in for the agent's
// services, rule libraries and policy documents.

#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Message.h>
#include <json/json.h>

#include "testsupport/TestSupport.h"
#include "webshell/DetectWebshellPolicy.h"

namespace WebshellTest {

struct LogRecord {
    std::string text;
    Poco::Message::Priority priority;
    std::string source;
};

// Records every message of the "webshell_module" logger (at trace level)
// while it lives; an optional hook runs on the logging thread. Make it
// after the Env: a new engine hands every logger the root's channel.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogRecord> Records();
    // Number of records with exactly this text (and priority, if given).
    size_t Count(const std::string& text);
    size_t Count(const std::string& text, Poco::Message::Priority priority);
    bool Has(const std::string& text, Poco::Message::Priority priority) { return Count(text, priority) > 0; }
    size_t CountPrefix(const std::string& prefix);
    void Clear();
    void SetHook(std::function<void(const LogRecord&)> hook);
    std::string Dump();

    class Channel;

private:
    Poco::AutoPtr<Channel> m_channel;
    Poco::Channel::Ptr m_previousChannel;
    int m_previousLevel = 0;
};

// The five service names the module talks to.
extern const char* const kDataReport;
extern const char* const kFileReport;
extern const char* const kFileNotify;
extern const char* const kMsgSync;
extern const char* const kContainerCollect;

// A real engine whose install dir is a temp tree, with capture tasks
// registered under the service names.
class Env {
public:
    Env();
    ~Env();

    Framework::Engine& engine() { return m_engine->engine(); }
    TestSupport::TempDir& Dir() { return m_engine->Dir(); }
    const std::string& InstallDir() const { return m_engine->InstallDir(); }
    std::string LibPath() const { return InstallDir() + "data/webshell/webshell.dat"; }
    TestSupport::CaptureTask& Capture(const std::string& service);

    // Writes the rule library where the tasks look for it; returns its
    // sha256 (as sha256sum prints it).
    std::string InstallRules(const std::string& source, bool compiled = false);

    // Returns once every message sent to `service` before the call has
    // been handled by its capture task.
    void Barrier(const std::string& service);
    // Messages of type T captured for `service` so far.
    template <typename T>
    std::vector<std::shared_ptr<T>> Sent(const std::string& service)
    {
        return Capture(service).MessagesOf<T>();
    }
    void ClearCaptures();

private:
    std::unique_ptr<TestSupport::TestEngine> m_engine;
    std::vector<std::pair<std::string, Poco::AutoPtr<TestSupport::CaptureTask>>> m_captures;
};

// A policy document with sensible defaults; tests change what they need.
struct PolicyDoc {
    std::list<std::string> defaultPaths;
    std::list<std::string> customPaths;
    std::string libVersion = "1";
    std::string libUrl = "file:///srv/rules/webshell.yar";
    std::string libHash;
    bool monitorFileChange = false;
    bool monitorContainer = false;
    std::string fileType = "php,jsp";
    int maxFileSize = 10485760;
    int uploadPerDay = 100;
    // Far in the future, so a registered periodic task does not fire on
    // its own during a test.
    int intervalS = 86400;
    int delayS = 86400;

    Json::Value ToJsonValue() const;
    std::string ToJson() const;
};

// A parsed policy (the caller holds the reference).
Poco::AutoPtr<Engine::DetectWebshellPolicy> MakePolicy(const PolicyDoc& doc);
Poco::AutoPtr<Engine::DetectWebshellPolicy> MakePolicy(const std::string& json);

Json::Value ParseJson(const std::string& text);

// Rules used across the tests. Marks are plain strings a test writes into
// files; rule order matters (the first matching rule wins).
extern const char* const kTestRules;
extern const char* const kCertainMark;     // rule certain_mark, tag certain
extern const char* const kSuspiciousMark;  // rule suspicious_mark, no certain tag
extern const char* const kExtraPhpMark;    // rule extra_then_certain: tags extra_php certain
extern const char* const kCertainlyMark;   // rule certainly_prefix: tag "certainly"
extern const char* const kPrivateMark;     // rule private_only: certain, private string only
extern const char* const kFirstMark;       // rule two_strings: certain, $a then $b
extern const char* const kSecondMark;

}  // namespace WebshellTest
