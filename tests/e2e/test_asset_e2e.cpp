// Web roots found by themselves, end to end: a real nginx serving a temp
// root that no policy names, the real `ardent-agent run`, and a web shell
// written under that root; and a real Apache, whose parent/child layout a
// fake /proc only imitates.

#include <chrono>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "E2e.h"
#include "RealServer.h"
#include "asset/ProcessTable.h"
#include "sdk/TimeUtils.h"

namespace {

using TestSupport::kShell;
using TestSupport::kShellRules;
using TestSupport::TempDir;
using TestSupport::WaitFor;

// The asset of server process `pid` that `ctl status` lists, or null.
Json::Value AssetOf(const std::string& install, int pid)
{
    const Json::Value assets = E2e::Component(install, "asset")["assets"];
    for (const auto& a : assets) {
        if (a["pid"].asInt() == pid) {
            return a;
        }
    }
    return assets.isArray() ? Json::Value() : Json::Value(Json::objectValue);  // no answer is no proof of absence
}

}  // namespace

TEST(AssetE2E, WebShellUnderADiscoveredNginxRootIsReportedAndStatusListsTheAssets)
{
    const std::string nginxBin = AssetTest::FindProgram("nginx");
    if (nginxBin.empty() || AssetTest::FindProgram("apache2").empty() ||
        access("/usr/lib/apache2/modules/mod_mpm_event.so", R_OK) != 0) {
        GTEST_SKIP() << "nginx and apache2 are needed (scripts/install-deps.sh installs nginx-light and apache2)";
    }
    TempDir dir("asset-e2e");
    E2e::Agent agent(dir);
    const std::string& install = agent.install;
    // Rounds every second instead of every minute.
    dir.Write("install/etc/agent.properties", "asset.interval_s = 1\n");
    const std::string rules = TestSupport::WriteRules(dir, "rules/test.yar", kShellRules);
    // The rule library is in place before the start, as on a host that has
    // run before: a watch is registered when assets arrive only once the
    // library is there, and an unchanged asset set is not sent again.
    agent.InstallRules(kShellRules);
    const std::string policyOnly = dir.MkDir("policy-only");
    const std::string root = dir.MkDir("www/site");
    dir.MkDir("nginx/tmp");

    Json::Value policy = TestSupport::WebshellPolicy({}, rules);
    policy["content"]["default_scan_paths"].append(policyOnly);
    policy["content"]["monitor_file_change"] = true;

    const int port = AssetTest::FreePort();
    const std::string n = dir.Join("nginx");
    dir.Write("nginx/nginx.conf",
              AssetTest::NginxMainConf(n, "    server {\n"
                                          "        listen 127.0.0.1:" + std::to_string(port) + ";\n"
                                          "        root " + root + ";\n"
                                          "    }\n"));
    AssetTest::ServerProcess nginx;
    ASSERT_TRUE(nginx.Start(nginxBin, {nginxBin, "-c", n + "/nginx.conf", "-g", "pid " + n + "/nginx.pid;"},
                            n + "/output.log"));
    ASSERT_TRUE(WaitFor([&] { return AssetTest::Accepts(port); }, 15000))
        << TestSupport::ReadFile(n + "/output.log") << TestSupport::ReadFile(n + "/error.log");
    AssetTest::ServerProcess apache;
    ASSERT_EQ(AssetTest::StartApache(dir, apache), "");

    ASSERT_TRUE(agent.Start(policy, {"--host-root", "/"}));  // where the servers run

    // `ctl status` lists the nginx asset with its root.
    Json::Value asset;
    ASSERT_TRUE(WaitFor([&] { return (asset = AssetOf(install, nginx.Pid())).isMember("server"); }, 30000, 250))
        << "agent stderr:\n" << agent.process.Stderr();
    EXPECT_EQ(asset["server"].asString(), "nginx");
    EXPECT_EQ(asset["kind"].asInt(), 0);
    EXPECT_EQ(asset["configFile"].asString(), n + "/nginx.conf");
    ASSERT_EQ(asset["webDirs"].size(), 1u);
    EXPECT_EQ(asset["webDirs"][0]["path"].asString(), root);

    // The file-change task watches the discovered root: a shell written there
    // is reported. The watch is set up after the asset arrives, so the file
    // is written again until the check that follows a write reports it.
    const std::string shell = root + "/shell.php";
    bool reported = false;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!reported && std::chrono::steady_clock::now() < deadline) {
        dir.Write("www/site/shell.php", kShell);
        reported = WaitFor([&] { return agent.Reported().count(shell) == 1; }, 1500);
    }
    ASSERT_TRUE(reported) << "no event for " << shell << agent.Diagnostics();
    const Json::Value event = TestSupport::ReadEvents(agent.events)[0];
    EXPECT_EQ(event["event_name"].asString(), "webshell");
    EXPECT_EQ(event["detect_module"].asString(), "webshell_module");
    EXPECT_EQ(event["file_info"][0]["file_sha256"].asString(), TestSupport::Sha256Sum(shell));

    // Apache with its web directories; only the parent is a server, not the
    // children it forks when it is ready.
    ASSERT_TRUE(WaitFor([&] { return (asset = AssetOf(install, apache.Pid())).isMember("server"); }, 30000, 250));
    std::set<std::string> dirs;
    for (const auto& d : asset["webDirs"]) {
        dirs.insert(d["path"].asString());
    }
    const std::string a = dir.Path();
    EXPECT_EQ(dirs, (std::set<std::string>{a + "/www/main", a + "/www/vhost", a + "/www/media"})) << asset;
    std::vector<int> children;
    EXPECT_TRUE(WaitFor([&] {
        Asset::ProcessTable table("/");
        table.Load();
        children.clear();
        for (const auto& kv : table.Processes()) {
            if (kv.second.ppid == apache.Pid()) {
                children.push_back(kv.first);
            }
        }
        return !children.empty();
    }, 15000));
    // A round that saw them lists no asset of theirs.
    const int64_t seen = SDK::TimeUtils::GetCurrentTimestampMS();
    ASSERT_TRUE(WaitFor([&] { return E2e::Component(install, "asset")["last_discovery_ms"].asInt64() > seen; },
                        30000, 250));
    for (const int child : children) {
        EXPECT_TRUE(AssetOf(install, child).isNull()) << child;
    }

    // A stopped server's asset goes at the next round.
    for (AssetTest::ServerProcess* server : {&nginx, &apache}) {
        const int pid = server->Pid();
        server->Stop();
        EXPECT_TRUE(WaitFor([&] { return AssetOf(install, pid).isNull(); }, 30000, 250)) << pid;
    }

    EXPECT_EQ(agent.process.Stop(), 0) << agent.process.Stderr();
}
