// The module through the real framework: callbacks, policies creating and
// retargeting the tasks, the user-triggered scan, shutdown; and what the
// shared library exports (the agent loads it in the end-to-end tests).

#include <algorithm>
#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "WebshellTestUtil.h"
#include "container/ContainerMessage.h"
#include "filenotify/FileNotifyMessage.h"
#include "framework/Engine.h"
#include "framework/StatusBoard.h"
#include "message/AssetMessage.h"
#include "sdk/JsonUtils.h"
#include "sdk/PathUtils.h"
#include "webshell/DetectWebshellModule.h"
#include "webshell/ScanWebshellTask.h"

using namespace WebshellTest;

namespace {

const char* const kAuto = "auto_scan_wehshell_task";
const char* const kOnce = "once_scan_webshell_task";
const char* const kFileChange = "detect_file_change_wehshell_task";

std::string Apply(Env& env, const std::string& doc)
{
    std::string error;
    return env.engine().ApplyPolicyDocument("10001", doc, error) ? std::string() : error;
}

}  // namespace

TEST(WebshellModule, PolicyCreatesRegistersAndRetargetsTasks)
{
    Env env;
    LogCapture log;
    TestSupport::TempDir web("ardent-web");
    PolicyDoc doc;
    doc.defaultPaths = {web.MkDir("www")};
    doc.libHash = env.InstallRules(kTestRules);
    doc.monitorFileChange = true;
    doc.intervalS = 3600;
    doc.delayS = 3600;

    auto* module = new Engine::DetectWebshellModule();
    EXPECT_STREQ(module->name(), "webshell_module");
    ASSERT_TRUE(env.engine().AddModule(module));
    ASSERT_NE(module->GetTaskletCallback("detect_webshell_10001"), nullptr);
    EXPECT_TRUE(module->GetTaskletCallback("detect_webshell_10001")->IsLongAction());
    ASSERT_NE(module->GetPolicyCallback("10001"), nullptr);
    // Init creates no task.
    EXPECT_EQ(env.engine().FindTask(kAuto), nullptr);
    EXPECT_EQ(module->GetOnceScanTask(), nullptr);

    ASSERT_EQ(Apply(env, doc.ToJson()), "");
    Framework::Task* autoTask = env.engine().FindTask(kAuto);
    ASSERT_NE(autoTask, nullptr);
    EXPECT_EQ(autoTask, static_cast<Framework::Task*>(module->GetAutoScanTask()));
    EXPECT_EQ(autoTask->GetTaskType(), Framework::TaskCondition::TASK_TYPE_SCHEDULED);
    EXPECT_EQ(autoTask->GetFeatureName(), "detect_webshell");
    // Policy and schedule reach the periodic task through the framework's dispatch.
    EXPECT_EQ(autoTask->GetCondition().GetIntervalS(), 3600);
    auto* policy = dynamic_cast<Engine::DetectWebshellPolicy*>(autoTask->GetFeaturePolicy());
    ASSERT_NE(policy, nullptr);
    EXPECT_EQ(policy->GetDefaultScanPathList(), doc.defaultPaths);

    Engine::DetectFileChangeWebshellTask* fileChange = module->GetFileChangeTask();
    ASSERT_NE(fileChange, nullptr);
    EXPECT_EQ(env.engine().FindTask(kFileChange), static_cast<Framework::Task*>(fileChange));
    EXPECT_EQ(fileChange->GetTaskType(), Framework::TaskCondition::TASK_TYPE_RESIDENT);
    EXPECT_EQ(fileChange->GetFeaturePolicy(), autoTask->GetFeaturePolicy());

    Engine::OnceScanWebshellTask* once = module->GetOnceScanTask();
    ASSERT_NE(once, nullptr);
    EXPECT_EQ(once->GetTaskName(), kOnce);
    EXPECT_EQ(once->GetTaskType(), Framework::TaskCondition::TASK_TYPE_ONDEMAND);
    EXPECT_EQ(env.engine().FindTask(kOnce), nullptr) << "the once task is never registered";
    EXPECT_EQ(once->GetFeaturePolicy(), autoTask->GetFeaturePolicy());
    const std::string onceInit = "WebshellTask container process Init. task name:once_scan_webshell_task";
    EXPECT_EQ(log.Count(onceInit, Poco::Message::PRIO_INFORMATION), 1u);

    // monitor_file_change false: the task is unregistered, the object kept.
    doc.monitorFileChange = false;
    ASSERT_EQ(Apply(env, doc.ToJson()), "");
    EXPECT_EQ(env.engine().FindTask(kFileChange), nullptr);
    EXPECT_EQ(module->GetFileChangeTask(), fileChange);
    EXPECT_EQ(env.engine().FindTask(kAuto), autoTask) << "the periodic task is left as it was";
    EXPECT_EQ(module->GetOnceScanTask(), once);
    EXPECT_EQ(log.Count(onceInit), 2u) << "each accepted policy re-initialises the once task";

    // true again: the same object is registered again and gets the new policy.
    doc.monitorFileChange = true;
    doc.maxFileSize = 4096;
    ASSERT_EQ(Apply(env, doc.ToJson()), "");
    EXPECT_EQ(env.engine().FindTask(kFileChange), static_cast<Framework::Task*>(fileChange));
    auto* newest = dynamic_cast<Engine::DetectWebshellPolicy*>(fileChange->GetFeaturePolicy());
    ASSERT_NE(newest, nullptr);
    EXPECT_EQ(newest->GetMaxFileSize(), 4096);
    EXPECT_EQ(log.Count(onceInit), 3u);

    // A rejected document touches no task.
    PolicyDoc bad = doc;
    bad.libHash = "";
    EXPECT_NE(Apply(env, bad.ToJson()).find("content.lib_hash must not be empty"), std::string::npos);
    EXPECT_EQ(env.engine().FindTask(kFileChange), static_cast<Framework::Task*>(fileChange));
    EXPECT_EQ(fileChange->GetFeaturePolicy(), static_cast<Framework::FeaturePolicy*>(newest));
    EXPECT_EQ(log.Count(onceInit), 3u);

    // Shutdown: both registered names are logged, the once task says goodbye.
    log.Clear();
    env.engine().UnloadModules();
    EXPECT_TRUE(log.Has("UnRegister task(auto_scan_wehshell_task).", Poco::Message::PRIO_INFORMATION)) << log.Dump();
    EXPECT_TRUE(log.Has("UnRegister task(detect_file_change_wehshell_task).", Poco::Message::PRIO_INFORMATION));
    EXPECT_EQ(env.engine().FindTask(kAuto), nullptr);
    EXPECT_EQ(env.engine().FindTask(kFileChange), nullptr);
}

// The framework starts a registered task through its Init and stops it
// through its UnInit: the file-change task then watches its roots and
// follows containers, and both registered tasks subscribe to the assets.
TEST(WebshellModule, RegisteredTasksStartAndStopThroughInitAndUnInit)
{
    Env env;
    TestSupport::TempDir web("ardent-web");
    PolicyDoc doc;
    doc.defaultPaths = {web.MkDir("www")};
    doc.libHash = env.InstallRules(kTestRules);
    doc.monitorFileChange = true;
    doc.monitorContainer = true;

    auto* module = new Engine::DetectWebshellModule();
    ASSERT_TRUE(env.engine().AddModule(module));
    ASSERT_EQ(Apply(env, doc.ToJson()), "");
    Framework::Task* fileChange = module->GetFileChangeTask();
    Framework::Task* periodic = module->GetAutoScanTask();
    ASSERT_NE(fileChange, nullptr);

    auto watchRequested = [&] {
        for (auto& m : env.Sent<Engine::FileNotifyWatchMessage>(kFileNotify)) {
            if (m->GetSender() == fileChange->GetMailbox() && m->GetPath() == web.Join("www") && m->GetOpt().addWatch == 1) {
                return true;
            }
        }
        return false;
    };
    EXPECT_TRUE(TestSupport::WaitFor(watchRequested)) << "the file-change task was never initialised";
    auto subscribedBy = [&](Framework::Task* task) {
        for (auto& m : env.Sent<Engine::AssetRegisterMessage>(kMsgSync)) {
            if (m->task == task) {
                return true;
            }
        }
        return false;
    };
    EXPECT_TRUE(TestSupport::WaitFor([&] { return subscribedBy(fileChange) && subscribedBy(periodic); }));
    env.Barrier(kContainerCollect);
    bool containerSubscription = false;
    for (auto& m : env.Sent<Engine::ContainerRegisterMessage>(kContainerCollect)) {
        containerSubscription = containerSubscription || (m->task == fileChange && m->subscribe);
    }
    EXPECT_TRUE(containerSubscription);

    // Unregistered by the next policy: its UnInit unsubscribes it.
    doc.monitorFileChange = false;
    ASSERT_EQ(Apply(env, doc.ToJson()), "");
    env.Barrier(kContainerCollect);
    bool containerUnsubscription = false;
    for (auto& m : env.Sent<Engine::ContainerRegisterMessage>(kContainerCollect)) {
        containerUnsubscription = containerUnsubscription || (m->task == fileChange && !m->subscribe);
    }
    EXPECT_TRUE(containerUnsubscription);

}

TEST(WebshellModule, UserTriggeredScanBeforeAnyPolicyDoesNothing)
{
    Env env;
    auto* module = new Engine::DetectWebshellModule();
    ASSERT_TRUE(env.engine().AddModule(module));

    int rc = -1;
    EXPECT_EQ(env.engine().InvokeTasklet("detect_webshell_10001", "", true, rc), Framework::Engine::TASKLET_DONE);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(module->UserTriggeredScan("anything"), 0);
    for (const char* service : {kDataReport, kFileReport, kFileNotify, kMsgSync, kContainerCollect}) {
        env.Barrier(service);
        EXPECT_TRUE(env.Sent<Framework::DataMessage>(service).empty()) << service;
        EXPECT_TRUE(env.Sent<Framework::FileMessage>(service).empty()) << service;
    }
}

TEST(WebshellModule, FileChangeTaskEventLoopEndsAtOnceWhenCancelling)
{
    Poco::AutoPtr<Engine::DetectFileChangeWebshellTask> task(new Engine::DetectFileChangeWebshellTask());
    task->cancel();
    ASSERT_TRUE(task->IsCancelling());
    std::atomic<bool> done{false};
    std::thread runner([&] {
        task->Run();
        done = true;
    });
    // Run would otherwise wait for events for ever.
    EXPECT_TRUE(TestSupport::WaitFor([&] { return done.load(); }, 5000));
    runner.join();
}

TEST(WebshellModule, UnknownInstallationPathFailsInitAndRequestsNoWatch)
{
    Env env;
    TestSupport::TempDir web("ardent-web");
    PolicyDoc doc;
    doc.defaultPaths = {web.MkDir("www")};
    doc.libHash = env.InstallRules(kTestRules);
    Poco::AutoPtr<Engine::DetectWebshellPolicy> policy = MakePolicy(doc);

    SDK::PathUtils::SetInstallationPath(web.Join("no-such-install-dir"));
    Poco::AutoPtr<Engine::DetectFileChangeWebshellTask> task(new Engine::DetectFileChangeWebshellTask());
    task->SetFeaturePolicy(policy.get());
    const int rc = task->Init();
    SDK::PathUtils::SetInstallationPath(env.InstallDir());
    EXPECT_EQ(rc, -1);
    EXPECT_TRUE(task->GetWebshellLibPath().empty());
    for (const char* service : {kFileNotify, kMsgSync, kContainerCollect, kFileReport}) {
        env.Barrier(service);
        EXPECT_TRUE(env.Sent<Engine::FileNotifyWatchMessage>(service).empty());
        EXPECT_TRUE(env.Sent<Engine::AssetRegisterMessage>(service).empty());
        EXPECT_TRUE(env.Sent<Engine::ContainerRegisterMessage>(service).empty());
    }

    // With the path known again, the same task starts and watches its root.
    ASSERT_EQ(task->Init(), 0);
    EXPECT_EQ(task->GetWebshellLibPath(), env.LibPath());
    env.Barrier(kFileNotify);
    auto watches = env.Sent<Engine::FileNotifyWatchMessage>(kFileNotify);
    ASSERT_EQ(watches.size(), 1u);
    EXPECT_EQ(watches[0]->GetPath(), web.Join("www"));
    env.Barrier(kMsgSync);
    auto subscriptions = env.Sent<Engine::AssetRegisterMessage>(kMsgSync);
    ASSERT_EQ(subscriptions.size(), 2u);
    EXPECT_EQ(subscriptions[0]->kind, 0u);
    EXPECT_EQ(subscriptions[1]->kind, 4u);
    EXPECT_EQ(subscriptions[0]->task, task.get());
    task->UnInit();
}

TEST(WebshellModuleLibrary, SharedLibraryExportsOnlyCreateModuleAndFindsItsPlatform)
{
    const std::string so = TestSupport::StageDir() + "/module/libwebshell_module.so";
    ASSERT_TRUE(TestSupport::FileExists(so)) << so;
    std::string symbols;
    ASSERT_EQ(TestSupport::RunCommand("nm -D --defined-only '" + so + "'", &symbols), 0);
    EXPECT_NE(symbols.find(" T CreateModule\n"), std::string::npos) << symbols;
    EXPECT_EQ(symbols.find("_ZN6Engine"), std::string::npos) << "module classes stay hidden:\n" << symbols;

    std::string dynamic;
    ASSERT_EQ(TestSupport::RunCommand("readelf -d '" + so + "'", &dynamic), 0);
    EXPECT_NE(dynamic.find("[$ORIGIN/:/usr/local/ardent/lib/:/usr/local/ardent/module/:$ORIGIN/../lib/]"),
              std::string::npos)
        << dynamic;
    EXPECT_NE(dynamic.find("(RUNPATH)"), std::string::npos) << dynamic;
    EXPECT_NE(dynamic.find("[libframework.so]"), std::string::npos) << dynamic;
    EXPECT_NE(dynamic.find("[libsdk.so]"), std::string::npos) << dynamic;
}
