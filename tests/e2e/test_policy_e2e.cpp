// Policies end to end through the real binary: `check-policy` judges good,
// typo'd and broken documents as the agent does; a document reaches the
// periodic pass whatever its "feature_name" says; a schedule that does not
// parse is refused, shown in status and health, and the previous policy
// stays; a scan path that appears later is named once and then scanned;
// "enabled": false stops passes and watches until enabled again.

#include <functional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "E2e.h"

namespace {

using TestSupport::TempDir;
using TestSupport::WaitFor;

const char* const kRules = R"(rule e2e_policy_certain : certain_webshell { strings: $a = "POLICY_E2E_SHELL_MARKER" condition: $a })";

const std::string kShell = "<?php @eval($_POST['c']); /* POLICY_E2E_SHELL_MARKER */ ?>\n";

using E2e::Text;

bool HasTask(const Json::Value& status, const std::string& name)
{
    return E2e::Count(Text(status["tasks"]), "\"" + name + "\"") > 0;
}

}  // namespace

TEST(PolicyE2E, CheckPolicyJudgesDocumentsAsTheAgentWould)
{
    TempDir dir("e2e-policy-check");
    const std::string install = TestSupport::MakeInstallTree(dir, {"libwebshell_module.so"});
    const std::string rules = dir.Write("rules/webshell.yar", kRules);
    const Json::Value good = TestSupport::WebshellPolicy({dir.Path()}, rules);

    using Edit = std::function<void(Json::Value&)>;
    const struct Case {
        const char* name;
        Edit edit;
        int exit;
        std::vector<std::string> said;  // lines on stderr, after "<file>: "
    } cases[] = {
        {"good", [](Json::Value&) {}, 0, {}},
        {"typo", [](Json::Value& p) { p["content"]["monitor_file_chnage"] = true; }, 0,
         {"warning: unknown key content.monitor_file_chnage ignored (did you mean monitor_file_change?)"}},
        {"feature", [](Json::Value& p) { p["feature_name"] = "detect_webshel"; }, 0,
         {"warning: \"feature_name\" is \"detect_webshel\", but policy 10001 belongs to feature detect_webshell: "
          "applied to detect_webshell"}},
        {"types",
         [](Json::Value& p) {
             p["enabled"] = "no";
             p["content"]["max_file_size"] = "2048";
             p["content"]["customize_scan_paths"][0] = 5;
         },
         2,
         {"error: enabled must be true or false", "error: content.max_file_size must be an integer",
          "error: content.customize_scan_paths[0] must be a string"}},
        {"required", [](Json::Value& p) { p["content"].removeMember("default_scan_paths"); }, 2,
         {"error: content.default_scan_paths is required (an array of strings)"}},
        {"schedule", [](Json::Value& p) { p["content"]["auto_scan_task"]["task_condition"]["type"] = "weekly"; }, 2,
         {"error: content.auto_scan_task.task_condition: \"type\" must be \"interval\" or \"daily\" (got "
          "\"weekly\")"}},
        {"schedule key",
         [](Json::Value& p) {
             Json::Value& condition = p["content"]["auto_scan_task"]["task_condition"];
             condition.removeMember("delay_s");
             condition["delay"] = 60;
         },
         2, {"error: content.auto_scan_task.task_condition: unknown key \"delay\" for type \"interval\""}},
    };
    for (const auto& c : cases) {
        Json::Value doc = good;
        c.edit(doc);
        const std::string file = dir.Write(std::string("policy-") + c.name + ".json", Text(doc));
        const E2e::Outcome r = E2e::Run({"check-policy", file, "--install-dir", install});
        const std::string& err = r.err;
        EXPECT_EQ(c.exit, r.code) << c.name << err;
        for (const auto& line : c.said) {
            EXPECT_NE(std::string::npos, err.find(file + ": " + line + "\n")) << c.name << "\n" << err;
        }
        if (c.exit == 0) {
            EXPECT_NE(std::string::npos, r.out.find(file + ": good for policy 10001 (feature detect_webshell)"))
                << c.name << r.out;
        }
        if (c.said.empty()) {
            EXPECT_EQ("", err) << c.name;
        }
    }
    const std::string junk = dir.Write("junk.json", "{\"content\": ");
    for (const auto& [file, said] : {std::make_pair(junk, junk + ": error: the document is not a JSON object"),
                                     std::make_pair(dir.Join("absent.json"), std::string("cannot read"))}) {
        const E2e::Outcome r = E2e::Run({"check-policy", file, "--install-dir", install});
        EXPECT_EQ(2, r.code);
        EXPECT_NE(std::string::npos, r.err.find(said)) << r.err;
    }
}

TEST(PolicyE2E, PoliciesReachThePeriodicPassAndRefusalsAndDisablingShow)
{
    TempDir dir("e2e-policy-run");
    E2e::Agent agent(dir);
    const std::string rules = dir.Write("rules/webshell.yar", kRules);
    agent.InstallRules(kRules);
    const std::string root1 = dir.MkDir("www1");
    const std::string root2 = dir.MkDir("www2");
    const std::string shell1 = dir.Write("www1/one.php", kShell);
    const std::string shell2 = dir.Write("www2/two.php", kShell);

    // Only the periodic task scans here (no watch, no scan-now): a pass each second.
    auto policyFor = [&](const std::string& root) {
        return E2e::EverySecond(TestSupport::WebshellPolicy({root}, rules));
    };
    const std::string later = dir.Join("later");  // a scan path that appears while the agent runs
    Json::Value first = policyFor(root1);
    first["content"]["customize_scan_paths"].append(later);
    first.removeMember("feature_name");
    ASSERT_TRUE(agent.Start(first));
    auto ctlPolicy = [&](const Json::Value& p, std::string& reply) {
        static int n = 0;
        return agent.Ctl("policy " + E2e::PolicyFile(dir, "policy-" + std::to_string(++n) + ".json", p), &reply);
    };

    // A document without "feature_name" reaches the periodic pass, with a warning.
    ASSERT_TRUE(WaitFor([&] { return agent.Reported().count(shell1) == 1; }, 30000, 100))
        << agent.Log();
    EXPECT_NE(std::string::npos, agent.Log().find("no \"feature_name\"; policy 10001 belongs"));
    // The missing path is named once, not at every pass, and scanned once it appears.
    const std::string missing = "Scan path " + later + " cannot be used";
    EXPECT_EQ(1u, E2e::Count(agent.Log(), missing));
    dir.MkDir("later");
    const std::string shellLater = dir.Write("later/late.php", kShell);
    ASSERT_TRUE(WaitFor([&] { return agent.Reported().count(shellLater) == 1; }, 30000, 100));
    EXPECT_EQ(1u, E2e::Count(agent.Log(), missing));

    // Another name: still one state, the periodic pass follows the new root.
    Json::Value second = policyFor(root2);
    second["feature_name"] = "detect_webshell_v2";
    second["hash"] = "second";
    second["content"]["monitor_file_chnage"] = false;  // applied, with a warning in the reply
    std::string reply;
    ASSERT_EQ(0, ctlPolicy(second, reply)) << reply;
    EXPECT_NE(std::string::npos, reply.find("unknown key content.monitor_file_chnage")) << reply;
    ASSERT_TRUE(WaitFor([&] { return agent.Reported().count(shell2) == 1; }, 30000, 100))
        << agent.Log();
    EXPECT_EQ("detect_webshell", agent.Status()["policies"]["10001"]["feature"].asString());

    // A schedule that does not parse: refused naming the key, the previous
    // policy stays, status and health say so until a good one comes.
    Json::Value broken = second;
    broken["hash"] = "broken";
    broken["content"]["auto_scan_task"]["task_condition"]["interval_s"] = 0;
    EXPECT_EQ(1, ctlPolicy(broken, reply));
    EXPECT_NE(std::string::npos, reply.find("content.auto_scan_task.task_condition: \\\"interval_s\\\" must be"))
        << reply;
    Json::Value status = agent.Status();
    EXPECT_EQ("second", status["policies"]["10001"]["hash"].asString());
    EXPECT_NE(std::string::npos, status["policies"]["10001"]["rejected"].asString().find("interval_s"));
    EXPECT_EQ("degraded", agent.Health()["policy.10001"]) << Text(status["health"]);
    EXPECT_NE("ok", status["health"]["verdict"].asString());
    Json::Value watched = second;
    watched["hash"] = "watched";
    watched["content"]["monitor_file_change"] = true;
    ASSERT_EQ(0, ctlPolicy(watched, reply)) << reply;
    status = agent.Status();
    EXPECT_FALSE(status["policies"]["10001"].isMember("rejected"));
    EXPECT_EQ(agent.Health().count("policy.10001"), 0u);
    auto watching = [&] { return TestSupport::WatchedRoots(agent.Status()).count(root2) == 1; };
    ASSERT_TRUE(WaitFor(watching, 30000, 100));

    // Disabled: no periodic pass, no watch, scan-now refused.
    Json::Value disabled = watched;
    disabled["enabled"] = false;
    ASSERT_EQ(0, ctlPolicy(disabled, reply)) << reply;
    EXPECT_TRUE(WaitFor([&] { return TestSupport::WatchedRoots(agent.Status()).empty(); }, 30000, 100));
    status = agent.Status();
    EXPECT_FALSE(HasTask(status, "auto_scan_wehshell_task")) << Text(status["tasks"]);
    EXPECT_FALSE(HasTask(status, "detect_file_change_wehshell_task"));
    EXPECT_EQ("degraded", agent.Health()["webshell.disabled"]);
    agent.Ctl("scan-now");
    EXPECT_TRUE(WaitFor([&] { return agent.Log().find("Immediate scan refused") != std::string::npos; }));

    // Enabled again: the watch and the periodic task come back.
    ASSERT_EQ(0, ctlPolicy(watched, reply)) << reply;
    ASSERT_TRUE(WaitFor(watching, 30000, 100));
    status = agent.Status();
    EXPECT_TRUE(HasTask(status, "auto_scan_wehshell_task"));
    EXPECT_EQ(agent.Health().count("webshell.disabled"), 0u);
    const std::string shell3 = dir.Write("www2/three.php", kShell);
    EXPECT_TRUE(WaitFor([&] { return agent.Reported().count(shell3) == 1; }, 30000, 100))
        << agent.Log();
}
