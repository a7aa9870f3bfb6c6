// Real container runtimes from the distribution under the real agent:
// Docker over a separately started containerd, containerd alone (`ctr run`),
// Podman with runc, and a dockerd that runs its own containerd with its
// directories named only in its configuration file. Every daemon runs on its
// own socket with all its state in the test's temporary directory and is
// stopped by the pid the test started; a runtime the machine runs itself is
// never touched. Containers started before and after the agent are followed
// with their names and images, a shell written by `exec` inside one is
// reported within a second and only once, a removed container leaves the
// agent's cache, and a containerd killed under its containers loses none of
// them. A runtime that is missing or cannot start here is skipped with its
// own error text.

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "E2e.h"
#include "RealServer.h"

namespace {

using TestSupport::TempDir;
using TestSupport::WaitFor;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kReportWithinMs = 5000;  // instrumented builds run several times slower
#else
constexpr int kReportWithinMs = 1000;
#endif

// `command`'s exit status, its stdout and stderr into `out`.
int Shell(const std::string& command, std::string* out = nullptr)
{
    return TestSupport::RunCommand(command + " 2>&1", out);
}

// Runs `commands` at once; true when all succeed, their output in `out`.
bool ShellAll(const std::vector<std::string>& commands, std::string& out)
{
    std::string script = "{ rc=0; ";
    for (std::size_t i = 0; i < commands.size(); ++i) {
        script += "( " + commands[i] + " ) & p" + std::to_string(i) + "=$!; ";
    }
    for (std::size_t i = 0; i < commands.size(); ++i) {
        script += "wait $p" + std::to_string(i) + " || rc=1; ";
    }
    return Shell(script + "test $rc = 0; }", &out) == 0;
}

// One runtime as the scenario drives it: shell commands for container NAME.
struct Runtime {
    std::string label;  // "runtime" in the agent's status
    std::string image;  // image_name expected in events ("" when the runtime keeps none on disk)
    std::string run;    // NAME is replaced
    std::string exec;
    std::string remove;
};

std::string ForName(const std::string& text, const std::string& name)
{
    return std::regex_replace(text, std::regex("NAME"), name);
}

class RuntimesE2E : public ::testing::Test {
protected:
    void TearDown() override
    {
        if (m_agent.process.Running()) {
            m_agent.process.Stop(15, 20000);
        }
        for (auto it = m_cleanup.rbegin(); it != m_cleanup.rend(); ++it) {
            Shell(*it);
        }
        while (!m_daemons.empty()) {
            m_daemons.pop_back();  // dockerd before the containerd under it
        }
        // conmon's exit command (`podman container cleanup`) and the shims
        // finish after the runtime's own command returned, and may mount
        // again: wait for every process that names our directory (the
        // bracket keeps pgrep's own shell from matching), then unmount.
        const std::string pattern = "'[/]" + m_dir.Path().substr(1) + "'";
        WaitFor([&] { return Shell("pgrep -f " + pattern + " >/dev/null") != 0; }, 20000, 100);
        Shell("grep -F ' " + m_dir.Path() + "/' /proc/self/mounts | cut -d' ' -f2 | sort -r | xargs -r umount -l");
    }

    bool Installed(const std::string& tools, std::string& why)
    {
        why = geteuid() != 0 ? "needs root"
                             : "needs " + tools + " (scripts/install-deps.sh installs them)";
        return geteuid() == 0 && Shell("for t in " + tools + "; do command -v $t >/dev/null || exit 1; done") == 0;
    }

    static std::string Tail(const std::string& log)
    {
        const std::string text = TestSupport::ReadFile(log);
        return text.substr(text.size() - std::min<size_t>(text.size(), 2000));
    }

    // Starts a daemon; true once `ready` answers, within 30 s. Otherwise
    // `why` holds the daemon's own last words.
    bool StartDaemon(const std::string& name, const std::string& command, const std::string& ready,
                     std::string& why)
    {
        const std::string log = m_dir.Join(name + ".log." + std::to_string(m_daemons.size()));
        m_daemons.push_back(std::make_unique<AssetTest::ServerProcess>());
        AssetTest::ServerProcess& d = *m_daemons.back();
        if (d.Start("/bin/sh", {"sh", "-c", "exec " + command}, log) &&
            WaitFor([&] { return !d.Running() || Shell(ready) == 0; }, 30000, 50) && d.Running()) {
            return true;
        }
        why = name + " did not start:\n" + Tail(log);
        return false;
    }

    std::string ContainerdCommand()
    {
        return "containerd --root '" + m_dir.Join("cd/root") + "' --state '" + m_dir.Join("cd/state") +
               "' --address '" + m_dir.Join("cd/sock") + "'";
    }

    // The image every runtime runs: a static busybox and an empty web root.
    std::string ImageTarball()
    {
        m_dir.MkDir("image/bin");
        m_dir.MkDir("image/tmp");
        m_dir.MkDir("image/var/www/html");
        const std::string tar = m_dir.Join("image.tar");
        Shell("cp /bin/busybox '" + m_dir.Join("image/bin/busybox") + "' && tar -C '" + m_dir.Join("image") +
              "' -cf '" + tar + "' .");
        return tar;
    }

    void StartAgent()
    {
        const std::string rules = m_dir.Write("rules/webshell.yar", TestSupport::kShellRules);
        m_agent.InstallRules(TestSupport::kShellRules);
        Json::Value policy = TestSupport::WebshellPolicy({m_dir.MkDir("host-www")}, rules);
        policy["content"]["default_scan_paths"].append("/var/www/html");
        policy["content"]["monitor_file_change"] = true;
        policy["content"]["monitor_container"] = true;
        ASSERT_TRUE(m_agent.Start(policy, {"--host-root", "/", "--log-level", "debug"}));
        ASSERT_TRUE(WaitFor([&] { return m_agent.process.Running() && Component("container").isObject(); }, 30000, 50))
            << m_agent.process.Stderr();
    }

    Json::Value Component(const std::string& key) { return m_agent.Component(key); }

    // The containers of this test in the agent's status (it follows the
    // whole host): those whose root is in our directory, or the one named `name`.
    Json::Value Ours(const std::string& name = "")
    {
        Json::Value ours(Json::arrayValue);
        const Json::Value containers = Component("container")["containers"];
        for (const auto& c : containers) {
            if (name.empty() ? c["rootPath"].asString().rfind(m_dir.Path(), 0) == 0 : c["name"].asString() == name) {
                ours.append(c);
            }
        }
        return ours;
    }
    // The container `name` in the agent's status, or null.
    Json::Value Listed(const std::string& name) { return Ours(name)[0]; }

    // Events for the file at `path` inside container `name`.
    std::vector<Json::Value> Reported(const std::string& name, const std::string& path)
    {
        return E2e::ContainerEvents(m_agent.events, name, path);
    }

    std::string Diagnostics()
    {
        return "\ncontainer status: " + Component("container").toStyledString() + m_agent.Diagnostics();
    }

    // Containers "<tag>-before" (running before the agent, with old.php
    // already in its web root) and "<tag>-after" of every runtime: followed,
    // named, scanned, watched, released.
    void Exercise(const std::vector<Runtime>& runtimes)
    {
        const std::string tag = "rt" + std::to_string(getpid());
        auto name = [&](const Runtime& r, const char* when) { return tag + "-" + r.label + "-" + when; };
        auto writeShell = [&](const Runtime& r, const std::string& container, const std::string& file) {
            // Quoted for our shell and the container's: only the rule's marker.
            return ForName(r.exec, container) + " /bin/busybox sh -c \"echo '<?php /* E2E_SHELL_MARKER */ ?>' > " +
                   "/var/www/html/" + file + "\"";
        };
        std::vector<std::string> run;
        std::vector<std::string> remove;
        for (const auto& r : runtimes) {
            for (const char* when : {"before", "after"}) {
                m_cleanup.push_back(ForName(r.remove, name(r, when)));
            }
            run.push_back(ForName(r.run, name(r, "before")) + " && " + writeShell(r, name(r, "before"), "old.php"));
        }
        std::string out;
        if (!ShellAll(run, out)) {
            GTEST_SKIP() << "the runtime cannot run a container here:\n" << out;
        }
        StartAgent();
        ASSERT_FALSE(HasFatalFailure());
        run.clear();
        for (const auto& r : runtimes) {
            run.push_back(ForName(r.run, name(r, "after")));
            remove.push_back(ForName(r.remove, name(r, "after")));
        }
        ASSERT_TRUE(ShellAll(run, out)) << out;

        for (const auto& r : runtimes) {
            for (const char* when : {"before", "after"}) {
                const std::string n = name(r, when);
                Json::Value c;
                ASSERT_TRUE(WaitFor(
                    [&] {
                        c = Listed(n);
                        return c.isObject() &&
                               TestSupport::WatchedRoots(m_agent.Status())
                                       .count(c["rootPath"].asString() + "/var/www/html") == 1;
                    },
                    30000, 100))
                    << n << Diagnostics();
                EXPECT_EQ(c["runtime"].asString(), r.label) << n;
                EXPECT_EQ(c["image"].asString(), r.image) << n;
            }
        }

        // The shell that was there before the agent: found by a pass.
        m_agent.ScanNow();
        for (const auto& r : runtimes) {
            const auto events = Reported(name(r, "before"), "/var/www/html/old.php");
            ASSERT_EQ(events.size(), 1u) << name(r, "before") << Diagnostics();
            EXPECT_EQ(events[0]["image_name"].asString(), r.image);
        }

        // Written inside the running container: reported within a second.
        for (const auto& r : runtimes) {
            for (const char* when : {"before", "after"}) {
                const std::string n = name(r, when);
                ASSERT_EQ(0, Shell(writeShell(r, n, "x.php"), &out)) << out;
                const auto written = std::chrono::steady_clock::now();
                ASSERT_TRUE(WaitFor([&] { return !Reported(n, "/var/www/html/x.php").empty(); }, 10000))
                    << n << Diagnostics();
                const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                                    std::chrono::steady_clock::now() - written).count();
                EXPECT_LE(ms, kReportWithinMs) << n << " reported " << ms << " ms after the write";
                EXPECT_EQ(Reported(n, "/var/www/html/x.php")[0]["image_name"].asString(), r.image);
            }
        }

        // Removed, and a pass at once: between two polls (2 s) the pass
        // meets the vanished roots. The containers leave the status, and
        // nothing about their roots stays in the agent's health.
        ASSERT_TRUE(ShellAll(remove, out)) << out;
        m_agent.ScanNow();
        for (const auto& r : runtimes) {
            const std::string n = name(r, "after");
            EXPECT_TRUE(WaitFor([&] { return Listed(n).isNull(); }, 30000, 100)) << n << Diagnostics();
            EXPECT_FALSE(Listed(name(r, "before")).isNull()) << name(r, "before") << Diagnostics();
        }
        EXPECT_TRUE(WaitFor(
            [&] {
                const Json::Value health = m_agent.Status()["health"];
                return health.isObject() && health.toStyledString().find(m_dir.Path()) == std::string::npos;
            },
            10000, 100))
            << m_agent.Status()["health"];
        // Every pass and every watch saw these files; each is reported once.
        for (const auto& r : runtimes) {
            EXPECT_EQ(Reported(name(r, "before"), "/var/www/html/old.php").size(), 1u);
            EXPECT_EQ(Reported(name(r, "before"), "/var/www/html/x.php").size(), 1u);
            EXPECT_EQ(Reported(name(r, "after"), "/var/www/html/x.php").size(), 1u);
        }
        EXPECT_TRUE(m_agent.process.Running()) << m_agent.process.Stderr();
    }

    TempDir m_dir{"e2e-runtimes"};
    E2e::Agent m_agent{m_dir, {"container", "webshell", "filenotify", "report"}};
    std::vector<std::unique_ptr<AssetTest::ServerProcess>> m_daemons;
    std::vector<std::string> m_cleanup;  // run in reverse order at the end
};

}  // namespace

TEST_F(RuntimesE2E, DockerAndContainerdContainersAreNamedScannedAndOutliveTheirDaemon)
{
    std::string why;
    if (!Installed("dockerd containerd ctr runc /usr/bin/docker", why)) {
        GTEST_SKIP() << why;
    }
    m_dir.MkDir("cd");
    const std::string ctrReady = "timeout 10 ctr -a '" + m_dir.Join("cd/sock") + "' version";
    if (!StartDaemon("containerd", ContainerdCommand(), ctrReady, why)) {
        GTEST_SKIP() << why;
    }
    const std::string docker = "timeout 60 /usr/bin/docker -H unix://" + m_dir.Join("dd.sock");
    if (!StartDaemon("dockerd",
                     "dockerd -H unix://" + m_dir.Join("dd.sock") + " --data-root '" + m_dir.Join("dd/data") +
                         "' --exec-root '" + m_dir.Join("dd/exec") + "' --pidfile '" + m_dir.Join("dd/pid") +
                         "' --containerd '" + m_dir.Join("cd/sock") +
                         "' --iptables=false --ip6tables=false --bridge=none --ip-forward=false "
                         "--ip-masq=false --exec-opt native.cgroupdriver=cgroupfs",
                     docker + " version", why)) {
        GTEST_SKIP() << why;
    }
    // containerd alone runs the same image, in a namespace of its own.
    const std::string ctr = "timeout 60 ctr -a '" + m_dir.Join("cd/sock") + "' -n e2e";
    std::string out;
    if (Shell(docker + " import '" + ImageTarball() + "' webimg:1", &out) != 0 ||
        Shell(docker + " save webimg:1 | " + ctr + " images import -", &out) != 0) {
        GTEST_SKIP() << "cannot make the image: " << out;
    }
    // containerd keeps a container's image only in its database: no image name.
    Exercise({{"docker", "webimg:1", docker + " run -d --network none --name NAME webimg:1 /bin/busybox sleep 600",
               docker + " exec NAME", docker + " rm -f NAME"},
              {"containerd", "",
               ctr + " run -d --runtime io.containerd.runc.v2 docker.io/library/webimg:1 NAME /bin/busybox sleep 600",
               ctr + " task exec --exec-id w$$ NAME", ctr + " task rm -f NAME; " + ctr + " containers rm NAME"}});
    if (HasFatalFailure() || IsSkipped()) {
        return;
    }

    // containerd dies: the shims keep the containers running, and the agent
    // keeps following them and what is written in them.
    const Json::Value before = Ours();
    ASSERT_EQ(before.size(), 2u) << before;
    m_daemons.front()->Stop(SIGKILL);
    const Json::Int64 polls = Component("container")["polls"].asInt64();
    ASSERT_TRUE(WaitFor([&] { return Component("container")["polls"].asInt64() > polls + 2; }, 15000, 50));
    EXPECT_EQ(Ours(), before);
    for (const auto& c : before) {
        std::ofstream(c["rootPath"].asString() + "/var/www/html/y.php") << TestSupport::kShell;
        EXPECT_TRUE(WaitFor([&] { return !Reported(c["name"].asString(), "/var/www/html/y.php").empty(); }, 10000))
            << c["name"] << Diagnostics();
    }
    // Back on the same state, so the runtimes can remove what they started.
    ASSERT_TRUE(StartDaemon("containerd", ContainerdCommand(), ctrReady, why)) << why;
}

TEST_F(RuntimesE2E, DockerWithItsOwnContainerdAndStateNamedInItsConfigFile)
{
    std::string why;
    if (!Installed("dockerd containerd runc /usr/bin/docker", why)) {
        GTEST_SKIP() << why;
    }
    // Only the configuration file says where the state is; the containerd
    // dockerd starts keeps its tasks under the exec root.
    Json::Value config;
    config["data-root"] = m_dir.Join("own/data");
    config["exec-root"] = m_dir.Join("own/exec");
    config["pidfile"] = m_dir.Join("own/pid");
    for (const char* off : {"iptables", "ip6tables", "ip-forward", "ip-masq"}) {
        config[off] = false;
    }
    config["bridge"] = "none";
    config["exec-opts"].append("native.cgroupdriver=cgroupfs");
    const std::string file = m_dir.Write("own/daemon.json", Json::FastWriter().write(config));
    const std::string docker = "timeout 60 /usr/bin/docker -H unix://" + m_dir.Join("own.sock");
    if (!StartDaemon("dockerd", "dockerd -H unix://" + m_dir.Join("own.sock") + " --config-file '" + file + "'",
                     docker + " version", why)) {
        GTEST_SKIP() << why;
    }
    std::string out;
    if (Shell(docker + " import '" + ImageTarball() + "' webimg:2", &out) != 0) {
        GTEST_SKIP() << "docker import failed: " << out;
    }
    Exercise({{"docker", "webimg:2", docker + " run -d --network none --name NAME webimg:2 /bin/busybox sleep 600",
               docker + " exec NAME", docker + " rm -f NAME"}});
    EXPECT_EQ(Ours()[0]["rootPath"].asString().compare(0, m_dir.Join("own/data/").size(), m_dir.Join("own/data/")), 0)
        << Ours();
}

TEST_F(RuntimesE2E, PodmanContainersAreNamedFromTheirStorageAndScanned)
{
    std::string why;
    if (!Installed("podman conmon /usr/sbin/runc", why)) {
        GTEST_SKIP() << why;
    }
    // crun refuses hybrid cgroups; runc and cgroupfs work everywhere.
    const std::string conf = m_dir.Write("containers.conf", "[containers]\ndefault_ulimits = []\n");
    const std::string podman = "CONTAINERS_CONF='" + conf +
                               "' timeout 60 podman --cgroup-manager cgroupfs --runtime /usr/sbin/runc --root '" +
                               m_dir.Join("p/root") + "' --runroot '" + m_dir.Join("p/run") + "' --tmpdir '" +
                               m_dir.Join("p/tmp") + "'";
    std::string out;
    if (Shell(podman + " import '" + ImageTarball() + "' webimg:1", &out) != 0) {
        GTEST_SKIP() << "podman import failed: " << out;
    }
    Exercise({{"podman", "localhost/webimg:1",
               podman + " run -d --network none --name NAME webimg:1 /bin/busybox sleep 600", podman + " exec NAME",
               podman + " rm -f -t 0 NAME"}});
}
