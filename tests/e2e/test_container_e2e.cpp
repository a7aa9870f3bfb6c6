// Containers end to end: the real `ardent-agent run --host-root DIR` follows
// a Docker container laid out under DIR as on a Docker host, reports a web
// shell written into it with the container's name, image and in-container
// path, lets go of it when it stops, and shows it in `ctl status`. A second
// test does the same with a real process in mount and pid namespaces of its
// own, reached through /proc. Real runtimes are in test_runtimes_e2e.cpp.

#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "FakeHost.h"
#include "E2e.h"
#include "RealServer.h"

namespace {

using ContainerTest::FakeHost;
using ContainerTest::HexId;
using TestSupport::kShell;
using TestSupport::kShellRules;
using TestSupport::TempDir;
using TestSupport::WaitFor;

using E2e::ContainerEvents;

bool IsWatched(const std::string& install, const std::string& path)
{
    return TestSupport::WatchedRoots(TestSupport::CtlStatus(install)).count(path) == 1;
}

class ContainerE2E : public ::testing::Test {
protected:
    // Starts the agent on `hostRoot` with the policy paths `paths`.
    void StartAgent(const std::string& hostRoot, const std::vector<std::string>& paths)
    {
        const std::string rules = m_dir.Write("rules/webshell.yar", kShellRules);
        // The library is in place before the start, as on a host that has
        // run before: the file-change task loads it at its first watch
        // registration, which needs one existing web root of the host.
        m_agent.InstallRules(kShellRules);
        Json::Value policy = TestSupport::WebshellPolicy({m_dir.MkDir("host-www")}, rules);
        for (const auto& p : paths) {
            policy["content"]["default_scan_paths"].append(p);
        }
        policy["content"]["monitor_file_change"] = policy["content"]["monitor_container"] = true;
        ASSERT_TRUE(m_agent.Start(policy, {"--host-root", hostRoot}));
    }

    TempDir m_dir{"e2e-container"};
    E2e::Agent m_agent{m_dir, {"container", "webshell", "filenotify", "report", "asset"}};
    const std::string& m_install = m_agent.install;
    const std::string& m_events = m_agent.events;
};

}  // namespace

TEST_F(ContainerE2E, ADockerContainerIsWatchedReportedAndReleasedWhenItStops)
{
    FakeHost host;
    StartAgent(host.Root(), {"/var/www/html"});

    // Beside it, a pod's container and a bundle that cannot be read.
    host.StartK8s(HexId(4), "shop-1", "prod", "php", "shop:2", 300);
    const std::string broken = host.Dir().Write(FakeHost::BundleRel("k8s.io", HexId(5)) + "/config.json", "{");
    const std::string id = HexId(1);
    const std::string bundle = host.StartDocker(id, "/web1", 4242);
    const std::string rootfs = bundle + "/rootfs";
    ASSERT_TRUE(WaitFor([&] { return IsWatched(m_install, rootfs + "/var/www/html"); }, 30000, 100))
        << m_agent.Diagnostics();

    // `ctl status` shows the followed containers (in id order), their
    // subscriber and the bundle it could not read.
    Json::Value container;
    ASSERT_TRUE(WaitFor([&] {
        container = E2e::Component(m_install, "container");
        return container["containers"].size() == 2 && container["problems"].size() == 1;
    })) << container;
    const Json::Value& c = container["containers"][1];
    EXPECT_EQ(c["name"].asString() + " " + c["image"].asString() + " " + c["runtime"].asString() + " " +
                  c["pid"].asString(),
              "web1 nginx:1.25 docker 4242");
    EXPECT_EQ(c["rootPath"].asString(), rootfs);
    EXPECT_EQ(container["containers"][0]["pod"].asString(), "prod/shop-1");
    EXPECT_EQ(container["subscribers"].asInt(), 1);
    EXPECT_EQ(container["host_root"].asString(), host.Root());
    EXPECT_GT(container["last_poll_ms"].asInt64(), 0);
    EXPECT_EQ(container["problems"][0]["path"].asString(), broken);

    // A web shell written into the container's web root.
    host.Dir().Write(FakeHost::BundleRel("moby", id) + "/rootfs/var/www/html/x.php", kShell);
    ASSERT_TRUE(WaitFor([&] { return !ContainerEvents(m_events, "web1", "/var/www/html/x.php").empty(); },
                        10000))
        << m_agent.Diagnostics();
    const Json::Value event = ContainerEvents(m_events, "web1", "/var/www/html/x.php")[0];
    EXPECT_EQ(event["image_name"].asString(), "nginx:1.25");
    EXPECT_EQ(event["resource_info"]["container_id"].asString(), id);
    EXPECT_EQ(event["resource_info"]["image_id"].asString(), "sha256:" + HexId(99));

    // It stops: its watch goes, and the status lists only the pod's.
    host.StopProcess(4242);
    ASSERT_TRUE(WaitFor(
        [&] {
            Json::Value status = TestSupport::CtlStatus(m_install);
            return status.isObject() && TestSupport::WatchedRoots(status).count(rootfs + "/var/www/html") == 0 &&
                   status["components"]["container"]["containers"].size() == 1;
        },
        30000, 100))
        << m_agent.Diagnostics();
    EXPECT_EQ(ContainerEvents(m_events, "web1", "/var/www/html/x.php").size(), 1u);
    EXPECT_EQ(0, m_agent.process.Stop(15, 20000)) << m_agent.process.Stderr();
}

TEST_F(ContainerE2E, ARealProcessInItsOwnMountNamespaceIsFollowedThroughProc)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to make mount and pid namespaces";
    }
    if (TestSupport::RunCommand("unshare --mount --pid --fork true 2>/dev/null") != 0) {
        GTEST_SKIP() << "unshare --mount --pid --fork is not permitted on this machine";
    }
    // The host tree's /proc is the real one; the bundle has no rootfs, so the
    // container's root is the process's own, /proc/PID/root.
    FakeHost host;
    host.Dir().Symlink("/proc", "proc");
    // Empty on the host; inside the namespace a tmpfs covers it and holds
    // the web root.
    TempDir covered("ardent-ns-www");
    const std::string webPath = covered.Path() + "/var/www/html";
    const std::string script = "mount -t tmpfs tmpfs '" + covered.Path() + "' && mkdir -p '" +
                               webPath + "' && exec sleep 300";
    // Stopped with SIGKILL: the namespace's first process ignores a SIGTERM
    // sent from outside it.
    AssetTest::ServerProcess ns;
    ASSERT_TRUE(ns.Start(AssetTest::FindProgram("unshare"),
                         {"unshare", "--mount", "--pid", "--fork", "--propagation", "private", "sh", "-c", script},
                         "/dev/null"));
    long pid = 0;
    ASSERT_TRUE(WaitFor([&] {
        std::ifstream children("/proc/" + std::to_string(ns.Pid()) + "/task/" + std::to_string(ns.Pid()) +
                               "/children");
        children >> pid;
        return pid > 0 && TestSupport::FileExists("/proc/" + std::to_string(pid) + "/root" + webPath);
    })) << "the namespaced process did not come up";

    Json::Value config = ContainerTest::OciConfig("");
    config["annotations"]["nerdctl/name"] = "ns-web";
    const std::string id = HexId(3);
    host.Bundle("default", id, pid, config);
    host.Remove(FakeHost::BundleRel("default", id) + "/rootfs");
    const std::string procRoot = host.Path("proc/" + std::to_string(pid) + "/root");

    StartAgent(host.Root(), {"/var/www/html", webPath});
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(WaitFor([&] { return IsWatched(m_install, procRoot + webPath); }, 30000, 100))
        << m_agent.Diagnostics();
    // Written through /proc/PID/root into the namespace's tmpfs: the host
    // path of the same name stays empty.
    std::ofstream(procRoot + webPath + "/x.php") << kShell;
    EXPECT_FALSE(TestSupport::FileExists(webPath + "/x.php"));
    EXPECT_TRUE(WaitFor([&] { return !ContainerEvents(m_events, "ns-web", webPath + "/x.php").empty(); }, 10000))
        << m_agent.Diagnostics();
    ns.Stop(SIGKILL);
    EXPECT_EQ(0, m_agent.process.Stop(15, 20000)) << m_agent.process.Stderr();
}
