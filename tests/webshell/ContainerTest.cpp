// The container cache and the container start/stop events of the
// file-change task.

#include <set>

#include <gtest/gtest.h>

#include "WebshellTestUtil.h"
#include "container/ContainerMessage.h"
#include "filenotify/FileNotifyMessage.h"
#include "framework/Engine.h"
#include "framework/StatusBoard.h"
#include "webshell/ScanWebshellTask.h"

using namespace WebshellTest;

namespace {

// Policy paths as a container sees them; chosen so that they do not exist
// on the machine running the tests.
const std::string kHtml = "/ardent-test-www/html";
const std::string kApp = "/ardent-test-srv/app";

class ContainerTest : public TaskFixture<Engine::DetectFileChangeWebshellTask> {
protected:
    void SetUp() override
    {
        TaskFixture::SetUp();
        doc.defaultPaths = {web.MkDir("host/www")};
        doc.monitorContainer = true;
    }

    void Start()
    {
        Apply();
        env.ClearCaptures();
    }

    // A container whose root file system is web/<name>/merged.
    std::shared_ptr<Engine::ContainerInfo> Container(const std::string& id, const std::string& name, bool running)
    {
        auto info = std::make_shared<Engine::ContainerInfo>();
        info->running = running;
        info->id = id;
        info->name = name;
        info->imageId = "sha256:" + id;
        info->imageName = "img/" + name;
        info->rootPath = web.Join(name + "/merged");
        return info;
    }

    int Deliver(const std::shared_ptr<Engine::ContainerInfo>& info, bool event = true)
    {
        Engine::ContainerMessage msg(event, info);
        return msg.MessageHandle(static_cast<Framework::Task*>(task.get()));
    }

};

}  // namespace

TEST_F(ContainerTest, CacheIndicesAreNeverReusedAndLookupIsAPrefixTestOnTheRoot)
{
    Start();
    auto entry = [](const std::string& id, const std::string& name, const std::string& root) {
        Engine::ContainerCacheInfo e;
        e.id = id;
        e.name = name;
        e.rootPath = root;
        return e;
    };
    Engine::ContainerCacheInfo a = entry("aaa", "alpha", "/var/lib/a/merged");
    Engine::ContainerCacheInfo b = entry("bbb", "beta", "");  // an empty root matches every file
    ASSERT_TRUE(task->InsertContainerCache(a));
    EXPECT_EQ(a.index, 1u);
    ASSERT_TRUE(task->InsertContainerCache(b));
    EXPECT_EQ(b.index, 2u);

    // The same id again: refused, nothing changes, the caller's index stays.
    Engine::ContainerCacheInfo again = a;
    again.index = 77;
    again.name = "renamed";
    EXPECT_FALSE(task->InsertContainerCache(again));
    EXPECT_EQ(again.index, 77u);
    Engine::ContainerCacheInfo out;
    ASSERT_TRUE(task->GetContainerCache("aaa", out));
    EXPECT_EQ(out.name, "alpha");

    const struct {
        const char* path;
        unsigned long index;
        const char* found;  // "" when the lookup fails
    } lookups[] = {
        {"/var/lib/a/merged/x", 0, ""},  // index 0 is the host
        {"/var/lib/a/merged/var/www/a.php", 1, "aaa"},
        {"/var/lib/a/merged2/x", 1, "aaa"},  // no separator needed
        {"/other/var/lib/a/merged/x", 1, ""},
        {"/anything", 2, "bbb"},
    };
    for (const auto& l : lookups) {
        Engine::ContainerCacheInfo found;
        EXPECT_EQ(task->GetContainerCacheFromIndex(l.path, l.index, found), *l.found != '\0') << l.path;
        EXPECT_EQ(found.id, l.found) << l.path;
    }

    // A deleted entry's index is gone and never handed out again.
    task->DeleteContainerCache("aaa");
    task->DeleteContainerCache("zzz");
    EXPECT_FALSE(task->GetContainerCacheFromIndex("/var/lib/a/merged/x.php", 1, out));
    EXPECT_EQ(log.Count("WebshellTask not match cache index. index=1, path=/var/lib/a/merged/x.php",
                        Poco::Message::PRIO_WARNING), 1u);
    Engine::ContainerCacheInfo c = entry("ccc", "gamma", "/var/lib/c");
    ASSERT_TRUE(task->InsertContainerCache(c));
    EXPECT_EQ(c.index, 3u);
}

TEST_F(ContainerTest, OnlyTheFileChangeTaskSubscribesAndEveryTaskUnsubscribes)
{
    Start();
    // The file-change task, a periodic and a once task with containers
    // followed, a file-change task with containers off, one without policy.
    PolicyDoc off = doc;
    off.monitorContainer = false;
    Poco::AutoPtr<Engine::DetectWebshellPolicy> offPolicy = MakePolicy(off);
    std::vector<Poco::AutoPtr<Engine::ScanWebshellTask>> tasks{
        new Engine::DetectFileChangeWebshellTask(), new Engine::AutoScanWebshellTask(),
        new Engine::OnceScanWebshellTask(), new Engine::DetectFileChangeWebshellTask(),
        new Engine::DetectFileChangeWebshellTask()};
    for (size_t i = 0; i < tasks.size(); ++i) {
        if (i < 4) {
            tasks[i]->SetFeaturePolicy(i < 3 ? policy.get() : offPolicy.get());
        }
        ASSERT_EQ(tasks[i]->Init(), 0);
    }
    auto subscriptions = env.Sent<Engine::ContainerRegisterMessage>(kContainerCollect);
    ASSERT_EQ(subscriptions.size(), 1u);
    EXPECT_EQ(subscriptions[0]->task, tasks[0].get());
    EXPECT_TRUE(subscriptions[0]->subscribe);
    EXPECT_FALSE(subscriptions[0]->option);

    // Every task unsubscribes from containers, and from asset kinds 0 then 4.
    env.ClearCaptures();
    for (auto& t : tasks) {
        t->UnInit();
    }
    auto unsubscriptions = env.Sent<Engine::ContainerRegisterMessage>(kContainerCollect);
    ASSERT_EQ(unsubscriptions.size(), 5u);
    for (auto& m : unsubscriptions) {
        EXPECT_FALSE(m->subscribe || m->option);
    }
    auto assets = env.Sent<Engine::AssetUnRegisterMessage>(kMsgSync);
    ASSERT_EQ(assets.size(), 10u);
    EXPECT_EQ(assets[0]->kind, 0u);
    EXPECT_EQ(assets[1]->kind, 4u);
    EXPECT_EQ(assets[0]->task, tasks[0].get());
}

TEST_F(ContainerTest, StartAndStopEventsCacheAndWatchTheContainersWebRoots)
{
    doc.defaultPaths.push_back(kHtml);
    doc.customPaths = {kHtml, kApp, "/ardent-test-not/there"};
    Start();
    auto info = Container("0123abcd", "shop", true);
    const std::string html = web.MkDir("shop/merged" + kHtml);
    const std::string app = web.MkDir("shop/merged" + kApp);

    EXPECT_EQ(Deliver(info, true), 0);
    // The host's default root under the container root does not exist: dropped.
    auto watches = env.TakeWatches();
    ASSERT_EQ(watches.size(), 2u) << "the same path in both lists is watched once";
    EXPECT_EQ(watches[0]->GetPath(), app);
    EXPECT_EQ(watches[1]->GetPath(), html);
    for (auto& w : watches) {
        EXPECT_EQ(w->GetOpt().addWatch, 1);
        EXPECT_EQ(w->GetOpt().extParm, 1u);
    }
    Engine::ContainerCacheInfo cached;
    ASSERT_TRUE(task->GetContainerCache("0123abcd", cached));
    EXPECT_EQ(cached.scanPathList, (std::list<std::string>{app, html}));
    EXPECT_EQ(cached.imageName, "img/shop");
    EXPECT_TRUE(task->GetMonitorDirs().count(html) == 0) << "container roots are not host watches";

    // A second start changes nothing.
    Deliver(info, true);
    EXPECT_TRUE(env.TakeWatches().empty());

    // Stop: one removal per cached path with the entry's index, then the entry goes.
    info->running = false;
    Deliver(info, false);
    watches = env.TakeWatches();
    ASSERT_EQ(watches.size(), 2u);
    EXPECT_EQ(watches[0]->GetPath(), app);
    EXPECT_EQ(watches[0]->GetOpt().removeWatch, 1);
    EXPECT_EQ(watches[1]->GetOpt().extParm, 1u);
    Engine::ContainerCacheInfo gone;
    EXPECT_FALSE(task->GetContainerCache("0123abcd", gone));

    // A stop for something never cached; a container without a web root,
    // an empty root path, or no description at all: nothing cached or watched.
    Deliver(info, false);
    auto bare = Container("b4re", "bare", true);
    web.MkDir("bare/merged/etc");
    Deliver(bare);
    auto rootless = Container("r00t", "rootless", true);
    rootless->rootPath.clear();
    EXPECT_EQ(Deliver(rootless), 0);
    EXPECT_EQ(Deliver(nullptr), 0);
    EXPECT_TRUE(env.TakeWatches().empty());
    EXPECT_FALSE(task->GetContainerCache("r00t", gone));
    EXPECT_FALSE(task->GetContainerCache("b4re", gone));

    // Containers switched off: a stop is no longer followed, the entry stays
    // until UnInit removes the watches (the container's, then the host's)
    // and empties the cache.
    info->running = true;
    Deliver(info);
    ASSERT_EQ(env.TakeWatches().size(), 2u);
    PolicyDoc off = doc;
    off.monitorContainer = false;
    Poco::AutoPtr<Engine::DetectWebshellPolicy> offPolicy = MakePolicy(off);
    task->SetFeaturePolicy(offPolicy.get());
    info->running = false;
    Deliver(info, false);
    EXPECT_TRUE(env.TakeWatches().empty());
    Engine::ContainerCacheInfo cached2;
    ASSERT_TRUE(task->GetContainerCache("0123abcd", cached2));
    task->UnInit();
    uninitialised = true;
    watches = env.TakeWatches();
    ASSERT_EQ(watches.size(), 3u);
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(watches[i]->GetOpt().removeWatch, 1);
        EXPECT_EQ(watches[i]->GetOpt().extParm, cached2.index);
    }
    EXPECT_EQ(watches[2]->GetOpt().removeWatch, 1);
    EXPECT_EQ(watches[2]->GetOpt().extParm, 0u);
    EXPECT_FALSE(task->GetContainerCache("0123abcd", cached2));
    // Clearing an empty cache sends nothing.
    task->ClearContainerCache();
    EXPECT_TRUE(env.TakeWatches().empty());
}

TEST_F(ContainerTest, FullPassWalksContainerRootsAfterTheHostWithOneVisitedSet)
{
    doc.defaultPaths = {web.MkDir("host/www"), kHtml};
    doc.customPaths = {};
    policy = MakePolicy(doc);
    task->SetFeaturePolicy(policy.get());
    // The file-change task is found by name through the engine, which
    // starts it (Init) and stops it (UnInit) on its own thread.
    ASSERT_EQ(env.engine().RegisterTask(task.get(), nullptr), 0);
    uninitialised = true;
    auto info = Container("feed", "blog", true);
    const std::string html = web.MkDir("blog/merged" + kHtml);
    const std::string shell = web.Write("blog/merged" + kHtml + "/wp-shell.php", std::string("<?php ") + kCertainMark);
    const std::string hostShell = web.Write("host/www/h.php", std::string("<?php ") + kCertainMark);
    ASSERT_EQ(task->EnqueueMsg(std::make_shared<Engine::ContainerMessage>(true, info)), 1);
    ASSERT_TRUE(TestSupport::WaitFor([&] {
        Engine::ContainerCacheInfo c;
        return task->GetContainerCache("feed", c);
    }));

    Poco::AutoPtr<Engine::OnceScanWebshellTask> once(new Engine::OnceScanWebshellTask());
    once->SetFeaturePolicy(policy.get());
    ASSERT_EQ(once->Init(), 0);
    once->Run();

    std::map<std::string, Json::Value> byPath;
    for (auto& e : env.Events()) {
        byPath[(e["file_info"].isArray() ? e["file_info"][0] : e["file_info"])["file_path"].asString()] = e;
    }
    ASSERT_EQ(byPath.size(), 2u);
    EXPECT_TRUE(byPath[hostShell]["file_info"].isArray());
    ASSERT_EQ(byPath.count(kHtml + "/wp-shell.php"), 1u);
    EXPECT_EQ(byPath[kHtml + "/wp-shell.php"]["container_name"].asString(), "blog");
    EXPECT_EQ(byPath[kHtml + "/wp-shell.php"]["image_name"].asString(), "img/blog");

    const Json::Value pass = Framework::StatusBoard::Get("webshell.last_pass");
    ASSERT_EQ(pass["roots"].size(), 2u);
    EXPECT_EQ(pass["roots"][1].asString(), html);

    // A container root that the host pass already walked is not walked
    // again: its files stay the host's.
    env.ClearCaptures();
    PolicyDoc overlap = doc;
    overlap.defaultPaths = {web.Join("host/www"), html};
    Poco::AutoPtr<Engine::DetectWebshellPolicy> overlapPolicy = MakePolicy(overlap);
    Poco::AutoPtr<Engine::OnceScanWebshellTask> third(new Engine::OnceScanWebshellTask());
    third->SetFeaturePolicy(overlapPolicy.get());
    ASSERT_EQ(third->Init(), 0);
    third->Run();
    auto events = env.Events();
    ASSERT_EQ(events.size(), 2u);
    for (auto& e : events) {
        EXPECT_TRUE(e["file_info"].isArray());
    }

    EXPECT_EQ(env.engine().UnRegisterTask("detect_file_change_wehshell_task"), 1);
    third->UnInit();
    once->UnInit();
}
