// Health and the agent's own upkeep, through the real binary: the verdict of
// `ctl status` and its exit code follow what the agent cannot do; the report
// service drops an event another task just reported; event paths of names
// that are not UTF-8 stay distinct; directories removed under a running
// agent come back without losing events; the log says who wrote each line.

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "framework/Health.h"
#include "framework/TaskRegistry.h"
#include "E2e.h"

namespace {

using TestSupport::TempDir;
using TestSupport::WaitFor;

const char* const kRules = R"(
rule health_certain : certain_webshell { strings: $a = "HEALTH_E2E_SHELL" condition: $a }
rule health_suspicious { strings: $a = "HEALTH_E2E_SUSPICIOUS" condition: $a }
)";
const std::string kShell = "<?php @eval($_POST['c']); /* HEALTH_E2E_SHELL */ ?>\n";

using E2e::Count;

// The real agent, its rule library in place, and the verdict of `ctl status`.
struct Agent : E2e::Agent {
    explicit Agent(TempDir& dir) : E2e::Agent(dir)
    {
        rules = dir.Write("rules/webshell.yar", kRules);
        InstallRules(kRules);
    }
    // Waits until `ctl status` exits with `rc`; `status` is the last answer.
    bool WaitVerdict(int rc)
    {
        return WaitFor([&] {
            std::string out;
            const int got = TestSupport::RunCommand(TestSupport::AgentBinary() + " ctl status --install-dir " +
                                                        install + " 2>" + dir.Join("ctl.err"),
                                                    &out);
            status = TestSupport::ParseJson(out);
            return got == rc;
        }, 20000, 100);
    }
    bool HasReason(const std::string& key) { return Count(E2e::Text(status["health"]), "\"" + key + "\"") > 0; }
    void Policy(const std::vector<std::string>& roots, bool monitor)
    {
        Json::Value policy = TestSupport::WebshellPolicy(roots, rules);
        policy["content"]["monitor_file_change"] = monitor;
        const std::string file = E2e::PolicyFile(dir, "policy.json", policy);
        ASSERT_TRUE(WaitFor([&] { return Ctl("policy " + file) == 0; }, 20000, 100));
    }
    std::string Why() const { return "\nhealth: " + E2e::Text(status["health"]); }

    std::string rules;
    Json::Value status;
};

}  // namespace

// Each reason is raised while its cause lasts and cleared once it is gone;
// `ctl status` exits with the verdict; each change is logged once. Then the
// report service drops the event a scan on demand repeats.
TEST(HealthE2E, VerdictFollowsWhatTheAgentCannotDo)
{
    TempDir dir("e2e-health");
    const std::string sink = dir.MkDir("sink");
    Agent agent(dir);
    agent.events = sink + "/events.jsonl";
    ASSERT_TRUE(agent.Start(Json::Value(), {"--log-stderr"}));
    const std::string www = dir.MkDir("www");

    ASSERT_TRUE(agent.WaitVerdict(2)) << agent.Why();  // no policy: nothing detected
    EXPECT_EQ(agent.status["verdict"], "failing");
    EXPECT_TRUE(agent.HasReason("framework.policy.webshell_module")) << agent.Why();
    EXPECT_NE(TestSupport::ReadFile(dir.Join("ctl.err")).find("framework.policy.webshell_module"), std::string::npos);
    agent.Policy({www}, true);
    ASSERT_TRUE(agent.WaitVerdict(0)) << agent.Why();

    const auto move = [](const std::string& from, const std::string& to) {
        ASSERT_EQ(0, rename(from.c_str(), to.c_str()));
    };
    // Swapped in one step, since the agent makes a missing data/upload again.
    const std::string upload = agent.install + "data/upload";
    const std::string link = dir.Symlink(dir.MkDir("elsewhere"), "link");
    const auto swapUpload = [&] {
        ASSERT_EQ(0, renameat2(AT_FDCWD, link.c_str(), AT_FDCWD, upload.c_str(), RENAME_EXCHANGE));
    };
    struct Phase {
        const char* key;
        int rc;
        std::function<void()> cause, fix;
    };
    const std::vector<Phase> phases = {
        {"filenotify.watches", 1, [&] { move(www, www + ".away"); }, [&] { move(www + ".away", www); }},
        {"report.sink", 2,
         [&] {
             move(sink, sink + ".away");
             dir.Write("sink", "a file where the sink's directory was");
             dir.Write("www/held.php", kShell);
         },
         [&] {
             ASSERT_EQ(0, unlink(sink.c_str()));
             move(sink + ".away", sink);
         }},
        {"report.uploads", 1,
         [&] {
             swapUpload();
             dir.Write("www/suspicious1.php", "<?php /* HEALTH_E2E_SUSPICIOUS */ ?>\n");
         },
         [&] {
             swapUpload();
             dir.Write("www/suspicious2.php", "<?php /* HEALTH_E2E_SUSPICIOUS 2 */ ?>\n");
         }},
    };
    for (const Phase& phase : phases) {
        SCOPED_TRACE(phase.key);
        phase.cause();
        ASSERT_TRUE(agent.WaitVerdict(phase.rc)) << agent.Why();
        EXPECT_TRUE(agent.HasReason(phase.key)) << agent.Why();
        phase.fix();
        ASSERT_TRUE(agent.WaitVerdict(0)) << agent.Why();
    }
    const std::string held = www + "/held.php";
    EXPECT_EQ(agent.Reported()[held], 1);  // held while the sink failed, then written
    // Eight changes of verdict, logged as they happened, not at every check
    // (each second) or status request (dozens).
    EXPECT_EQ(Count(agent.Log(), "Agent health is failing (was ok)"), 2u);
    EXPECT_LE(Count(agent.Log(), "Agent health is "), 12u) << agent.Log();

    // The scan on demand finds held.php again: dropped as a duplicate.
    ASSERT_EQ(0, agent.Ctl("scan-now"));
    ASSERT_TRUE(WaitFor([&] {
        return agent.WaitVerdict(0) && agent.status["components"]["report.events"]["duplicates"].asInt() == 1;
    }, 20000, 100)) << agent.status["components"]["report.events"];
    EXPECT_EQ(agent.Reported()[held], 1);
    EXPECT_EQ(0, agent.process.Stop(15, 20000));
    EXPECT_NE(agent.process.Stderr().find("Agent running"), std::string::npos);  // --log-stderr
}

// A service task whose thread ends by itself is a reason until it is
// unregistered; a task stopped by a cancel is not.
TEST(HealthE2E, ServiceTaskThatStopsIsAReason)
{
    struct Quitter : Framework::Task {
        Quitter(const std::string& name, bool quits)
            : Framework::Task(name, "test", Framework::TaskCondition::TASK_TYPE_RESIDENT, 8), quits(quits) {}
        int Run() override
        {
            while (!quits && !IsCancelling()) {
                GetEventWaiter().WaitAndHandleEvent(50, 8);
            }
            return 0;
        }
        const bool quits;
    };
    const auto reasons = [] { return Json::FastWriter().write(Framework::Health::Render()["reasons"]); };
    // The registry does not own its tasks; they outlive it here.
    Quitter quitting("quitting_task", true);
    Quitter staying("staying_task", false);
    Framework::TaskRegistry registry;
    ASSERT_EQ(0, registry.Register(&quitting, nullptr));
    ASSERT_EQ(0, registry.Register(&staying, nullptr));
    ASSERT_TRUE(WaitFor([&] { return reasons().find("framework.task.quitting_task") != std::string::npos; }));
    EXPECT_EQ(Framework::Health::Verdict(), "degraded");
    EXPECT_EQ(1, registry.UnRegister("quitting_task"));
    EXPECT_EQ(1, registry.UnRegister("staying_task"));
    EXPECT_EQ(Framework::Health::Verdict(), "ok") << reasons();
}

// log/, run/ and data/upload removed under a running agent come back; the
// events of 1,100 shells found after that all reach the recreated sink.
// Without --log-stderr the log stays off stderr; every line names its module.
TEST(HealthE2E, OwnedDirectoriesRemovedWhileRunningComeBack)
{
    TempDir dir("e2e-health-dirs");
    Agent agent(dir);
    agent.events = "";  // the default sink, log/webshell_events.jsonl
    ASSERT_TRUE(agent.Start(Json::Value()));
    agent.events = agent.install + "log/webshell_events.jsonl";
    const std::string www = dir.MkDir("www");
    agent.Policy({www}, false);
    ASSERT_TRUE(agent.WaitVerdict(0)) << agent.Why();
    const size_t kShells = 1100;
    for (size_t i = 0; i < kShells; ++i) {
        dir.Write("www/s" + std::to_string(i) + ".php", kShell);
    }
    for (const char* sub : {"log", "run", "data/upload"}) {
        TestSupport::RunCommand("rm -rf '" + agent.install + sub + "'");
    }
    ASSERT_TRUE(agent.WaitVerdict(0)) << agent.Why();  // the control socket is back
    EXPECT_TRUE(WaitFor([&] { return TestSupport::FileExists(agent.install + "data/upload"); }));
    ASSERT_EQ(0, agent.Ctl("scan-now"));
    ASSERT_TRUE(WaitFor([&] { return agent.Reported().size() == kShells; }, 60000, 100))
        << agent.Reported().size();
    ASSERT_TRUE(agent.WaitVerdict(0));
    EXPECT_EQ(agent.status["components"]["report.events"]["dropped"].asInt(), 0);

    EXPECT_NE(agent.Log().find("was removed while the agent runs"), std::string::npos) << agent.Log();
    const std::regex line(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[\w+\] <\d+> [\w.-]+: .*)");
    for (const auto& l : TestSupport::ReadLines(agent.install + "log/agent.log")) {
        EXPECT_TRUE(std::regex_match(l, line)) << l;
    }
    EXPECT_EQ(0, agent.process.Stop(15, 20000));
    EXPECT_EQ(agent.process.Stderr().find("Agent running"), std::string::npos) << agent.process.Stderr();
}
