// Real-time detection end to end: the real `ardent-agent run` with
// "monitor_file_change" on holds its watch once rules arrive after the
// start, reports web shells written into a watched root, into a new nested
// directory of it and inside a directory moved into it, each once; a policy
// change moves the watch from one root to another.

#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <set>
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

using E2e::Reported;

std::string PolicyText(const std::string& root, const std::string& rules)
{
    Json::Value policy = TestSupport::WebshellPolicy({root}, rules);
    policy["content"]["monitor_file_change"] = true;
    return E2e::Text(policy);
}

std::set<std::string> WatchedRoots(const std::string& install)
{
    return TestSupport::WatchedRoots(TestSupport::CtlStatus(install));
}

// The file-notify service's registrations, for failure messages.
std::string Registrations(const std::string& install)
{
    const Json::Value status = TestSupport::CtlStatus(install);
    return E2e::Text(status["components"]["filenotify"]["registrations"]);
}

}  // namespace

TEST(WatchE2E, ShellsInWatchedRootsAreReportedOnceAndPolicyMovesTheWatch)
{
    TempDir dir("e2e-watch");
    const std::string install = TestSupport::MakeInstallTree(dir);
    const std::string rules = dir.Write("rules/webshell.yar", kShellRules);
    const std::string root1 = dir.MkDir("www1");
    const std::string root2 = dir.MkDir("www2");
    const std::string hostRoot = dir.MkDir("host");  // no web servers to discover
    const std::string events = dir.Join("events.jsonl");
    // A library that cannot be fetched yet: no watch can be held without
    // rules. Once `ctl policy` names one that can be, the file-change task
    // holds the watch, without a reload.
    Json::Value missing = TestSupport::WebshellPolicy({root1}, rules);
    missing["content"]["monitor_file_change"] = true;
    missing["content"]["lib_url"] = "file://" + dir.Join("rules/not-yet.yar");
    TestSupport::AgentProcess agent;
    ASSERT_TRUE(agent.Start({"run", "--install-dir", install, "--policy", E2e::PolicyFile(dir, "policy.json", missing),
                             "--events", events, "--host-root", hostRoot}));
    ASSERT_TRUE(WaitFor([&] { return TestSupport::CtlStatus(install)["verdict"].asString() == "failing"; }, 30000,
                        100))
        << agent.Stderr();
    EXPECT_EQ(WatchedRoots(install).count(root1), 0u);
    std::string out;
    ASSERT_EQ(0, E2e::Ctl(install, "policy '" + dir.Write("policy-good.json", PolicyText(root1, rules)) + "'", &out))
        << out;
    ASSERT_TRUE(WaitFor([&] { return WatchedRoots(install).count(root1) == 1; }, 30000, 100))
        << "watches: " << Registrations(install) << "\nagent stderr:\n" << agent.Stderr();

    // 1. A shell written into the root, and a clean file beside it.
    const std::string direct = dir.Write("www1/direct.php", kShell);
    dir.Write("www1/clean.php", kClean);
    // 2. A new nested directory, the shell written right after it.
    ASSERT_EQ(0, mkdir((root1 + "/n1").c_str(), 0755));
    ASSERT_EQ(0, mkdir((root1 + "/n1/n2").c_str(), 0755));
    const std::string nested = dir.Write("www1/n1/n2/nested.php", kShell);
    // 3. A directory holding shells, moved in from outside the root.
    dir.Write("staging/pack/moved.php", kShell);
    dir.Write("staging/pack/deep/moved2.php", kShell);
    ASSERT_EQ(0, rename(dir.Join("staging/pack").c_str(), (root1 + "/pack").c_str()));
    const std::string moved = root1 + "/pack/moved.php";
    const std::string moved2 = root1 + "/pack/deep/moved2.php";

    const std::vector<std::string> shells = {direct, nested, moved, moved2};
    ASSERT_TRUE(WaitFor([&] {
        auto reported = Reported(events);
        return std::all_of(shells.begin(), shells.end(), [&](const std::string& s) { return reported.count(s) == 1; });
    }, 20000)) << "events:\n" << TestSupport::ReadFile(events) << "\nagent stderr:\n" << agent.Stderr();
    // A last shell: once it is reported, everything written before it has
    // gone through the service and the scan.
    const std::string last = dir.Write("www1/last.php", kShell);
    ASSERT_TRUE(WaitFor([&] { return Reported(events).count(last) == 1; }, 20000));
    auto reported = Reported(events);
    for (auto& s : shells) {
        EXPECT_EQ(1, reported[s]) << s << "\nwatches: " << Registrations(install);
    }
    EXPECT_EQ(0u, reported.count(root1 + "/clean.php"));
    EXPECT_EQ(0u, reported.count(root1 + "/n1"));
    EXPECT_EQ(0u, reported.count(root1 + "/pack"));

    // The policy now names another root: the old one is released, the new
    // one watched.
    const std::string policyPath = install + "policy/10001.json";
    dir.Write("policy-next.tmp", PolicyText(root2, rules));
    ASSERT_EQ(0, rename(dir.Join("policy-next.tmp").c_str(), policyPath.c_str()));
    ASSERT_TRUE(WaitFor(
        [&] {
            auto roots = WatchedRoots(install);
            return roots.count(root2) == 1 && roots.count(root1) == 0;
        },
        30000, 100))
        << "watches: " << Registrations(install);

    const std::string stale = dir.Write("www1/after-change.php", kShell);
    const std::string staleNested = dir.Write("www1/n1/n2/after-change.php", kShell);
    const std::string fresh = dir.Write("www2/fresh.php", kShell);
    ASSERT_TRUE(WaitFor([&] { return Reported(events).count(fresh) == 1; }, 20000))
        << "events:\n" << TestSupport::ReadFile(events);
    const std::string fresh2 = dir.Write("www2/fresh2.php", kShell);
    ASSERT_TRUE(WaitFor([&] { return Reported(events).count(fresh2) == 1; }, 20000));
    reported = Reported(events);
    EXPECT_EQ(0u, reported.count(stale));
    EXPECT_EQ(0u, reported.count(staleNested));

    EXPECT_EQ(0, agent.Stop(15, 20000)) << agent.Stderr();
}
