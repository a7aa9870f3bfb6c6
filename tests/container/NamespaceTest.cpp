// A real process in mount and pid namespaces of its own, set up as a
// containerd container would be, is found through /proc: its root file
// system, which the host cannot see at the same paths, is reached through
// /proc/PID/root.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "ContainerCollector.h"
#include "FakeHost.h"
#include "Namespaces.h"
#include "testsupport/TestSupport.h"


using namespace ContainerTest;

namespace {

// The first child of `parent`, as the host numbers it; 0 when none yet.
long FirstChild(pid_t parent)
{
    std::ifstream in("/proc/" + std::to_string(parent) + "/task/" + std::to_string(parent) +
                     "/children");
    long child = 0;
    in >> child;
    return child;
}

}  // namespace

TEST(ContainerNamespace, ARealProcessInItsOwnMountNamespaceIsFoundThroughProc)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to make mount and pid namespaces";
    }
    if (TestSupport::RunCommand("unshare --mount --pid --fork true 2>/dev/null") != 0) {
        GTEST_SKIP() << "unshare --mount --pid --fork is not permitted on this machine";
    }

    FakeHost host;
    host.Dir().Symlink("/proc", "proc");  // the fake host's /proc is the real one
    // A directory the host sees empty; inside the namespace a tmpfs covers
    // it and holds the container's web root.
    TestSupport::TempDir covered("ardent-ns-root");
    const std::string web = covered.Path() + "/var/www/html";
    const std::string script = "mount -t tmpfs tmpfs '" + covered.Path() + "' && mkdir -p '" + web +
                               "' && echo '<?php echo 1; ?>' > '" + web +
                               "/index.php' && exec sleep 120";
    pid_t unsharePid = ContainerTest::SpawnInNamespaces(script);
    ASSERT_GT(unsharePid, 0);

    long pid = 0;
    const bool started = TestSupport::WaitFor([&] {
        pid = FirstChild(unsharePid);
        return pid > 0 && TestSupport::FileExists("/proc/" + std::to_string(pid) + "/root" + web +
                                                  "/index.php");
    });
    if (started) {
        const std::string id = HexId(77);
        const std::string bundle = host.Bundle("default", id, pid, OciConfig(""));
        host.Remove(FakeHost::BundleRel("default", id) + "/rootfs");  // mounted elsewhere

        Container::ContainerCollector collector(host.Root(), nullptr);
        auto found = collector.Poll();
        ASSERT_EQ(found.size(), 1u);
        const std::string root = found[0]->rootPath;
        EXPECT_EQ(root, host.Path("proc/" + std::to_string(pid) + "/root"));
        EXPECT_EQ(found[0]->text4, std::to_string(pid));
        // The container's web root is reached through rootPath, and only there.
        EXPECT_EQ(TestSupport::ReadFile(root + web + "/index.php"), "<?php echo 1; ?>\n");
        EXPECT_FALSE(TestSupport::FileExists(web + "/index.php"));

        kill(static_cast<pid_t>(pid), SIGKILL);
        int status = 0;
        waitpid(unsharePid, &status, 0);
        unsharePid = -1;
        auto gone = collector.Poll();
        ASSERT_EQ(gone.size(), 1u);
        EXPECT_FALSE(gone[0]->running);
        EXPECT_EQ(gone[0]->id, id);
    }
    if (unsharePid > 0) {
        if (pid > 0) {
            kill(static_cast<pid_t>(pid), SIGKILL);
        }
        kill(unsharePid, SIGKILL);
        int status = 0;
        waitpid(unsharePid, &status, 0);
    }
    ASSERT_TRUE(started) << "the namespaced process did not come up";
}
