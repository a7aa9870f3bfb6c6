// The file-change task: watch requests kept in step with the policy, file
// notifications, and the container start/stop events with their cache.

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

// A second container path beside kHtml.
const std::string kApp = "/ardent-test-srv/app";

const uint32_t kInCreate = 0x100;
const uint32_t kInIsDir = 0x40000000;

class FileChangeTest : public TaskFixture<Engine::DetectFileChangeWebshellTask> {
protected:
    void SetUp() override
    {
        TaskFixture::SetUp();
        doc.defaultPaths = {web.MkDir("host/www")};
        doc.monitorContainer = true;
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

    void Notify(uint32_t mask, const std::string& path, unsigned long extParm)
    {
        Engine::FileNotifyMessage msg(mask, path, extParm);
        EXPECT_EQ(msg.MessageHandle(static_cast<Framework::Task*>(task.get())), 0);
    }
};

void ExpectRequest(const Engine::FileNotifyWatchMessage& msg, Framework::Task* sender, const std::string& path,
                   bool add, unsigned long extParm)
{
    EXPECT_TRUE(msg.GetSender() == sender->GetMailbox());
    EXPECT_EQ(msg.GetPath(), path);
    EXPECT_EQ(msg.GetEvents(), (std::vector<unsigned int>{0x100, 0x2, 0xC0}));
    const Engine::_FileNotifyOpt& opt = msg.GetOpt();
    EXPECT_EQ(opt.addWatch, add ? 1 : 0);
    EXPECT_EQ(opt.removeWatch, add ? 0 : 1);
    EXPECT_EQ(opt.recursive, 1);
    EXPECT_EQ(opt.coalesce, 1);
    EXPECT_EQ(opt.extParm, extParm);
}

}  // namespace

TEST_F(FileChangeTest, StartAndStopEventsCacheAndWatchTheContainersWebRoots)
{
    doc.defaultPaths.push_back(kHtml);
    doc.customPaths = {kHtml, kApp, "/ardent-test-not/there"};
    Apply();
    env.ClearCaptures();
    auto info = Container("0123abcd", "shop", true);
    const std::string html = web.MkDir("shop/merged" + kHtml);
    const std::string app = web.MkDir("shop/merged" + kApp);

    EXPECT_EQ(Deliver(info, true), 0);
    // The host's default root under the container root does not exist: dropped.
    auto watches = env.TakeWatches();
    ASSERT_EQ(watches.size(), 2u) << "the same path in both lists is watched once";
    ExpectRequest(*watches[0], task.get(), app, true, 1);
    ExpectRequest(*watches[1], task.get(), html, true, 1);
    EXPECT_TRUE(task->GetMonitorDirs().count(html) == 0) << "container roots are not host watches";

    // A second start changes nothing.
    Deliver(info, true);
    EXPECT_TRUE(env.TakeWatches().empty());

    // Stop: one removal per cached path with the entry's index, then the entry goes.
    info->running = false;
    Deliver(info, false);
    watches = env.TakeWatches();
    ASSERT_EQ(watches.size(), 2u);
    ExpectRequest(*watches[0], task.get(), app, false, 1);
    ExpectRequest(*watches[1], task.get(), html, false, 1);
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
    // (UnInit removes its watches: see the threads test).
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
    EXPECT_TRUE(task->GetContainerCache("0123abcd", gone));
}

TEST_F(FileChangeTest, FullPassWalksContainerRootsAfterTheHostWithOneVisitedSet)
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

    const auto once = StartOnce(policy.get());
    once->Run();

    auto events = env.Events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0]["file_info"][0]["file_path"].asString(), hostShell);
    EXPECT_EQ(events[1]["file_info"]["file_path"].asString(), kHtml + "/wp-shell.php");
    EXPECT_EQ(events[1]["container_name"].asString() + " " + events[1]["image_name"].asString(), "blog img/blog");

    const Json::Value pass = Framework::StatusBoard::Get("webshell.last_pass");
    ASSERT_EQ(pass["roots"].size(), 2u);
    EXPECT_EQ(pass["roots"][1].asString(), html);

    // A container root that the host pass already walked is not walked
    // again: its files stay the host's.
    env.ClearCaptures();
    PolicyDoc overlap = doc;
    overlap.defaultPaths = {web.Join("host/www"), html};
    StartOnce(MakePolicy(overlap).get())->Run();
    EXPECT_EQ(env.EventPaths(), (std::set<std::string>{hostShell, shell}));
    EXPECT_EQ(env.engine().UnRegisterTask("detect_file_change_wehshell_task"), 1);
}

TEST_F(FileChangeTest, WatchesFollowThePolicyInPathOrderAndOddNotificationsAreHandled)
{
    // No policy, then no root that exists: no request.
    ASSERT_EQ(task->Init(), 0);
    doc.defaultPaths = {web.Join("missing")};
    Apply(false);
    task->RegisterFileMonitorMessage();
    EXPECT_TRUE(env.TakeWatches().empty());

    const std::string a = web.MkDir("a");
    const std::string b = web.MkDir("b");
    const std::string c = web.MkDir("c");
    doc.defaultPaths = {c};
    doc.customPaths = {a};
    Apply(false);
    task->RegisterFileMonitorMessage();  // nothing watched yet: every root is added

    auto watches = env.TakeWatches();
    ASSERT_EQ(watches.size(), 2u);
    ExpectRequest(*watches[0], task.get(), a, true, 0);
    ExpectRequest(*watches[1], task.get(), c, true, 0);
    EXPECT_EQ(task->GetMonitorDirs(), (std::set<std::string>{a, c}));

    // The same policy again: nothing to do.
    task->RegisterFileMonitorMessage();
    EXPECT_TRUE(env.TakeWatches().empty());

    // /a dropped, /b added: exactly two requests, in path order.
    doc.customPaths = {b};
    Apply(false);
    task->RegisterFileMonitorMessage();
    watches = env.TakeWatches();
    ASSERT_EQ(watches.size(), 2u);
    ExpectRequest(*watches[0], task.get(), a, false, 0);
    ExpectRequest(*watches[1], task.get(), b, true, 0);
    EXPECT_EQ(task->GetMonitorDirs(), (std::set<std::string>{b, c}));

    // A policy whose roots all vanished fails to parse: the watches stay.
    doc.defaultPaths = {web.Join("gone1")};
    doc.customPaths = {web.Join("gone2")};
    Apply(false);
    task->RegisterFileMonitorMessage();
    EXPECT_TRUE(env.TakeWatches().empty());
    EXPECT_EQ(task->GetMonitorDirs(), (std::set<std::string>{b, c}));

    // Written files are reported end to end; here what the task does with odd
    // notifications.
    const std::string www = web.MkDir("www");
    doc.defaultPaths = {www};
    Apply(false);

    // A directory event is not scanned, whatever else is set.
    const std::string dirShell = web.Write("www/sub.php", std::string("<?php ") + kCertainMark);
    Notify(kInIsDir | kInCreate, dirShell, 0);
    Notify(0xFFFFFFFF, dirShell, 0);
    EXPECT_TRUE(env.Events().empty());

    // An index that names no cached container: warning, then a host scan.
    const std::string stale = web.Write("www/stale.php", std::string("<?php ") + kCertainMark);
    Notify(kInCreate, stale, 42);
    EXPECT_EQ(log.Count("WebshellTask not match cache index. index=42, path=" + stale, Poco::Message::PRIO_WARNING), 1u);
    auto events = env.Events();
    ASSERT_EQ(events.size(), 1u);
    ASSERT_TRUE(events[0]["file_info"].isArray());
    EXPECT_EQ(events[0]["file_info"][0]["file_path"].asString(), stale);

    // A FIFO named like a page is refused by the check, never waited on.
    const std::string fifo = web.Fifo("www/pipe.php");
    Notify(kInCreate, fifo, 0);
    EXPECT_EQ(log.Count("Check file failed, path(" + fifo + ").", Poco::Message::PRIO_ERROR), 1u);

    // A file already gone when the event is handled is skipped silently.
    Notify(kInCreate, web.Join("www/vanished.php"), 0);
    EXPECT_EQ(log.Count("Check file failed", Poco::Message::PRIO_ERROR), 1u);
    EXPECT_EQ(task->FileNotifyMessageAction(nullptr), 0);
}
