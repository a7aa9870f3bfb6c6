// The file-notify task on real inotify in temporary trees, driven through
// the framework as the web-shell module drives it.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>

#include <gtest/gtest.h>

#include "FileNotifyTestUtil.h"

using FileNotifyTest::CountPath;
using FileNotifyTest::Harness;
using FileNotifyTest::NotesOf;
using FileNotifyTest::PathSet;
using FileNotifyTest::WaitPath;
using FileNotifyTest::WriteFile;
using TestSupport::TempDir;
using TestSupport::WaitFor;

namespace {

std::map<std::string, uint32_t> MaskByPath(TestSupport::CaptureTask& consumer)
{
    std::map<std::string, uint32_t> out;
    for (auto& note : NotesOf(consumer)) {
        out[note.path] = note.mask;
    }
    return out;
}

}  // namespace

TEST(FileNotify, ReportsNewFilesAndDirectoriesButNeverFollowsLinksOrOpensSpecialFiles)
{
    Harness h;
    TempDir root("fn-root");
    TempDir elsewhere("fn-elsewhere");
    elsewhere.MkDir("target");
    root.Symlink(elsewhere.Join("target"), "link-to-dir");
    root.Fifo("pipe.php");
    // The request spells the root with a trailing slash: paths keep the
    // spelling without doubling the slash.
    ASSERT_TRUE(h.Watch(root.Path() + "/", 7, 1, 1));
    EXPECT_EQ(1u, h.task().Watches());  // the link is not followed

    const std::string inRoot = root.Join("a.php");
    ASSERT_TRUE(WriteFile(inRoot));
    const std::string d1 = root.Join("d1");
    ASSERT_EQ(0, mkdir(d1.c_str(), 0755));
    // A directory moved in holding files, a FIFO, a socket and a link to a
    // directory: the walk reports the files and never opens the FIFO. (A
    // file written into a new nested directory before its watch exists is
    // the end-to-end watch test's.)
    const std::string fresh = root.Join("fresh");
    const std::string staging = elsewhere.MkDir("fresh");
    elsewhere.Fifo("fresh/fifo.php");
    elsewhere.Socket("fresh/sock.php");
    elsewhere.Symlink(elsewhere.Join("target"), "fresh/dirlink");
    elsewhere.Write("fresh/real.php", "x");
    elsewhere.Write("fresh/sub/y.php", "y");
    ASSERT_EQ(0, rename(staging.c_str(), fresh.c_str()));
    ASSERT_TRUE(WaitPath(h.consumer(), fresh + "/sub/y.php"));
    // A file in the moved-in directory after the move: it is watched too.
    const std::string later = fresh + "/sub/later.php";
    ASSERT_TRUE(WriteFile(later));
    ASSERT_TRUE(WaitPath(h.consumer(), later));
    // Writing behind a link produces nothing.
    ASSERT_TRUE(WriteFile(elsewhere.Join("target/behind.php")));
    ASSERT_TRUE(h.Settle(root.Path()));

    for (const std::string& file : {inRoot, fresh + "/real.php", fresh + "/sub/y.php", later}) {
        EXPECT_EQ(1u, CountPath(h.consumer(), file)) << file;
    }
    auto masks = MaskByPath(h.consumer());
    EXPECT_EQ(static_cast<uint32_t>(IN_CREATE), masks[inRoot]);
    EXPECT_EQ(static_cast<uint32_t>(IN_MOVED_TO), masks[fresh + "/real.php"]);
    EXPECT_EQ(static_cast<uint32_t>(IN_CREATE | IN_ISDIR), masks[d1]);
    EXPECT_EQ(static_cast<uint32_t>(IN_MOVED_TO | IN_ISDIR), masks[fresh]);
    for (auto& note : NotesOf(h.consumer())) {
        EXPECT_EQ(7ul, note.ext) << note.path;
        EXPECT_EQ(std::string::npos, note.path.find("//")) << note.path;
        EXPECT_EQ(std::string::npos, note.path.find("behind.php")) << note.path;
        struct stat st;
        ASSERT_EQ(0, lstat(note.path.c_str(), &st)) << note.path;
        // Directory events, and only they, carry IN_ISDIR; no FIFO or socket is reported.
        EXPECT_FALSE(S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode)) << note.path;
        EXPECT_EQ(S_ISDIR(st.st_mode), (note.mask & IN_ISDIR) != 0) << note.path;
    }
    // root, d1, fresh, fresh/sub: nothing behind the links
    EXPECT_EQ(4u, h.task().Watches());
}

TEST(FileNotify, CoalescesRepeatedWritesAndFlushesQuietFiles)
{
    Harness h;  // default quiet time
    TempDir root("fn-coalesce");
    ASSERT_TRUE(h.Watch(root.Path(), 0, 1, 1));

    // 10 MB in 4 KB pieces, closed at the end.
    const std::string big = root.Join("upload.php");
    {
        int fd = open(big.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
        ASSERT_GE(fd, 0);
        std::string piece(4096, 'a');
        for (int i = 0; i < 2560; ++i) {
            ASSERT_EQ(4096, write(fd, piece.data(), piece.size()));
        }
        ASSERT_EQ(0, close(fd));
    }
    // An existing file appended to three times in one session.
    const std::string log = root.Join("existing.php");
    ASSERT_TRUE(WriteFile(log, "start"));
    ASSERT_TRUE(WaitPath(h.consumer(), log));
    {
        int fd = open(log.c_str(), O_WRONLY | O_APPEND);
        ASSERT_GE(fd, 0);
        for (int i = 0; i < 3; ++i) {
            ASSERT_EQ(4, write(fd, "more", 4));
        }
        ASSERT_EQ(0, close(fd));
    }
    ASSERT_TRUE(h.Settle(root.Path()));
    size_t bigChecks = CountPath(h.consumer(), big);
    EXPECT_GE(bigChecks, 1u);
    EXPECT_LE(bigChecks, 2u);
    EXPECT_EQ(2u, CountPath(h.consumer(), log));  // the creation, then the appending session
    auto masks = MaskByPath(h.consumer());
    EXPECT_EQ(static_cast<uint32_t>(IN_MODIFY), masks[log]);

    // A writer that keeps the file open: reported after the quiet time,
    // while it is still open.
    const std::string open_ = root.Join("held-open.php");
    int fd = open(open_.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(5, write(fd, "<?php", 5));
    bool seen = WaitPath(h.consumer(), open_, 5000);
    ASSERT_EQ(0, close(fd));
    EXPECT_TRUE(seen);
    ASSERT_TRUE(h.Settle(root.Path()));
    // Closing without a further write changed nothing.
    EXPECT_EQ(1u, CountPath(h.consumer(), open_));
}

TEST(FileNotify, RemoveStopsTheSubtreeButKeepsWatchesOthersUse)
{
    Harness h;
    TempDir root("fn-remove");
    TempDir other("fn-other");
    root.MkDir("sub/deeper");
    root.MkDir("shared/inner");
    ASSERT_TRUE(h.Watch(root.Path(), 0, 1, 5));
    // A second registration of the same consumer on part of the tree, with
    // its own extra parameter, and one elsewhere as a sentinel.
    ASSERT_TRUE(h.Watch(root.Join("shared"), 5, 2, 5));
    ASSERT_TRUE(h.Watch(other.Path(), 9, 3, 6));
    EXPECT_EQ(6u, h.task().Watches());  // shared directories are watched once

    // A file in the shared part reaches both registrations, each with its
    // own extra parameter.
    const std::string both = root.Join("shared/inner/both.php");
    ASSERT_TRUE(WriteFile(both));
    ASSERT_TRUE(WaitFor([&] { return CountPath(h.consumer(), both) == 2; }));
    std::set<unsigned long> exts;
    for (auto& note : NotesOf(h.consumer())) {
        if (note.path == both) {
            exts.insert(note.ext);
        }
    }
    EXPECT_EQ((std::set<unsigned long>{0ul, 5ul}), exts);

    // Removing the root's registration releases everything but what the
    // second registration still uses.
    ASSERT_TRUE(h.Request(&h.consumer(), root.Path(), false, 0));
    ASSERT_TRUE(WaitFor([&] { return h.task().Registrations() == 2; }));
    EXPECT_EQ(3u, h.task().Watches());  // shared, shared/inner, other

    const size_t mark = NotesOf(h.consumer()).size();
    for (const char* silent : {"top.php", "sub/s.php", "sub/deeper/d.php"}) {
        ASSERT_TRUE(WriteFile(root.Join(silent)));
    }
    ASSERT_EQ(0, mkdir(root.Join("sub/newdir").c_str(), 0755));
    const std::string stillWatched = root.Join("shared/inner/still.php");
    ASSERT_TRUE(WriteFile(stillWatched));
    ASSERT_TRUE(WaitPath(h.consumer(), stillWatched));
    ASSERT_TRUE(h.Settle(other.Path()));
    // Only the file under the remaining registration and the sentinel.
    const auto notes = NotesOf(h.consumer());
    std::vector<std::pair<std::string, unsigned long>> since;
    for (size_t i = mark; i < notes.size(); ++i) {
        since.emplace_back(notes[i].path, notes[i].ext);
    }
    EXPECT_EQ(since, (decltype(since){{stillWatched, 5ul}, {other.Join("settle-1"), 9ul}}));

    // A removal must match path, consumer and extra parameter.
    ASSERT_TRUE(h.Request(&h.consumer(), root.Join("shared"), false, 6));
    ASSERT_TRUE(WaitFor([&] {
        return h.log().Count("matches no watch", Poco::Message::PRIO_WARNING) == 1;
    }));
    EXPECT_EQ(2u, h.task().Registrations());
}

TEST(FileNotify, FullConsumerQueueLosesNothing)
{
    Harness h;
    TempDir root("fn-full");
    // A consumer with room for two messages that is not draining its queue
    // yet (its thread starts later).
    Poco::AutoPtr<TestSupport::CaptureTask> slow(new TestSupport::CaptureTask("fn_slow", 2));
    ASSERT_TRUE(h.Request(slow.get(), root.Path(), true, 3));
    ASSERT_TRUE(WaitFor([&] { return h.task().Registrations() == 1; }));

    const int files = 60;
    std::set<std::string> expected;
    for (int i = 0; i < files; ++i) {
        std::string path = root.Join("f" + std::to_string(i) + ".php");
        ASSERT_TRUE(WriteFile(path));
        expected.insert(path);
    }
    // Two fit in the queue; the task holds the rest.
    ASSERT_TRUE(WaitFor([&] { return h.task().Pending() == static_cast<uint64_t>(files - 2); }));
    EXPECT_EQ(2u, h.task().Notifications());

    ASSERT_EQ(0, h.engine().RegisterTask(slow.get(), nullptr));
    h.KeepRegistered(slow);
    ASSERT_TRUE(WaitFor([&] { return PathSet(*slow) == expected; }, 10000));
    ASSERT_TRUE(WaitFor([&] { return h.task().Pending() == 0; }));
    EXPECT_EQ(static_cast<size_t>(files), slow->MessagesOf<Engine::FileNotifyMessage>().size());
    for (auto& note : NotesOf(*slow)) {
        EXPECT_EQ(3ul, note.ext);
    }
}

TEST(FileNotify, DeletedOrReplacedRootIsWatchedAgain)
{
    FileNotify::Options options;
    options.reattachMs = 100;
    Harness h(options);
    TempDir base("fn-reattach");
    const std::string root = base.MkDir("www");
    base.MkDir("www/sub");
    ASSERT_TRUE(h.Watch(root, 0, 1, 2));

    // Deleted: the watches go, the registration stays.
    ASSERT_EQ(0, TestSupport::RunCommand("rm -rf '" + root + "'"));
    ASSERT_TRUE(WaitFor([&] { return h.task().Watches() == 0; }));
    ASSERT_TRUE(WaitFor([&] {
        return h.log().Count("was deleted", Poco::Message::PRIO_WARNING) +
                   h.log().Count("is gone", Poco::Message::PRIO_WARNING) >=
               1;
    }));
    EXPECT_EQ(1u, h.task().Registrations());

    // A new directory under the same path, filled by a deployment that
    // renames it into place: its files are new, and it is watched again.
    base.Write("staging/index.php", "x");
    base.Write("staging/lib/util.php", "y");
    ASSERT_EQ(0, rename(base.Join("staging").c_str(), root.c_str()));
    ASSERT_TRUE(WaitPath(h.consumer(), root + "/index.php"));
    ASSERT_TRUE(WaitPath(h.consumer(), root + "/lib/util.php"));
    ASSERT_TRUE(WaitFor([&] { return h.task().Watches() == 2; }));
    const std::string after = root + "/lib/after.php";
    ASSERT_TRUE(WriteFile(after));
    ASSERT_TRUE(WaitPath(h.consumer(), after));

    // Moved away: the old directory is no longer followed.
    ASSERT_EQ(0, rename(root.c_str(), base.Join("old").c_str()));
    ASSERT_TRUE(WaitFor([&] { return h.task().Watches() == 0; }));
    ASSERT_TRUE(WriteFile(base.Join("old/ghost.php")));
    ASSERT_EQ(0, mkdir(root.c_str(), 0755));
    ASSERT_TRUE(WaitFor([&] { return h.task().Watches() == 1; }));
    ASSERT_TRUE(h.Settle(root));
    EXPECT_EQ(0u, CountPath(h.consumer(), base.Join("old/ghost.php")));
    EXPECT_EQ(0u, CountPath(h.consumer(), root + "/ghost.php"));
}

// The registrations in the status are read by every end-to-end watch test.
TEST(FileNotify, ForgetsAGoneConsumerRefusesBadRequestsAndWatchesAPathOnceItAppears)
{
    Harness h;
    TempDir root("fn-requests");
    root.MkDir("sub");
    Poco::AutoPtr<TestSupport::CaptureTask> shortLived(new TestSupport::CaptureTask("fn_short"));
    ASSERT_TRUE(h.Request(shortLived.get(), root.Path(), true, 1));
    ASSERT_TRUE(h.Watch(root.Path(), 2, 2, 2));  // the default consumer shares the tree

    shortLived = nullptr;  // destroyed without asking to stop
    const std::string file = root.Join("sub/after.php");
    ASSERT_TRUE(WriteFile(file));
    ASSERT_TRUE(WaitPath(h.consumer(), file));
    ASSERT_TRUE(WaitFor([&] { return h.task().Registrations() == 1; }));
    EXPECT_EQ(1u, h.log().Count("fn_short no longer exists", Poco::Message::PRIO_WARNING));
    EXPECT_EQ(2u, h.task().Watches());  // still used by the remaining registration
    ASSERT_TRUE(h.Settle(root.Path()));
    EXPECT_EQ(1u, CountPath(h.consumer(), file));

    // A relative path and a watch request without a consumer are refused
    // with an error naming them; the service goes on.
    ASSERT_TRUE(h.Request(&h.consumer(), "relative/dir", true));
    ASSERT_TRUE(h.Request(nullptr, root.Path(), true));
    ASSERT_TRUE(WaitFor([&] {
        return h.log().Count("relative/dir", Poco::Message::PRIO_ERROR) == 1 &&
               h.log().Count("names no task", Poco::Message::PRIO_ERROR) == 1;
    }));
    EXPECT_EQ(1u, h.task().Registrations());
    // A path that does not exist yet is watched once it appears, and what
    // it holds then is reported.
    const std::string later = root.Join("not-yet");
    ASSERT_TRUE(h.Request(&h.consumer(), later, true, 12));
    ASSERT_TRUE(WaitFor([&] { return h.task().Registrations() == 2; }));
    EXPECT_EQ(1u, h.log().Count("does not exist", Poco::Message::PRIO_WARNING));
    root.Write("staging/new.php", "x");
    ASSERT_EQ(0, rename(root.Join("staging").c_str(), later.c_str()));
    ASSERT_TRUE(WaitPath(h.consumer(), later + "/new.php", 10000));
}
