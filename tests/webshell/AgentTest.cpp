// The module in the real agent: `run` with a policy file registers the
// tasks, editing the file retargets them, `ctl scan-now` reaches the
// module's immediate scan, and SIGTERM takes it all down.

#include <fstream>

#include <gtest/gtest.h>

#include "WebshellTestUtil.h"

using namespace WebshellTest;

namespace {

bool HasTask(const Json::Value& status, const std::string& name)
{
    for (auto& task : status["tasks"]) {
        if (task["name"].asString() == name) {
            return true;
        }
    }
    return false;
}

void WritePolicy(const std::string& install, const PolicyDoc& doc)
{
    // Written beside and renamed, so the agent never reads half a document.
    const std::string path = install + "policy/10001.json";
    {
        std::ofstream out(path + ".new", std::ios::trunc);
        out << doc.ToJson();
    }
    ASSERT_EQ(rename((path + ".new").c_str(), path.c_str()), 0);
}

}  // namespace

TEST(WebshellAgent, RunFollowsThePolicyFileAndScanNowReachesTheModule)
{
    TestSupport::TempDir dir("ardent-agent-webshell");
    // The module needs the libraries of the sibling modules it links.
    const std::string install = TestSupport::MakeInstallTree(dir, {"webshell", "filenotify", "container"});
    TestSupport::TempDir web("ardent-web");
    PolicyDoc doc;
    doc.defaultPaths = {web.MkDir("www")};
    doc.libHash = TestSupport::Sha256Sum(
        TestSupport::WriteRules(dir, "install/data/webshell/webshell.dat", kTestRules));
    doc.monitorFileChange = true;
    WritePolicy(install, doc);

    TestSupport::AgentProcess agent;
    ASSERT_TRUE(agent.Start({"run", "--install-dir", install, "--log-level", "debug"}));
    Json::Value status;
    ASSERT_TRUE(TestSupport::WaitFor([&] {
        status = TestSupport::CtlStatus(install);
        return HasTask(status, "auto_scan_wehshell_task") && HasTask(status, "detect_file_change_wehshell_task");
    }, 20000)) << agent.Stderr();
    for (auto& task : status["tasks"]) {
        if (task["name"].asString() == "auto_scan_wehshell_task") {
            EXPECT_EQ(task["type"].asString(), "scheduled");
            EXPECT_TRUE(task["has_policy"].asBool());
            EXPECT_NE(task["schedule"].asString().find("86400"), std::string::npos) << task["schedule"].asString();
        }
    }

    // Editing the file retargets the tasks: the file-change task goes.
    doc.monitorFileChange = false;
    WritePolicy(install, doc);
    EXPECT_TRUE(TestSupport::WaitFor([&] {
        status = TestSupport::CtlStatus(install);
        return HasTask(status, "auto_scan_wehshell_task") && !HasTask(status, "detect_file_change_wehshell_task");
    }, 20000));

    std::string reply;
    EXPECT_EQ(TestSupport::RunCommand("'" + TestSupport::AgentBinary() + "' ctl scan-now --install-dir '" + install +
                                          "'",
                                      &reply),
              0)
        << reply;
    const std::string log = install + "log/agent.log";
    EXPECT_TRUE(TestSupport::WaitFor([&] {
        return TestSupport::ReadFile(log).find("Receive a cmd message for immediately scan webshell.") !=
               std::string::npos;
    }, 20000)) << TestSupport::ReadFile(log);
    EXPECT_TRUE(TestSupport::WaitFor([&] {
        return TestSupport::ReadFile(log).find("Webshell task check OS web directory. ") != std::string::npos;
    }, 20000));

    EXPECT_EQ(agent.Stop(15, 20000), 0) << agent.Stderr();
    EXPECT_NE(TestSupport::ReadFile(log).find("UnRegister task(auto_scan_wehshell_task)."), std::string::npos);
}
