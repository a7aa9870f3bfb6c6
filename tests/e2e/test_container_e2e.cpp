// Containers end to end: the real `ardent-agent run --host-root DIR` follows
// a Docker container laid out under DIR as on a Docker host, reports a web
// shell written into it with the container's name, image and in-container
// path, lets go of it when it stops, and shows it in `ctl status`. A second
// test does the same with a real process in mount and pid namespaces of its
// own, reached through /proc. The rest run real runtimes from the
// distribution (Docker over its own containerd, containerd alone, Podman),
// every daemon's state in the test's temporary directory: the containers'
// names and images, shells written by `exec` inside them, their removal.
// A runtime that is not installed or cannot start here is skipped.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "FakeHost.h"
#include "Namespaces.h"
#include "testsupport/TestSupport.h"

namespace {

using ContainerTest::FakeHost;
using ContainerTest::HexId;
using TestSupport::kShell;
using TestSupport::kShellRules;
using TestSupport::TempDir;
using TestSupport::WaitFor;

const std::vector<std::string> kModules{"container", "webshell", "filenotify", "report", "asset"};

// Events about a container file: "file_info" is then the file object.
std::vector<Json::Value> ContainerEvents(const std::string& sink, const std::string& container,
                                         const std::string& path)
{
    std::vector<Json::Value> out;
    for (const auto& event : TestSupport::ReadEvents(sink)) {
        if (event["container_name"].asString() == container && event["file_info"].isObject() &&
            event["file_info"]["file_path"].asString() == path) {
            out.push_back(event);
        }
    }
    return out;
}

bool IsWatched(const std::string& install, const std::string& path)
{
    return TestSupport::WatchedRoots(TestSupport::CtlStatus(install)).count(path) == 1;
}

std::string PolicyText(const std::vector<std::string>& paths, const std::string& hostRoot,
                       const std::string& rules)
{
    Json::Value policy = TestSupport::WebshellPolicy({hostRoot}, rules);
    for (const auto& p : paths) {
        policy["content"]["default_scan_paths"].append(p);
    }
    policy["content"]["monitor_file_change"] = true;
    policy["content"]["monitor_container"] = true;
    return Json::FastWriter().write(policy);
}

// A daemon the test started, stopped by its pid: SIGTERM, then SIGKILL.
class Daemon {
public:
    Daemon(const std::string& command, const std::string& log)
    {
        const std::string script = "exec " + command + " >'" + log + "' 2>&1";
        const char* argv[] = {"sh", "-c", script.c_str(), nullptr};
        if (posix_spawnp(&m_pid, "sh", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) {
            m_pid = -1;
        }
    }
    ~Daemon() { Stop(SIGTERM); }
    bool Running() const { return m_pid > 0 && waitpid(m_pid, nullptr, WNOHANG) == 0; }
    void Stop(int sig)
    {
        if (m_pid <= 0) {
            return;
        }
        kill(m_pid, sig);
        if (!WaitFor([&] { return waitpid(m_pid, nullptr, WNOHANG) != 0; }, 15000)) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        m_pid = -1;
    }

private:
    pid_t m_pid = -1;
};

// `command`'s exit status; its output (stdout and stderr) into `out`. Every
// runtime command is run under `timeout`: a hung runtime fails the test.
int Shell(const std::string& command, std::string* out = nullptr)
{
    std::string text;
    const int rc = TestSupport::RunCommand(command + " 2>&1", &text);
    if (out != nullptr) {
        *out = text;
    }
    return rc;
}

bool Installed(const std::vector<std::string>& tools, std::string& missing)
{
    for (const auto& t : tools) {
        if (Shell("command -v " + t + " >/dev/null") != 0) {
            missing = t;
            return false;
        }
    }
    return true;
}

// The container `name` as `ctl status` lists it, or null.
Json::Value Listed(const std::string& install, const std::string& name)
{
    const Json::Value status = TestSupport::CtlStatus(install);
    for (const auto& c : status["components"]["container"]["containers"]) {
        if (c["name"].asString() == name) {
            return c;
        }
    }
    return Json::Value();
}

class ContainerE2E : public ::testing::Test {
protected:
    // Starts the agent on `hostRoot` with the policy paths `paths`.
    void StartAgent(const std::string& hostRoot, const std::vector<std::string>& paths)
    {
        m_install = TestSupport::MakeInstallTree(m_dir, kModules);
        const std::string rules = m_dir.Write("rules/webshell.yar", kShellRules);
        // The library is in place before the start, as on a host that has
        // run before: the file-change task loads it at its first watch
        // registration, which needs one existing web root of the host.
        std::ofstream(m_install + "data/webshell/webshell.dat") << kShellRules;
        const std::string hostWww = m_dir.MkDir("host-www");
        const std::string policy = m_dir.Write("policy.json", PolicyText(paths, hostWww, rules));
        m_events = m_dir.Join("events.jsonl");
        ASSERT_TRUE(m_agent.Start({"run", "--install-dir", m_install, "--policy", policy, "--events",
                                   m_events, "--host-root", hostRoot}));
        ASSERT_TRUE(WaitFor(
            [&] { return TestSupport::FileExists(m_install + "data/webshell/webshell.dat"); }, 30000))
            << m_agent.Stderr();
    }

    std::string Diagnostics()
    {
        return "events:\n" + (TestSupport::FileExists(m_events) ? TestSupport::ReadFile(m_events) : "") +
               "\nagent stderr:\n" + m_agent.Stderr();
    }

    // A runtime's daemons and containers go at the end of its test, even a
    // failed one; what they left mounted in the temporary directory too.
    void TearDown() override
    {
        for (auto it = m_cleanup.rbegin(); it != m_cleanup.rend(); ++it) {
            Shell(*it);
        }
        while (!m_daemons.empty()) {
            m_daemons.pop_back();
        }
        std::ifstream mounts("/proc/self/mounts");
        std::vector<std::string> under;
        std::string line;
        while (std::getline(mounts, line)) {
            std::istringstream fields(line);
            std::string device;
            std::string point;
            fields >> device >> point;
            if (point.compare(0, m_dir.Path().size() + 1, m_dir.Path() + "/") == 0) {
                under.push_back(point);
            }
        }
        std::sort(under.rbegin(), under.rend());
        for (const auto& point : under) {
            umount2(point.c_str(), MNT_DETACH);
        }
        if (m_agent.Running()) {
            m_agent.Stop(15, 20000);
        }
    }

    // The image every runtime runs: a static busybox and an empty web root.
    std::string ImageTarball()
    {
        m_dir.MkDir("image/bin");
        m_dir.MkDir("image/tmp");
        m_dir.MkDir("image/var/www/html");
        const std::string tar = m_dir.Join("image.tar");
        Shell("cp /bin/busybox '" + m_dir.Join("image/bin/busybox") + "' && tar -C '" +
            m_dir.Join("image") + "' -cf '" + tar + "' .");
        return tar;
    }

    // Starts a daemon; true once `ready` answers 0, within 30 s.
    bool StartDaemon(const std::string& command, const std::string& ready, const std::string& log)
    {
        m_daemons.push_back(std::make_unique<Daemon>(command, log));
        Daemon& d = *m_daemons.back();
        return WaitFor([&] { return !d.Running() || Shell(ready) == 0; }, 30000) && d.Running();
    }

    std::string Tail(const std::string& log)
    {
        std::string text = TestSupport::FileExists(log) ? TestSupport::ReadFile(log) : "";
        return text.size() > 2000 ? text.substr(text.size() - 2000) : text;
    }

    // A separately started containerd, all its state under m_dir.
    bool StartContainerd(std::string& why)
    {
        m_containerdSock = m_dir.Join("cd/sock");
        m_dir.MkDir("cd");
        const std::string log = m_dir.Join("cd/log");
        if (!StartDaemon("containerd --root '" + m_dir.Join("cd/root") + "' --state '" +
                             m_dir.Join("cd/state") + "' --address '" + m_containerdSock + "'",
                         "timeout 10 ctr -a '" + m_containerdSock + "' version", log)) {
            why = "containerd did not start:\n" + Tail(log);
            return false;
        }
        return true;
    }

    bool StartDocker(std::string& why)
    {
        if (!StartContainerd(why)) {
            return false;
        }
        const std::string sock = m_dir.Join("dd/sock");
        m_dir.MkDir("dd");
        const std::string log = m_dir.Join("dd/log");
        m_docker = "timeout 60 /usr/bin/docker -H unix://" + sock;
        if (!StartDaemon("dockerd -H unix://" + sock + " --data-root '" + m_dir.Join("dd/data") +
                             "' --exec-root '" + m_dir.Join("dd/exec") + "' --pidfile '" +
                             m_dir.Join("dd/pid") + "' --containerd '" + m_containerdSock +
                             "' --iptables=false --ip6tables=false --bridge=none "
                             "--ip-forward=false --ip-masq=false "
                             "--exec-opt native.cgroupdriver=cgroupfs",
                         m_docker + " version", log)) {
            why = "dockerd did not start:\n" + Tail(log);
            return false;
        }
        std::string out;
        if (Shell(m_docker + " import '" + ImageTarball() + "' webimg:1", &out) != 0) {
            why = "docker import failed: " + out;
            return false;
        }
        return true;
    }

    // `run` starts container `name`; false (and why) when the runtime refuses.
    bool RunContainer(const std::string& run, const std::string& remove, std::string& why)
    {
        m_cleanup.push_back(remove);
        std::string out;
        if (Shell(run, &out) != 0) {
            why = "the runtime cannot run a container here: " + out;
            return false;
        }
        return true;
    }

    // `exec` writes a shell into the container's web root as `file`; the
    // agent reports it once with the container's name and image.
    void ExpectShellReported(const std::string& exec, const std::string& name,
                             const std::string& image, const std::string& file)
    {
        std::string out;
        // Quoted twice (our shell, the container's): only the rule's marker.
        ASSERT_EQ(0, Shell(exec + " /bin/busybox sh -c \"echo '<?php /* E2E_SHELL_MARKER */ ?>' > "
                                "/var/www/html/" + file + "\"",
                         &out))
            << out;
        const std::string path = "/var/www/html/" + file;
        ASSERT_TRUE(WaitFor([&] { return !ContainerEvents(m_events, name, path).empty(); }, 15000))
            << name << "\n" << Diagnostics();
        const Json::Value event = ContainerEvents(m_events, name, path)[0];
        if (!image.empty()) {
            EXPECT_EQ(event["image_name"].asString(), image) << event;
        }
    }

    // Waits until the agent follows `name` (runtime `runtime`, image `image`)
    // and watches its web root.
    void ExpectFollowed(const std::string& name, const std::string& runtime,
                        const std::string& image)
    {
        Json::Value c;
        ASSERT_TRUE(WaitFor(
            [&] {
                c = Listed(m_install, name);
                return c.isObject() && IsWatched(m_install, c["rootPath"].asString() + "/var/www/html");
            },
            30000))
            << name << "\n" << TestSupport::CtlStatus(m_install)["components"]["container"] << Diagnostics();
        EXPECT_EQ(c["runtime"].asString(), runtime);
        if (!image.empty()) {
            EXPECT_EQ(c["image"].asString(), image);
        }
    }

    void ExpectGone(const std::string& name)
    {
        EXPECT_TRUE(WaitFor([&] { return Listed(m_install, name).isNull(); }, 30000))
            << name << "\n" << Diagnostics();
    }

    TempDir m_dir{"e2e-container"};
    std::string m_install;
    std::string m_events;
    TestSupport::AgentProcess m_agent;
    std::vector<std::unique_ptr<Daemon>> m_daemons;
    std::vector<std::string> m_cleanup;  // run in reverse order at the end
    std::string m_containerdSock;
    std::string m_docker;
};

}  // namespace

TEST_F(ContainerE2E, ADockerContainerIsWatchedReportedAndReleasedWhenItStops)
{
    FakeHost host;
    StartAgent(host.Root(), {"/var/www/html"});

    const std::string id = HexId(1);
    const std::string bundle = host.StartDocker(id, "/web1", 4242);
    const std::string rootfs = bundle + "/rootfs";
    ASSERT_TRUE(WaitFor([&] { return IsWatched(m_install, rootfs + "/var/www/html"); }, 30000, 100))
        << Diagnostics();

    // `ctl status` shows the followed container and its subscriber.
    Json::Value container = TestSupport::CtlStatus(m_install)["components"]["container"];
    ASSERT_EQ(container["containers"].size(), 1u) << container;
    EXPECT_EQ(container["containers"][0]["name"].asString(), "web1");
    EXPECT_EQ(container["containers"][0]["image"].asString(), "nginx:1.25");
    EXPECT_EQ(container["containers"][0]["rootPath"].asString(), rootfs);
    EXPECT_EQ(container["containers"][0]["runtime"].asString(), "docker");
    EXPECT_EQ(container["subscribers"].asInt(), 1);

    // A web shell written into the container's web root.
    host.Dir().Write(FakeHost::BundleRel("moby", id) + "/rootfs/var/www/html/x.php", kShell);
    ASSERT_TRUE(WaitFor([&] { return !ContainerEvents(m_events, "web1", "/var/www/html/x.php").empty(); },
                        10000))
        << Diagnostics();
    const Json::Value event = ContainerEvents(m_events, "web1", "/var/www/html/x.php")[0];
    EXPECT_EQ(event["image_name"].asString(), "nginx:1.25");
    EXPECT_EQ(event["resource_info"]["container_id"].asString(), id);
    EXPECT_EQ(event["resource_info"]["image_id"].asString(), "sha256:" + HexId(99));

    // It stops: its watch goes, and the status no longer lists it.
    host.StopProcess(4242);
    ASSERT_TRUE(WaitFor(
        [&] {
            Json::Value status = TestSupport::CtlStatus(m_install);
            return status.isObject() && TestSupport::WatchedRoots(status).count(rootfs + "/var/www/html") == 0 &&
                   status["components"]["container"]["containers"].size() == 0;
        },
        30000, 100))
        << Diagnostics();

    // A write into the stopped container is not reported; a shell in a
    // second, running container is, and once it is, the first would have
    // been too.
    host.Dir().Write(FakeHost::BundleRel("moby", id) + "/rootfs/var/www/html/y.php", kShell);
    const std::string id2 = HexId(2);
    const std::string rootfs2 = host.StartDocker(id2, "/web2", 4343, "php:8.2-apache") + "/rootfs";
    ASSERT_TRUE(WaitFor([&] { return IsWatched(m_install, rootfs2 + "/var/www/html"); }, 30000, 100))
        << Diagnostics();
    host.Dir().Write(FakeHost::BundleRel("moby", id2) + "/rootfs/var/www/html/z.php", kShell);
    ASSERT_TRUE(WaitFor([&] { return !ContainerEvents(m_events, "web2", "/var/www/html/z.php").empty(); },
                        10000))
        << Diagnostics();
    EXPECT_EQ(ContainerEvents(m_events, "web2", "/var/www/html/z.php")[0]["image_name"].asString(),
              "php:8.2-apache");
    EXPECT_TRUE(ContainerEvents(m_events, "web1", "/var/www/html/y.php").empty()) << Diagnostics();
    EXPECT_EQ(ContainerEvents(m_events, "web1", "/var/www/html/x.php").size(), 1u);

    EXPECT_EQ(0, m_agent.Stop(15, 20000)) << m_agent.Stderr();
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
    pid_t unsharePid = ContainerTest::SpawnInNamespaces(script);
    ASSERT_GT(unsharePid, 0);
    long pid = 0;
    auto cleanup = [&] {
        if (pid > 0) {
            kill(static_cast<pid_t>(pid), SIGKILL);
        }
        if (unsharePid > 0) {
            kill(unsharePid, SIGKILL);
            int status = 0;
            waitpid(unsharePid, &status, 0);
            unsharePid = -1;
        }
    };
    const bool up = WaitFor([&] {
        std::ifstream children("/proc/" + std::to_string(unsharePid) + "/task/" +
                               std::to_string(unsharePid) + "/children");
        children >> pid;
        return pid > 0 && TestSupport::FileExists("/proc/" + std::to_string(pid) + "/root" + webPath);
    });
    if (!up) {
        cleanup();
        FAIL() << "the namespaced process did not come up";
    }

    Json::Value config = ContainerTest::OciConfig("");
    config["annotations"]["nerdctl/name"] = "ns-web";
    const std::string id = HexId(3);
    host.Bundle("default", id, pid, config);
    host.Remove(FakeHost::BundleRel("default", id) + "/rootfs");
    const std::string procRoot = host.Path("proc/" + std::to_string(pid) + "/root");

    StartAgent(host.Root(), {"/var/www/html", webPath});
    if (!HasFatalFailure()) {
        const bool watched =
            WaitFor([&] { return IsWatched(m_install, procRoot + webPath); }, 30000, 100);
        EXPECT_TRUE(watched) << Diagnostics();
        if (watched) {
            // Written through /proc/PID/root into the namespace's tmpfs: the
            // host path of the same name stays empty.
            std::ofstream(procRoot + webPath + "/x.php") << kShell;
            EXPECT_FALSE(TestSupport::FileExists(webPath + "/x.php"));
            EXPECT_TRUE(WaitFor(
                [&] { return !ContainerEvents(m_events, "ns-web", webPath + "/x.php").empty(); },
                10000))
                << Diagnostics();
        }
    }
    cleanup();
    if (m_agent.Running()) {
        EXPECT_EQ(0, m_agent.Stop(15, 20000)) << m_agent.Stderr();
    }
}

TEST_F(ContainerE2E, RealDockerContainersBeforeAndAfterTheAgentAreNamedAndScanned)
{
    std::string why;
    if (geteuid() != 0 || !Installed({"dockerd", "containerd", "/usr/bin/docker"}, why)) {
        GTEST_SKIP() << "needs root and Docker (docker.io, containerd): missing " << why;
    }
    if (!StartDocker(why) ||
        !RunContainer(m_docker + " run -d --network none --name before webimg:1 /bin/busybox sleep 600",
                      m_docker + " rm -f before", why)) {
        GTEST_SKIP() << why;
    }
    StartAgent("/", {"/var/www/html"});
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(RunContainer(m_docker + " run -d --network none --name after webimg:1 /bin/busybox sleep 600",
                             m_docker + " rm -f after", why))
        << why;
    for (const char* name : {"before", "after"}) {
        ExpectFollowed(name, "docker", "webimg:1");
        ExpectShellReported(m_docker + " exec " + name, name, "webimg:1", "x.php");
    }
    ASSERT_EQ(0, Shell(m_docker + " rm -f after"));
    ExpectGone("after");
    EXPECT_FALSE(Listed(m_install, "before").isNull());
    EXPECT_EQ(ContainerEvents(m_events, "after", "/var/www/html/x.php").size(), 1u) << Diagnostics();
    EXPECT_EQ(ContainerEvents(m_events, "before", "/var/www/html/x.php").size(), 1u) << Diagnostics();
}

TEST_F(ContainerE2E, RealContainerdContainerIsFollowedThroughTheDeathOfItsDaemon)
{
    std::string why;
    if (geteuid() != 0 || !Installed({"dockerd", "containerd", "ctr", "/usr/bin/docker"}, why)) {
        GTEST_SKIP() << "needs root, containerd and Docker (to build the image): missing " << why;
    }
    if (!StartDocker(why)) {
        GTEST_SKIP() << why;
    }
    const std::string ctr = "timeout 60 ctr -a '" + m_containerdSock + "' -n e2e";
    std::string out;
    ASSERT_EQ(0, Shell(m_docker + " save webimg:1 | " + ctr + " images import -", &out)) << out;
    const std::string image = "docker.io/library/webimg:1";
    if (!RunContainer(ctr + " run -d --runtime io.containerd.runc.v2 " + image + " plain /bin/busybox sleep 600",
                      ctr + " task kill -s KILL plain; " + ctr + " task rm -f plain; " + ctr +
                          " containers rm plain",
                      why)) {
        GTEST_SKIP() << why;
    }
    StartAgent("/", {"/var/www/html"});
    ASSERT_FALSE(HasFatalFailure());
    // containerd keeps the image of a container only in its database: the
    // name is the container's id.
    ExpectFollowed("plain", "containerd", "");
    ExpectShellReported(ctr + " task exec --exec-id w1 plain", "plain", "", "x.php");

    // containerd dies; its shim and the container live on and stay followed.
    const Json::Value before = Listed(m_install, "plain");
    m_daemons.front()->Stop(SIGKILL);
    const Json::Int64 polls = TestSupport::CtlStatus(m_install)["components"]["container"]["polls"].asInt64();
    ASSERT_TRUE(WaitFor(
        [&] { return TestSupport::CtlStatus(m_install)["components"]["container"]["polls"].asInt64() > polls + 1; },
        15000));
    EXPECT_EQ(Listed(m_install, "plain"), before);
    std::ofstream(before["rootPath"].asString() + "/var/www/html/y.php") << kShell;
    EXPECT_TRUE(WaitFor([&] { return !ContainerEvents(m_events, "plain", "/var/www/html/y.php").empty(); },
                        15000))
        << Diagnostics();

    // Back up on the same state, it removes the container.
    ASSERT_TRUE(StartDaemon("containerd --root '" + m_dir.Join("cd/root") + "' --state '" +
                                m_dir.Join("cd/state") + "' --address '" + m_containerdSock + "'",
                            "timeout 10 ctr -a '" + m_containerdSock + "' version", m_dir.Join("cd/log2")));
    Shell(m_cleanup.back());
    ExpectGone("plain");
    EXPECT_EQ(ContainerEvents(m_events, "plain", "/var/www/html/x.php").size(), 1u) << Diagnostics();
}

TEST_F(ContainerE2E, RealPodmanContainersAreNamedFromTheirStorageAndScanned)
{
    std::string why;
    if (geteuid() != 0 || !Installed({"podman", "conmon", "/usr/sbin/runc"}, why)) {
        GTEST_SKIP() << "needs root and Podman with runc: missing " << why;
    }
    const std::string conf = m_dir.Write("containers.conf", "[containers]\ndefault_ulimits = []\n");
    const std::string podman = "CONTAINERS_CONF='" + conf +
                               "' timeout 60 podman --cgroup-manager cgroupfs --runtime /usr/sbin/runc --root '" +
                               m_dir.Join("p/root") + "' --runroot '" + m_dir.Join("p/run") +
                               "' --tmpdir '" + m_dir.Join("p/tmp") + "'";
    std::string out;
    if (Shell(podman + " import '" + ImageTarball() + "' webimg:1", &out) != 0 ||
        !RunContainer(podman + " run -d --network none --name before webimg:1 /bin/busybox sleep 600",
                      podman + " rm -f -t 0 before", why)) {
        GTEST_SKIP() << "Podman cannot run a container here: " << out << why;
    }
    StartAgent("/", {"/var/www/html"});
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(RunContainer(podman + " run -d --network none --name after webimg:1 /bin/busybox sleep 600",
                             podman + " rm -f -t 0 after", why))
        << why;
    for (const char* name : {"before", "after"}) {
        ExpectFollowed(name, "podman", "localhost/webimg:1");
        ExpectShellReported(podman + " exec " + name, name, "localhost/webimg:1", "x.php");
    }
    ASSERT_EQ(0, Shell(podman + " rm -f -t 0 after"));
    ExpectGone("after");
    EXPECT_EQ(ContainerEvents(m_events, "after", "/var/www/html/x.php").size(), 1u) << Diagnostics();
}
