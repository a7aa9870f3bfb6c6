// Watch requests kept in step with the policy, and file notifications
// handled by the file-change task.

#include <set>

#include <gtest/gtest.h>

#include "WebshellTestUtil.h"
#include "filenotify/FileNotifyMessage.h"
#include "webshell/ScanWebshellTask.h"

using namespace WebshellTest;

namespace {

const uint32_t kInCreate = 0x100;
const uint32_t kInIsDir = 0x40000000;

class WatchTest : public TaskFixture<Engine::DetectFileChangeWebshellTask> {
protected:
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

TEST_F(WatchTest, WatchesFollowThePolicyOneRequestPerChangeInPathOrder)
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

    // Any operation but "add" is a removal.
    task->SendFileNotifyWatchMessage("/srv/x", "Add", 7);
    task->SendFileNotifyWatchMessage("/srv/y", "add", 9);
    watches = env.TakeWatches();
    ASSERT_EQ(watches.size(), 2u);
    ExpectRequest(*watches[0], task.get(), "/srv/x", false, 7);
    ExpectRequest(*watches[1], task.get(), "/srv/y", true, 9);
}

TEST_F(WatchTest, AssetReportsRefreshTheWatches)
{
    const std::string www = web.MkDir("www");
    const std::string nginxRoot = web.MkDir("nginx/html");
    doc.defaultPaths = {www};
    Apply(false);
    ASSERT_EQ(task->Init(), 0);
    EXPECT_EQ(env.TakeWatches().size(), 1u);

    auto info = std::make_shared<Engine::AssetMessage::assetInfo>();
    auto dir = std::make_shared<Engine::AssetMessage::webDirInfo>();
    dir->path = nginxRoot;
    info->webDirList.push_back(dir);
    Engine::AssetMessage report(0, Engine::AssetMessage::AssetMap{{1, info}});
    report.MessageHandle(static_cast<Framework::Task*>(task.get()));
    auto watches = env.TakeWatches();
    ASSERT_EQ(watches.size(), 1u);
    ExpectRequest(*watches[0], task.get(), nginxRoot, true, 0);

    // The server is gone: its root is no longer watched.
    Engine::AssetMessage gone(0, Engine::AssetMessage::AssetMap{});
    gone.MessageHandle(static_cast<Framework::Task*>(task.get()));
    watches = env.TakeWatches();
    ASSERT_EQ(watches.size(), 1u);
    ExpectRequest(*watches[0], task.get(), nginxRoot, false, 0);
}

TEST_F(WatchTest, NotificationsScanChangedFilesAndIgnoreDirectories)
{
    const std::string www = web.MkDir("www");
    doc.defaultPaths = {www};
    Apply(false);
    ASSERT_EQ(task->Init(), 0);
    env.TakeWatches();

    // A directory event is neither logged nor scanned, whatever else is set.
    const std::string dirShell = web.Write("www/sub.php", std::string("<?php ") + kCertainMark);
    Notify(kInIsDir | kInCreate, dirShell, 0);
    Notify(0xFFFFFFFF, dirShell, 0);
    EXPECT_TRUE(env.Events().empty());

    // A host file (extra parameter 0) is scanned without the container cache.
    const std::string shell = web.Write("www/new.php", std::string("<?php ") + kCertainMark);
    Notify(kInCreate, shell, 0);
    auto events = env.Events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]["file_info"][0]["file_path"].asString(), shell);
    EXPECT_EQ(log.Count("WebshellTask not match cache index", Poco::Message::PRIO_WARNING), 0u);

    // An index that names no cached container: warning, then a host scan.
    const std::string stale = web.Write("www/stale.php", std::string("<?php ") + kCertainMark);
    Notify(kInCreate, stale, 42);
    EXPECT_EQ(log.Count("WebshellTask not match cache index. index=42, path=" + stale, Poco::Message::PRIO_WARNING), 1u);
    events = env.Events();
    ASSERT_EQ(events.size(), 2u);
    ASSERT_TRUE(events[1]["file_info"].isArray());
    EXPECT_EQ(events[1]["file_info"][0]["file_path"].asString(), stale);

    // Two events for one file: two checks (the second finding is suppressed).
    Notify(0x2, shell, 0);
    EXPECT_EQ(env.Events().size(), 2u);

    // A FIFO named like a page is refused by the check, never waited on.
    const std::string fifo = web.Fifo("www/pipe.php");
    Notify(kInCreate, fifo, 0);
    EXPECT_EQ(log.Count("Check file failed, path(" + fifo + ").", Poco::Message::PRIO_ERROR), 1u);

    // A file already gone when the event is handled is skipped silently.
    Notify(kInCreate, web.Join("www/vanished.php"), 0);
    EXPECT_EQ(log.Count("Check file failed", Poco::Message::PRIO_ERROR), 1u);
    EXPECT_EQ(task->FileNotifyMessageAction(nullptr), 0);
}
