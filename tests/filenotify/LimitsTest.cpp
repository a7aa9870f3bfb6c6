// The file-notify task at the kernel's limits: a full inotify event queue
// and running out of watches.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <fstream>
#include <set>

#include <gtest/gtest.h>

#include "FileNotifyTestUtil.h"

using FileNotifyTest::ControlledWatcher;
using FileNotifyTest::CountPath;
using FileNotifyTest::Harness;
using FileNotifyTest::PathSet;
using FileNotifyTest::WaitPath;
using FileNotifyTest::WriteFile;
using TestSupport::TempDir;
using TestSupport::WaitFor;

namespace {

const char* const kQueuedEvents = "/proc/sys/fs/inotify/max_queued_events";

bool WriteNumber(const std::string& path, const std::string& value)
{
    std::ofstream out(path);
    out << value << "\n";
    out.close();
    return static_cast<bool>(out);
}

// Sets a sysctl for as long as it lives. The queue size is read when an
// inotify instance is created, so it is lowered only around creating one:
// other inotify users of the machine are affected for microseconds. A lock
// file keeps two test processes from taking each other's value for the
// original.
class SysctlOverride {
public:
    SysctlOverride(const std::string& path, const std::string& value) : m_path(path)
    {
        if (access(path.c_str(), W_OK) != 0) {
            return;
        }
        m_lock = open("/tmp/ardent-test-sysctl.lock", O_CREAT | O_RDWR | O_CLOEXEC, 0600);
        if (m_lock < 0 || flock(m_lock, LOCK_EX) != 0) {
            return;
        }
        std::ifstream in(path);
        if (in >> m_old) {
            m_active = WriteNumber(path, value);
        }
    }
    ~SysctlOverride()
    {
        if (m_active) {
            WriteNumber(m_path, m_old);
        }
        if (m_lock >= 0) {
            close(m_lock);  // releases the lock
        }
    }
    bool Active() const { return m_active; }

private:
    std::string m_path;
    std::string m_old;
    int m_lock = -1;
    bool m_active = false;
};

// Pauses reading, changes a tree in ways whose events are lost, lets
// `loseEvents` make the loss happen, resumes, and checks that the rescan
// reported every change and watches the directory created meanwhile.
void ExpectRescanAfterLoss(Harness& h, ControlledWatcher& watcher, const TempDir& root,
                           const std::function<void()>& loseEvents)
{
    ASSERT_TRUE(h.Watch(root.Path(), 0, 1, 2));
    ASSERT_TRUE(WriteFile(root.Join("before.php")));
    ASSERT_TRUE(WaitPath(h.consumer(), root.Join("before.php")));

    watcher.Pause(true);
    ASSERT_TRUE(WaitFor([&] { return watcher.PauseInEffect(); }));
    std::set<std::string> expected;
    for (int i = 0; i < 20; ++i) {
        std::string a = root.Join("f" + std::to_string(i) + ".php");
        std::string b = root.Join("old/g" + std::to_string(i) + ".php");
        ASSERT_TRUE(WriteFile(a));
        ASSERT_TRUE(WriteFile(b));
        expected.insert(a);
        expected.insert(b);
    }
    ASSERT_EQ(0, mkdir(root.Join("newdir").c_str(), 0755));
    for (int i = 0; i < 5; ++i) {
        std::string c = root.Join("newdir/h" + std::to_string(i) + ".php");
        ASSERT_TRUE(WriteFile(c));
        expected.insert(c);
    }
    loseEvents();
    watcher.Pause(false);

    ASSERT_TRUE(WaitFor([&] {
        const std::set<std::string> seen = PathSet(h.consumer());
        return std::includes(seen.begin(), seen.end(), expected.begin(), expected.end());
    }, 10000)) << "overflows: " << h.task().Overflows();
    EXPECT_GE(h.task().Overflows(), 1u);
    EXPECT_GE(h.log().Count("overflowed", Poco::Message::PRIO_WARNING), 1u);
    EXPECT_GE(h.log().Count(root.Path(), Poco::Message::PRIO_WARNING), 1u);

    // The directory created while events were lost is watched now.
    const std::string after = root.Join("newdir/after.php");
    ASSERT_TRUE(WriteFile(after));
    ASSERT_TRUE(WaitPath(h.consumer(), after));
    EXPECT_EQ(3u, h.task().Watches());
}

}  // namespace

TEST(FileNotifyLimits, KernelQueueOverflowIsRescanned)
{
    std::unique_ptr<FileNotify::Watcher> inner;
    {
        SysctlOverride small(kQueuedEvents, "16");
        if (!small.Active()) {
            GTEST_SKIP() << kQueuedEvents << " is not writable here; the simulated overflow "
                         << "test covers the rescan";
        }
        inner = std::make_unique<FileNotify::InotifyWatcher>();
    }
    auto controlled = std::make_unique<ControlledWatcher>(std::move(inner));
    ControlledWatcher& watcher = *controlled;
    Harness h(FileNotify::Options(), std::move(controlled));
    TempDir root("fn-overflow");
    root.MkDir("old");
    // 85 files make about 250 events for a queue of 16.
    ExpectRescanAfterLoss(h, watcher, root, [] {});
}

TEST(FileNotifyLimits, LostEventsWithOverflowMarkerAreRescanned)
{
    auto controlled =
        std::make_unique<ControlledWatcher>(std::make_unique<FileNotify::InotifyWatcher>());
    ControlledWatcher& watcher = *controlled;
    Harness h(FileNotify::Options(), std::move(controlled));
    TempDir root("fn-lost");
    root.MkDir("old");
    ExpectRescanAfterLoss(h, watcher, root, [&] { watcher.LoseAndOverflow(); });
}

// Runs inside a user namespace of its own (the test starts itself there),
// where the watch limit can be lowered without touching anyone else's.
TEST(FileNotifyLimits, WatchExhaustionWarnsOnceAndKeepsTheRest)
{
    if (std::getenv("ARDENT_FN_USERNS") == nullptr) {
        if (TestSupport::RunCommand("unshare --user --map-root-user true >/dev/null 2>&1") != 0) {
            GTEST_SKIP() << "user namespaces are not available, so the watch limit cannot be "
                            "lowered for this test alone";
        }
        char self[4096];
        ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
        ASSERT_GT(n, 0);
        self[n] = '\0';
        std::string out;
        int rc = TestSupport::RunCommand(
            std::string("ARDENT_FN_USERNS=1 unshare --user --map-root-user '") + self +
                "' --gtest_filter=FileNotifyLimits.WatchExhaustionWarnsOnceAndKeepsTheRest 2>&1",
            &out);
        EXPECT_EQ(0, rc) << out;
        EXPECT_NE(std::string::npos, out.find("[  PASSED  ] 1 test")) << out;
        return;
    }

    ASSERT_TRUE(WriteNumber("/proc/sys/user/max_inotify_watches", "4"));
    Harness h;
    TempDir root("fn-enospc");
    for (const char* dir : {"a", "b", "c", "d", "e", "f"}) {
        root.MkDir(dir);
    }
    ASSERT_TRUE(h.Watch(root.Path(), 0, 1, 4));
    ASSERT_TRUE(WaitFor([&] { return h.log().Count("fs.inotify.max_user_watches", Poco::Message::PRIO_WARNING) == 1; }));
    const std::string warning = h.log().Texts("max_user_watches", Poco::Message::PRIO_WARNING).at(0);
    EXPECT_NE(std::string::npos, warning.find(root.Path())) << warning;
    EXPECT_NE(std::string::npos, warning.find("kept 4 directory watches")) << warning;
    EXPECT_NE(std::string::npos, warning.find("3 directories are not watched")) << warning;
    EXPECT_EQ(4u, h.task().Watches());

    // The rest keeps working: a file in the root, and a directory moved in
    // that cannot be watched still has its files reported. No second warning.
    TempDir staging("fn-enospc-staging");
    staging.Write("g/x.php", "x");
    ASSERT_EQ(0, rename(staging.Join("g").c_str(), root.Join("g").c_str()));
    ASSERT_TRUE(WriteFile(root.Join("top.php")));
    ASSERT_TRUE(WaitPath(h.consumer(), root.Join("top.php")));
    ASSERT_TRUE(WaitPath(h.consumer(), root.Join("g/x.php")));
    EXPECT_EQ(1u, h.log().Count("max_user_watches", Poco::Message::PRIO_WARNING));
}
