#pragma once
// Helpers shared by the web-shell module tests: a real engine with capture
// tasks standing in for the agent's services, rule libraries, policy
// documents, and the one fixture for a task under test.

#include <algorithm>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/Message.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include "filenotify/FileNotifyMessage.h"
#include "testsupport/TestSupport.h"
#include "webshell/DetectWebshellPolicy.h"
#include "webshell/ScanWebshellTask.h"

namespace WebshellTest {

using LogRecord = TestSupport::LogCapture::Record;

// The five service names the module talks to.
inline const char* const kDataReport = "data_comm_report_task";
inline const char* const kFileReport = "file_comm_report_task";
inline const char* const kFileNotify = "filenotify_task";
inline const char* const kMsgSync = "msg_sync_task";
inline const char* const kContainerCollect = "container_collect_task";

// A web root as a container sees it; chosen so that it does not exist on the
// machine running the tests.
inline const std::string kHtml = "/ardent-test-www/html";

// A real engine whose install dir is a temp tree, with capture tasks
// registered under the service names.
class Env {
public:
    Env();
    ~Env();

    Framework::Engine& engine() { return m_engine->engine(); }
    TestSupport::TempDir& Dir() { return m_engine->Dir(); }
    std::string LibPath() const { return m_engine->InstallDir() + "data/webshell/webshell.dat"; }
    TestSupport::CaptureTask& Capture(const std::string& service);

    // Writes the rule library where the tasks look for it; returns its
    // sha256 (as sha256sum prints it).
    std::string InstallRules(const std::string& source);

    // Returns once every message sent to `service` before the call has
    // been handled by its capture task.
    void Barrier(const std::string& service);
    // Messages of type T sent to `service` so far (after a barrier).
    template <typename T>
    std::vector<std::shared_ptr<T>> Sent(const std::string& service)
    {
        Barrier(service);
        return Capture(service).MessagesOf<T>();
    }
    // How many of those `pred` holds for.
    template <typename T, typename Pred>
    size_t CountSent(const std::string& service, Pred pred)
    {
        const auto sent = Sent<T>(service);
        return static_cast<size_t>(std::count_if(sent.begin(), sent.end(), [&](auto& m) { return pred(*m); }));
    }
    void ClearCaptures();

    // What the module sent so far: detection events (parsed), the paths it
    // asked to upload, and the watch requests (taken: the next call starts
    // afresh).
    std::vector<Json::Value> Events();
    std::set<std::string> EventPaths();
    std::set<std::string> UploadPaths();
    std::vector<std::shared_ptr<Engine::FileNotifyWatchMessage>> TakeWatches();

private:
    std::unique_ptr<TestSupport::TestEngine> m_engine;
    std::map<std::string, Poco::AutoPtr<TestSupport::CaptureTask>> m_captures;
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
    int certainMinScore = -1;  // absent when negative
    // Far in the future, so a registered periodic task does not fire on
    // its own during a test.
    int intervalS = 86400;
    int delayS = 86400;

    Json::Value ToJsonValue() const;
    std::string ToJson() const;
};

// A parsed policy (the caller holds the reference).
Poco::AutoPtr<Engine::DetectWebshellPolicy> MakePolicy(const PolicyDoc& doc);

// A once-scan task on `policy`, initialised; un-initialised when the last
// reference goes.
std::shared_ptr<Engine::OnceScanWebshellTask> StartOnce(Engine::DetectWebshellPolicy* policy);

// Rules used across the tests. Marks are plain strings a test writes into
// files; rule order matters (the first matching rule wins).
extern const char* const kTestRules;
inline const char* const kCertainMark = "CERTAIN_MARK_51c2";      // rule certain_mark, tag certain
inline const char* const kSuspiciousMark = "SUSPICIOUS_MARK_7f3a";  // rule suspicious_mark, no certain tag
inline const char* const kExtraPhpMark = "EXTRA_PHP_MARK_88d0";    // rule extra_then_certain: tags extra_php certain
inline const char* const kCertainlyMark = "CERTAINLY_MARK_2b61";   // rule certainly_prefix: tag "certainly"
inline const char* const kPrivateMark = "PRIVATE_MARK_93ad";       // rule private_only: certain, private string only
inline const char* const kFirstMark = "FIRST_MARK_04e7";           // rule two_strings: certain, $a then $b
inline const char* const kSecondMark = "SECOND_MARK_c9b5";

// One web-shell task under test with the engine, the module's log, a temp
// web tree and a policy document (the test rules installed).
template <class TaskT>
class TaskFixture : public ::testing::Test {
protected:
    TaskFixture() : web("ardent-web"), task(new TaskT()) {}
    void SetUp() override { doc.libHash = env.InstallRules(kTestRules); }
    void TearDown() override
    {
        if (!uninitialised) {
            task->UnInit();
        }
    }
    // Hands the task the current document; `init` also starts it.
    void Apply(bool init = true)
    {
        policy = MakePolicy(doc);
        task->SetFeaturePolicy(policy.get());
        if (init) {
            ASSERT_EQ(task->Init(), 0);
        }
    }

    Env env;
    TestSupport::LogCapture log{"webshell_module", Poco::Message::PRIO_TRACE};  // down to trace level
    TestSupport::TempDir web;
    PolicyDoc doc;
    Poco::AutoPtr<Engine::DetectWebshellPolicy> policy;
    Poco::AutoPtr<TaskT> task;
    bool uninitialised = false;
};

}  // namespace WebshellTest
