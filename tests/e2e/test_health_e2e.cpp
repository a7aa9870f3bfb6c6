// Health and the agent's own upkeep, through the real binary: the verdict of
// `ctl status` and its exit code follow what the agent cannot do; event
// paths of names that are not UTF-8 stay distinct; the report service drops
// an event another task just reported; directories removed under a running
// agent come back without losing events; the log says who wrote each line.

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <iterator>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <Poco/Base64Decoder.h>
#include <Poco/File.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include "framework/Health.h"
#include "framework/TaskRegistry.h"
#include "testsupport/TestSupport.h"

namespace {

using TestSupport::TempDir;
using TestSupport::WaitFor;

const char* const kRules = R"(
rule health_e2e_certain : certain_webshell
{
    strings:
        $a = "HEALTH_E2E_SHELL_MARKER"
    condition:
        $a
}
rule health_e2e_suspicious
{
    strings:
        $a = "HEALTH_E2E_SUSPICIOUS_MARKER"
    condition:
        $a
}
)";

const std::string kShell = "<?php @eval($_POST['c']); /* HEALTH_E2E_SHELL_MARKER */ ?>\n";

struct Ctl {
    int rc = -1;
    Json::Value status;
    std::string err;
};

Ctl CtlStatus(TempDir& dir, const std::string& install)
{
    Ctl ctl;
    std::string out;
    const std::string errFile = dir.Join("ctl.err");
    ctl.rc = TestSupport::RunCommand(TestSupport::AgentBinary() + " ctl status --install-dir " + install + " 2>" +
                                         errFile,
                                     &out);
    ctl.status = TestSupport::ParseJson(out);
    ctl.err = TestSupport::ReadFile(errFile);
    return ctl;
}

// key -> severity of the reasons in a status.
std::map<std::string, std::string> Reasons(const Json::Value& status)
{
    std::map<std::string, std::string> out;
    for (const auto& r : status["health"]["reasons"]) {
        out[r["key"].asString()] = r["severity"].asString();
    }
    return out;
}

std::string PolicyText(const std::vector<std::string>& roots, const std::string& rules, bool monitor)
{
    Json::Value policy = TestSupport::WebshellPolicy(roots, rules);
    policy["content"]["monitor_file_change"] = monitor;
    return Json::FastWriter().write(policy);
}

size_t Count(const std::string& text, const std::string& needle)
{
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
        ++n;
    }
    return n;
}

// The file_path values of an event sink, with how often each appears.
std::map<std::string, int> Reported(const std::string& events)
{
    std::map<std::string, int> out;
    for (const auto& event : TestSupport::ReadEvents(events)) {
        for (const auto& file : event["file_info"]) {
            ++out[file["file_path"].asString()];
        }
    }
    return out;
}

class Agent {
public:
    // `sinkInLog`: the default event sink, log/webshell_events.jsonl.
    Agent(TempDir& dir, bool sinkInLog, const std::vector<std::string>& extra = {}) : m_dir(dir)
    {
        install = TestSupport::MakeInstallTree(dir);
        rules = dir.Write("rules/webshell.yar", kRules);
        // The library in place before the start: no download to wait for.
        dir.Write("install/data/webshell/webshell.dat", kRules);
        std::vector<std::string> args = {"run", "--install-dir", install, "--host-root", dir.MkDir("host")};
        if (sinkInLog) {
            events = install + "log/webshell_events.jsonl";
        } else {
            events = dir.MkDir("sink") + "/events.jsonl";
            args.insert(args.end(), {"--events", events});
        }
        args.insert(args.end(), extra.begin(), extra.end());
        started = process.Start(args);
    }

    Ctl Status() { return CtlStatus(m_dir, install); }
    // Waits until `pred` holds for a status; the last status is kept.
    bool WaitStatus(const std::function<bool(const Ctl&)>& pred, int timeoutMs = 20000)
    {
        return WaitFor([&] { return pred(last = Status()); }, timeoutMs, 100);
    }
    // Applies `text` through `ctl policy`, once the agent answers.
    void Policy(const std::string& text)
    {
        const std::string file = m_dir.Write("policy-" + std::to_string(++m_policies) + ".json", text);
        const std::string ctl =
            TestSupport::AgentBinary() + " ctl policy " + file + " --install-dir " + install + " >/dev/null 2>&1";
        ASSERT_TRUE(WaitFor([&] { return TestSupport::RunCommand(ctl) == 0; }, 20000, 100)) << Diagnostics();
    }
    std::string Log() const { return TestSupport::ReadFile(install + "log/agent.log"); }
    std::string Diagnostics() const
    {
        return "\nstatus: " + Json::FastWriter().write(last.status["health"]) + "\nlog tail:\n" +
               Log().substr(Log().size() > 4000 ? Log().size() - 4000 : 0);
    }

    TestSupport::AgentProcess process;
    std::string install, rules, events;
    bool started = false;
    Ctl last;

private:
    TempDir& m_dir;
    int m_policies = 0;
};

}  // namespace

// Each reason is raised while its cause lasts and cleared once it is gone;
// the exit code of `ctl status` is the verdict; each change is logged once.
TEST(HealthE2E, VerdictFollowsWhatTheAgentCannotDo)
{
    TempDir dir("e2e-health");
    Agent agent(dir, false);
    ASSERT_TRUE(agent.started);
    const std::string www = dir.MkDir("www");

    // No policy: the web-shell module is loaded and does nothing.
    ASSERT_TRUE(agent.WaitStatus([](const Ctl& c) { return c.status.isObject(); })) << agent.Diagnostics();
    EXPECT_EQ(agent.last.status["verdict"], "failing");
    EXPECT_EQ(agent.last.rc, 2);
    EXPECT_EQ(Reasons(agent.last.status)["framework.policy.webshell_module"], "failing");
    EXPECT_NE(agent.last.err.find("framework.policy.webshell_module"), std::string::npos) << agent.last.err;

    agent.Policy(PolicyText({www}, agent.rules, true));
    ASSERT_TRUE(agent.WaitStatus([](const Ctl& c) { return c.rc == 0; })) << agent.Diagnostics();
    EXPECT_EQ(agent.last.status["verdict"], "ok");
    EXPECT_EQ(agent.last.status["health"]["reasons"].size(), 0u);

    // A watched root that goes away: degraded until it is back.
    ASSERT_EQ(0, rename(www.c_str(), (www + ".away").c_str()));
    ASSERT_TRUE(agent.WaitStatus([](const Ctl& c) { return c.rc == 1; })) << agent.Diagnostics();
    EXPECT_EQ(agent.last.status["verdict"], "degraded");
    EXPECT_EQ(Reasons(agent.last.status)["filenotify.watches"], "degraded");
    ASSERT_EQ(0, rename((www + ".away").c_str(), www.c_str()));
    ASSERT_TRUE(agent.WaitStatus([](const Ctl& c) { return c.rc == 0; })) << agent.Diagnostics();

    // An event sink that cannot be written: failing, then ok once it works,
    // and the held event reaches it.
    ASSERT_EQ(0, rename(dir.Join("sink").c_str(), dir.Join("sink.away").c_str()));
    dir.Write("sink", "a file where the sink's directory was");
    const std::string shell = dir.Write("www/held.php", kShell);
    ASSERT_TRUE(agent.WaitStatus([](const Ctl& c) { return c.rc == 2; })) << agent.Diagnostics();
    EXPECT_EQ(Reasons(agent.last.status)["report.sink"], "failing");
    ASSERT_EQ(0, unlink(dir.Join("sink").c_str()));
    ASSERT_EQ(0, rename(dir.Join("sink.away").c_str(), dir.Join("sink").c_str()));
    ASSERT_TRUE(agent.WaitStatus([](const Ctl& c) { return c.rc == 0; })) << agent.Diagnostics();
    EXPECT_EQ(Reported(agent.events)[shell], 1);

    // Uploads that cannot be kept (a link planted in place of data/upload).
    // Swapped in one step: the agent makes a missing data/upload again.
    const std::string upload = agent.install + "data/upload";
    const std::string link = dir.Symlink(dir.MkDir("elsewhere"), "link");
    auto swap = [&] { return renameat2(AT_FDCWD, link.c_str(), AT_FDCWD, upload.c_str(), RENAME_EXCHANGE); };
    ASSERT_EQ(0, swap());
    dir.Write("www/suspicious1.php", "<?php /* HEALTH_E2E_SUSPICIOUS_MARKER */ ?>\n");
    ASSERT_TRUE(agent.WaitStatus([](const Ctl& c) { return c.rc == 1; })) << agent.Diagnostics();
    EXPECT_EQ(Reasons(agent.last.status)["report.uploads"], "degraded");
    ASSERT_EQ(0, swap());
    dir.Write("www/suspicious2.php", "<?php /* HEALTH_E2E_SUSPICIOUS_MARKER 2 */ ?>\n");
    ASSERT_TRUE(agent.WaitStatus([](const Ctl& c) { return c.rc == 0; })) << agent.Diagnostics();

    // The eight changes of verdict were logged as they happened, not at
    // every check (each second) or status request (dozens).
    const std::string log = agent.Log();
    EXPECT_EQ(Count(log, "Agent health is failing (was ok)"), 2u) << agent.Diagnostics();
    EXPECT_LE(Count(log, "Agent health is "), 12u) << agent.Diagnostics();
    EXPECT_EQ(0, agent.process.Stop(15, 20000));
}

// A service task whose thread ends by itself is a reason until it is
// unregistered; a task stopped by a cancel is not.
TEST(HealthE2E, ServiceTaskThatStopsIsAReason)
{
    class Quitter : public Framework::Task {
    public:
        Quitter(const std::string& name, bool quits)
            : Framework::Task(name, "test", Framework::TaskCondition::TASK_TYPE_RESIDENT, 8), m_quits(quits)
        {
        }
        int Run() override
        {
            while (!m_quits && !IsCancelling()) {
                GetEventWaiter().WaitAndHandleEvent(50, 8);
            }
            return 0;
        }

    private:
        bool m_quits;
    };
    auto hasReason = [](const std::string& key) {
        const Json::Value health = Framework::Health::Render();
        for (const auto& r : health["reasons"]) {
            if (r["key"] == key) {
                return true;
            }
        }
        return false;
    };
    Framework::TaskRegistry registry;
    ASSERT_EQ(0, registry.Register(new Quitter("quitting_task", true), nullptr));
    ASSERT_EQ(0, registry.Register(new Quitter("staying_task", false), nullptr));
    ASSERT_TRUE(WaitFor([&] { return hasReason("framework.task.quitting_task"); }));
    EXPECT_EQ(Framework::Health::Verdict(), "degraded");
    EXPECT_EQ(1, registry.UnRegister("quitting_task"));
    EXPECT_EQ(1, registry.UnRegister("staying_task"));
    EXPECT_EQ(Framework::Health::Verdict(), "ok");
    EXPECT_FALSE(hasReason("framework.task.staying_task"));
}

// Two files whose names differ only in encoding give two events; the one
// that is not UTF-8 is escaped reversibly and carries its exact bytes. The
// one-shot scan warns about nothing it does not load on purpose.
TEST(HealthE2E, NamesThatAreNotUtf8KeepTheirOwnPath)
{
    TempDir dir("e2e-health-paths");
    const std::string install = TestSupport::MakeInstallTree(dir);
    const std::string rules = dir.Write("rules/webshell.yar", kRules);
    const std::string www = dir.MkDir("www");
    const std::string latin1 = www + "/x\xe9\\.php";  // Latin-1 e-acute, then a backslash
    const std::string utf8 = www + "/x\xc3\xa9\\.php";
    dir.Write("www/x\xe9\\.php", kShell);
    dir.Write("www/x\xc3\xa9\\.php", kShell);
    const std::string events = dir.Join("events.jsonl");
    TestSupport::AgentProcess scan;
    ASSERT_TRUE(scan.Start({"scan", "--install-dir", install, "--rules", rules, "--events", events, www}));
    ASSERT_EQ(1, scan.Wait());
    // Services `scan` leaves out on purpose (assets, watches) are no warning.
    const std::string log = TestSupport::ReadFile(install + "log/agent.log");
    EXPECT_EQ(Count(log, "[Warning]"), 0u) << log;

    std::map<std::string, std::string> byPath;  // file_path -> file_path_b64 ("-" when absent)
    for (const auto& event : TestSupport::ReadEvents(events)) {
        for (const auto& file : event["file_info"]) {
            byPath[file["file_path"].asString()] =
                file.isMember("file_path_b64") ? file["file_path_b64"].asString() : "-";
        }
    }
    ASSERT_EQ(byPath.size(), 2u) << TestSupport::ReadFile(events);
    EXPECT_EQ(byPath[utf8], "-");
    const std::string escaped = www + "/x\\xe9\\\\.php";
    ASSERT_EQ(byPath.count(escaped), 1u) << TestSupport::ReadFile(events);
    std::istringstream in(byPath[escaped]);
    Poco::Base64Decoder decoder(in);
    const std::string bytes((std::istreambuf_iterator<char>(decoder)), std::istreambuf_iterator<char>());
    EXPECT_EQ(bytes, latin1);
}

// The file-change task reports a shell; the scan on demand finds it again
// seconds later: one event, one duplicate counted.
TEST(HealthE2E, ReportServiceDropsAnEventJustWritten)
{
    TempDir dir("e2e-health-dedup");
    Agent agent(dir, false, {"--log-stderr"});
    ASSERT_TRUE(agent.started);
    const std::string www = dir.MkDir("www");
    agent.Policy(PolicyText({www}, agent.rules, true));
    ASSERT_TRUE(agent.WaitStatus([&](const Ctl& c) { return TestSupport::WatchedRoots(c.status).count(www); }))
        << agent.Diagnostics();
    const std::string shell = dir.Write("www/twice.php", kShell);
    ASSERT_TRUE(WaitFor([&] { return Reported(agent.events)[shell] == 1; }, 20000)) << agent.Diagnostics();
    ASSERT_EQ(0, TestSupport::RunCommand(TestSupport::AgentBinary() + " ctl scan-now --install-dir " + agent.install +
                                         " >/dev/null"));
    ASSERT_TRUE(agent.WaitStatus([](const Ctl& c) {
        return c.status["components"]["report.events"]["duplicates"].asInt() == 1;
    })) << Json::FastWriter().write(agent.last.status["components"]["report.events"]);
    EXPECT_EQ(Reported(agent.events)[shell], 1);
    EXPECT_EQ(0, agent.process.Stop(15, 20000));
    EXPECT_NE(agent.process.Stderr().find("Agent running"), std::string::npos);  // --log-stderr
}

// log/, run/ and data/upload removed under a running agent come back; the
// events of 1,100 shells found after that all reach the recreated sink.
// The log is not copied to stderr unless asked, and every line names its
// module.
TEST(HealthE2E, OwnedDirectoriesRemovedWhileRunningComeBack)
{
    TempDir dir("e2e-health-dirs");
    Agent agent(dir, true);
    ASSERT_TRUE(agent.started);
    const std::string www = dir.MkDir("www");
    agent.Policy(PolicyText({www}, agent.rules, false));
    ASSERT_TRUE(agent.WaitStatus([](const Ctl& c) { return c.rc == 0; })) << agent.Diagnostics();

    const size_t kShells = 1100;
    for (size_t i = 0; i < kShells; ++i) {
        dir.Write("www/s" + std::to_string(i) + ".php", kShell);
    }
    for (const char* sub : {"log", "run", "data/upload"}) {
        TestSupport::RunCommand("rm -rf '" + agent.install + sub + "'");
    }
    // The control socket listens again, so `ctl` reaches the agent.
    ASSERT_TRUE(agent.WaitStatus([](const Ctl& c) { return c.rc == 0; })) << agent.Diagnostics();
    EXPECT_TRUE(WaitFor([&] { return TestSupport::FileExists(agent.install + "data/upload"); }));
    ASSERT_EQ(0, TestSupport::RunCommand(TestSupport::AgentBinary() + " ctl scan-now --install-dir " + agent.install +
                                         " >/dev/null"));
    ASSERT_TRUE(WaitFor([&] { return Reported(agent.events).size() == kShells; }, 60000, 100))
        << Reported(agent.events).size() << agent.Diagnostics();
    const Json::Value sink = agent.Status().status["components"]["report.events"];
    EXPECT_EQ(sink["dropped"].asInt(), 0);
    EXPECT_EQ(sink["held"].asInt(), 0);

    const std::string log = agent.Log();
    EXPECT_NE(log.find("was removed while the agent runs"), std::string::npos) << log;
    const std::regex line(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[\w+\] <\d+> [\w.-]+: .*)");
    for (const auto& l : TestSupport::ReadLines(agent.install + "log/agent.log")) {
        EXPECT_TRUE(std::regex_match(l, line)) << l;
    }
    EXPECT_EQ(0, agent.process.Stop(15, 20000));
    EXPECT_EQ(agent.process.Stderr().find("Agent running"), std::string::npos) << agent.process.Stderr();
}
