// The tasks on their own threads at once: the file-change task handling
// container events and file notifications on its thread while full passes
// copy its cache from other threads, the policy is replaced under them and
// the CPU limiter's throttle points are shared; then the module shuts down
// while its tasks are busy. Built for ThreadSanitizer.

#include <atomic>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "WebshellTestUtil.h"
#include "container/ContainerMessage.h"
#include "filenotify/FileNotifyMessage.h"
#include "framework/Engine.h"
#include "framework/StatusBoard.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "webshell/DetectWebshellModule.h"
#include "webshell/ScanWebshellTask.h"

using namespace WebshellTest;

TEST(WebshellThreads, PassesNotificationsContainerEventsAndModuleShutdownRunTogether)
{
    Env env;
    TestSupport::TempDir web("ardent-web");
    for (int d = 0; d < 20; ++d) {
        for (int f = 0; f < 20; ++f) {
            web.Write("host/www/d" + std::to_string(d) + "/f" + std::to_string(f) + ".php", "<?php echo 1;");
        }
    }
    web.Write("host/www/shell.php", std::string("<?php ") + kCertainMark);
    PolicyDoc doc;
    doc.defaultPaths = {web.Join("host/www"), kHtml};
    doc.libHash = env.InstallRules(kTestRules);
    doc.monitorFileChange = true;
    doc.monitorContainer = true;
    Poco::AutoPtr<Engine::DetectWebshellPolicy> policy = MakePolicy(doc);

    SDK::InnerCpuCtrlUtils::SetCpuLimit(90);
    Poco::AutoPtr<Engine::DetectFileChangeWebshellTask> fileChange(new Engine::DetectFileChangeWebshellTask());
    fileChange->SetFeaturePolicy(policy.get());
    // The framework runs its Init, its messages and its UnInit on its thread.
    ASSERT_EQ(env.engine().RegisterTask(fileChange.get(), nullptr), 0);

    std::atomic<bool> stop{false};
    std::atomic<int> passes{0};
    std::thread scanner([&] {
        const auto once = StartOnce(policy.get());
        while (!stop.load()) {
            once->Run();
            ++passes;
        }
    });

    // Containers come and go while the passes copy the cache.
    for (int i = 0; i < 20; ++i) {
        const std::string name = "c" + std::to_string(i);
        auto info = std::make_shared<Engine::ContainerInfo>();
        info->running = true;
        info->id = "id-" + name;
        info->name = name;
        info->imageName = "img";
        info->rootPath = web.Join(name + "/rootfs");
        const std::string shell = web.Write(name + "/rootfs" + kHtml + "/x.php", std::string("<?php ") + kCertainMark);
        ASSERT_EQ(fileChange->EnqueueMsg(std::make_shared<Engine::ContainerMessage>(true, info)), 1);
        // The file-change task checks a changed file as a container file.
        ASSERT_EQ(fileChange->EnqueueMsg(
                      std::make_shared<Engine::FileNotifyMessage>(0x100, shell, static_cast<unsigned long>(i + 1))),
                  1);
        if (i % 3 == 0) {
            auto stopped = std::make_shared<Engine::ContainerInfo>(*info);
            stopped->running = false;
            ASSERT_EQ(fileChange->EnqueueMsg(std::make_shared<Engine::ContainerMessage>(false, stopped)), 1);
        }
        if (i % 5 == 0) {
            // A new policy object under the running tasks.
            Poco::AutoPtr<Engine::DetectWebshellPolicy> fresh = MakePolicy(doc);
            fileChange->SetFeaturePolicy(fresh.get());
        }
    }
    ASSERT_TRUE(TestSupport::WaitFor([&] {
        std::map<std::string, Engine::ContainerCacheInfo> cache;
        fileChange->GetContainerCacheList(cache);
        return cache.size() == 13u && passes.load() >= 3;
    }, 60000)) << "passes: " << passes.load();
    stop = true;
    scanner.join();
    std::map<std::string, Engine::ContainerCacheInfo> cache;
    fileChange->GetContainerCacheList(cache);
    EXPECT_EQ(env.engine().UnRegisterTask("detect_file_change_wehshell_task"), 1);
    SDK::InnerCpuCtrlUtils::SetCpuLimit(0);

    // Indices 1..20 went out in order; the stopped ones are gone.
    ASSERT_EQ(cache.size(), 13u);
    std::set<unsigned long> indices;
    for (auto& entry : cache) {
        indices.insert(entry.second.index);
        EXPECT_EQ(entry.first, entry.second.id);
    }
    EXPECT_EQ(*indices.begin(), 2u);
    EXPECT_EQ(*indices.rbegin(), 20u);

    // The container shells were reported, by one task or the other, under
    // their in-container path only.
    EXPECT_EQ(env.EventPaths(), (std::set<std::string>{web.Join("host/www/shell.php"), kHtml + "/x.php"}));

    // Its UnInit, run by the framework, removed every container watch.
    Engine::ContainerCacheInfo none;
    EXPECT_FALSE(fileChange->GetContainerCache("id-c1", none));
    EXPECT_EQ(env.CountSent<Engine::FileNotifyWatchMessage>(
                  kFileNotify, [](auto& m) { return m.GetOpt().removeWatch == 1 && m.GetOpt().extParm != 0; }),
              20u)
        << "7 stopped containers and 13 cleared at UnInit, one web root each";

    // The module shuts down while its tasks are busy.
    doc.intervalS = 1;
    doc.delayS = 0;  // the periodic task starts passing at once
    auto* module = new Engine::DetectWebshellModule();
    ASSERT_TRUE(env.engine().AddModule(module));
    std::string error;
    ASSERT_TRUE(env.engine().ApplyPolicyDocument("10001", doc.ToJson(), error)) << error;
    ASSERT_TRUE(TestSupport::WaitFor([&] {
        const Json::Value pass = Framework::StatusBoard::Get("webshell.last_pass");
        return pass["task"].asString() == "auto_scan_wehshell_task";
    }, 30000));

    // Policies and a user scan while the periodic task walks.
    for (int i = 0; i < 3; ++i) {
        doc.monitorFileChange = i % 2 == 0;
        doc.maxFileSize = 1000 + i;
        ASSERT_TRUE(env.engine().ApplyPolicyDocument("10001", doc.ToJson(), error)) << error;
    }
    int rc = -1;
    EXPECT_NE(env.engine().InvokeTasklet("detect_webshell_10001", "", false, rc), Framework::Engine::TASKLET_UNKNOWN);
    env.engine().WaitForTasklets();
    env.engine().UnloadModules();
    EXPECT_EQ(env.engine().FindTask("auto_scan_wehshell_task"), nullptr);
    EXPECT_EQ(env.engine().FindTask("detect_file_change_wehshell_task"), nullptr);
}
