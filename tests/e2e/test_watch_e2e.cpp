// Real-time detection end to end: the real `ardent-agent run` with
// "monitor_file_change" on holds its watch once rules arrive after the
// start, reports web shells written into a watched root, each once; a
// policy change moves the watch from one root to another.

#include <cstdio>

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "E2e.h"

namespace {

using TestSupport::kShell;
using TestSupport::kShellRules;
using TestSupport::TempDir;
using TestSupport::WaitFor;

const std::string kClean = "<?php echo 'hello'; ?>\n";

Json::Value Watching(const std::string& root, const std::string& rules)
{
    Json::Value policy = TestSupport::WebshellPolicy({root}, rules);
    policy["content"]["monitor_file_change"] = true;
    return policy;
}

}  // namespace

TEST(WatchE2E, ShellsInWatchedRootsAreReportedOnceAndPolicyMovesTheWatch)
{
    TempDir dir("e2e-watch");
    E2e::Agent agent(dir);
    const std::string rules = dir.Write("rules/webshell.yar", kShellRules);
    const std::string root1 = dir.MkDir("www1");
    const std::string root2 = dir.MkDir("www2");
    const auto watched = [&] { return TestSupport::WatchedRoots(agent.Status()); };
    // The file-notify service's registrations, for failure messages.
    const auto registrations = [&] { return E2e::Text(agent.Component("filenotify")["registrations"]); };
    // A library that cannot be fetched yet: no watch can be held without
    // rules. Once `ctl policy` names one that can be, the file-change task
    // holds the watch, without a reload.
    Json::Value missing = Watching(root1, rules);
    missing["content"]["lib_url"] = "file://" + dir.Join("rules/not-yet.yar");
    ASSERT_TRUE(agent.Start(missing));
    ASSERT_TRUE(WaitFor([&] { return agent.Status()["verdict"].asString() == "failing"; }, 30000, 100))
        << agent.process.Stderr();
    EXPECT_EQ(watched().count(root1), 0u);
    std::string out;
    ASSERT_EQ(0, agent.Ctl("policy '" + E2e::PolicyFile(dir, "policy-good.json", Watching(root1, rules)) + "'", &out))
        << out;
    ASSERT_TRUE(WaitFor([&] { return watched().count(root1) == 1; }, 30000, 100))
        << "watches: " << registrations() << "\nagent stderr:\n" << agent.process.Stderr();

    // A shell written into the root, and a clean file beside it (new and
    // moved-in directories are the file-notify tests' business).
    const std::string direct = dir.Write("www1/direct.php", kShell);
    dir.Write("www1/clean.php", kClean);
    ASSERT_TRUE(WaitFor([&] { return agent.Reported().count(direct) == 1; }, 20000)) << agent.Diagnostics();
    // A last shell: once it is reported, everything written before it has
    // gone through the service and the scan.
    const std::string last = dir.Write("www1/last.php", kShell);
    ASSERT_TRUE(WaitFor([&] { return agent.Reported().count(last) == 1; }, 20000));
    EXPECT_EQ(agent.Reported(), (std::map<std::string, int>{{direct, 1}, {last, 1}})) << registrations();

    // The policy now names another root: the old one is released, the new
    // one watched.
    dir.Write("policy-next.tmp", E2e::Text(Watching(root2, rules)));
    ASSERT_EQ(0, rename(dir.Join("policy-next.tmp").c_str(), (agent.install + "policy/10001.json").c_str()));
    ASSERT_TRUE(WaitFor(
        [&] {
            auto roots = watched();
            return roots.count(root2) == 1 && roots.count(root1) == 0;
        },
        30000, 100))
        << "watches: " << registrations();

    const std::string stale = dir.Write("www1/after-change.php", kShell);
    const std::string fresh = dir.Write("www2/fresh.php", kShell);
    ASSERT_TRUE(WaitFor([&] { return agent.Reported().count(fresh) == 1; }, 20000)) << agent.Diagnostics();
    const std::string fresh2 = dir.Write("www2/fresh2.php", kShell);
    ASSERT_TRUE(WaitFor([&] { return agent.Reported().count(fresh2) == 1; }, 20000));
    EXPECT_EQ(agent.Reported().count(stale), 0u);

    EXPECT_EQ(0, agent.process.Stop(15, 20000)) << agent.process.Stderr();
}
