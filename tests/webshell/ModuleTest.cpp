// The module through the real framework: callbacks, policies creating and
// retargeting the tasks, the user-triggered scan; and what the
// shared library exports (the agent loads it in the end-to-end tests, and
// from an installed package in the package test).

#include <gtest/gtest.h>

#include "WebshellTestUtil.h"
#include "container/ContainerMessage.h"
#include "filenotify/FileNotifyMessage.h"
#include "framework/Engine.h"
#include "message/AssetMessage.h"
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

// Before any policy a user-triggered scan does nothing; policies create and
// retarget the tasks; the framework starts a registered task through its
// Init and stops it through its UnInit: the file-change task then watches
// its roots and follows containers, and both registered tasks subscribe to
// the assets.
TEST(WebshellModule, PolicyCreatesRegistersAndRetargetsTasks)
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
    EXPECT_EQ(env.engine().FindTask(kAuto), nullptr) << "loading creates no task";

    // A user-triggered scan before any policy does nothing.
    int rc = -1;
    EXPECT_EQ(env.engine().InvokeTasklet("detect_webshell_10001", "", true, rc), Framework::Engine::TASKLET_DONE);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(module->UserTriggeredScan("anything"), 0);
    for (const char* service : {kDataReport, kFileReport, kFileNotify, kMsgSync, kContainerCollect}) {
        env.Barrier(service);
        EXPECT_EQ(env.Capture(service).Count(), 1u) << service << ": only the barrier";
    }

    ASSERT_EQ(Apply(env, doc.ToJson()), "");
    Framework::Task* autoTask = env.engine().FindTask(kAuto);
    ASSERT_NE(autoTask, nullptr);
    Engine::DetectFileChangeWebshellTask* fileChange = module->GetFileChangeTask();
    ASSERT_NE(fileChange, nullptr);
    EXPECT_EQ(env.engine().FindTask(kFileChange), static_cast<Framework::Task*>(fileChange));
    EXPECT_EQ(env.engine().FindTask(kOnce), nullptr) << "the once task is never registered";

    EXPECT_TRUE(TestSupport::WaitFor([&] {
        return env.CountSent<Engine::FileNotifyWatchMessage>(kFileNotify, [&](auto& m) {
            return m.GetSender() == fileChange->GetMailbox() && m.GetPath() == web.Join("www") &&
                   m.GetOpt().addWatch == 1;
        }) > 0;
    })) << "the file-change task was never initialised";
    // Each subscribes to the asset kinds 0 (HTTP servers) and 4 (Java application servers).
    auto kinds = [&](Framework::Task* task) {
        std::vector<unsigned> out;
        for (auto& m : env.Sent<Engine::AssetRegisterMessage>(kMsgSync)) {
            if (m->task == task) {
                out.push_back(m->kind);
            }
        }
        return out;
    };
    EXPECT_TRUE(TestSupport::WaitFor([&] { return kinds(fileChange).size() == 2 && kinds(autoTask).size() == 2; }));
    EXPECT_EQ(kinds(fileChange), (std::vector<unsigned>{0, 4}));
    // Only the file-change task follows containers.
    auto containerSubscriptions = [&](Framework::Task* task, bool subscribe) {
        return env.CountSent<Engine::ContainerRegisterMessage>(
            kContainerCollect, [&](auto& m) { return m.task == task && m.subscribe == subscribe; });
    };
    EXPECT_EQ(containerSubscriptions(fileChange, true), 1u);
    EXPECT_EQ(containerSubscriptions(autoTask, true), 0u);

    // monitor_file_change false: the task is unregistered (its UnInit
    // unsubscribes it from containers and assets), the object kept; the
    // periodic task stays.
    doc.monitorFileChange = false;
    ASSERT_EQ(Apply(env, doc.ToJson()), "");
    EXPECT_EQ(env.engine().FindTask(kFileChange), nullptr);
    EXPECT_EQ(containerSubscriptions(fileChange, false), 1u);
    EXPECT_EQ(env.CountSent<Engine::AssetUnRegisterMessage>(kMsgSync, [&](auto& m) { return m.task == fileChange; }),
              2u);
    EXPECT_EQ(module->GetFileChangeTask(), fileChange);
    EXPECT_EQ(env.engine().FindTask(kAuto), autoTask);

    // true again: the same object is registered again and gets the new policy.
    doc.monitorFileChange = true;
    doc.maxFileSize = 4096;
    ASSERT_EQ(Apply(env, doc.ToJson()), "");
    EXPECT_EQ(env.engine().FindTask(kFileChange), static_cast<Framework::Task*>(fileChange));
    auto* newest = dynamic_cast<Engine::DetectWebshellPolicy*>(fileChange->GetFeaturePolicy());
    ASSERT_NE(newest, nullptr);
    EXPECT_EQ(newest->GetMaxFileSize(), 4096);
}

TEST(WebshellModuleLibrary, SharedLibraryExportsOnlyCreateModule)
{
    const std::string so = TestSupport::StageDir() + "/module/libwebshell_module.so";
    ASSERT_TRUE(TestSupport::FileExists(so)) << so;
    std::string symbols;
    ASSERT_EQ(TestSupport::RunCommand("nm -D --defined-only '" + so + "'", &symbols), 0);
    EXPECT_NE(symbols.find(" T CreateModule\n"), std::string::npos) << symbols;
    EXPECT_EQ(symbols.find("_ZN6Engine"), std::string::npos) << "module classes stay hidden:\n" << symbols;
}
