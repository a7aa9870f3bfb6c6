// What a SIEM and an operator get from the real binary: the keys of an event
// (host identity from --host-root, rule metas, decoded layer, ISO time), and
// every match of `scan` in its summary and --report, whatever the upload
// quota, with copies of suspicious files only where the command line says.

#include <string>
#include <vector>

#include <Poco/DateTimeFormatter.h>
#include <Poco/Timestamp.h>
#include <Poco/File.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include "E2e.h"

namespace {

using TestSupport::ReadFile;
using TestSupport::TempDir;
using TestSupport::WaitFor;

const char* const kRules = R"(
rule shell_with_metas : certain {
    meta: description = "eval of request data" score = 95
    strings: $a = "META_SHELL_MARKER" condition: $a }
rule shell_plain : certain { strings: $a = "PLAIN_SHELL_MARKER" condition: $a }
rule suspicious_marker { strings: $a = "SUSPICIOUS_MARKER" condition: $a }
)";

const char* const kMachineId = "0123456789abcdef0123456789abcdef";

using E2e::Outcome;
using E2e::Text;

// Every regular file below `dir` ("" when it does not exist).
std::string FilesUnder(const std::string& dir)
{
    std::string out;
    TestSupport::RunCommand("find '" + dir + "' -type f 2>/dev/null | sort", &out);
    return out;
}

}  // namespace

TEST(EventE2E, EventsNameTheHostTheRuleAndTheLayer)
{
    TempDir dir;
    E2e::Agent agent(dir);
    const std::string rules = dir.Write("rules/test.yar", kRules);
    const std::string host = dir.MkDir("host");
    dir.Write("host/etc/machine-id", std::string(kMachineId) + "\n");
    dir.Write("host/etc/hostname", "web-17.example\n");

    struct Case {
        std::string file, content, rule;
        bool metas;
        int layer;
    };
    const std::vector<Case> cases = {
        {"www/metas.php", "<?php exit; /* META_SHELL_MARKER */", "shell_with_metas", true, 0},
        {"www/plain.php", "<?php exit; /* PLAIN_SHELL_MARKER */", "shell_plain", false, 0},
        // The marker only appears once the string is decoded: "/* PLAIN_SHELL_MARKER */ echo 1;".
        {"www/layer.php", "<?php exit; eval(base64_decode('LyogUExBSU5fU0hFTExfTUFSS0VSICovIGVjaG8gMTs='));", "shell_plain", false, 1},
    };
    for (const auto& c : cases) {
        dir.Write(c.file, c.content);
    }

    ASSERT_TRUE(agent.Start(E2e::EverySecond(TestSupport::WebshellPolicy({dir.Join("www")}, rules)),
                            {"--host-root", host}));
    std::vector<Json::Value> found;
    ASSERT_TRUE(WaitFor(
        [&] {
            found = TestSupport::ReadEvents(agent.events);
            return found.size() >= cases.size();
        },
        60000, 100))
        << agent.Log();
    agent.process.Stop();

    const Outcome version = E2e::Run({"--version"});
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        const Json::Value* event = nullptr;
        for (const auto& e : found) {
            if (e["file_info"][0]["file_path"].asString() == dir.Join(c.file)) {
                event = &e;
            }
        }
        ASSERT_NE(event, nullptr);
        const Json::Value& e = *event;
        EXPECT_EQ(e["host_id"].asString(), kMachineId);
        EXPECT_EQ(e["host_name"].asString(), "web-17.example");
        EXPECT_EQ("ardent-agent " + e["agent_version"].asString() + "\n", version.out);
        EXPECT_EQ(e["rule_name"].asString(), c.rule);
        EXPECT_EQ(e["layer_depth"].asInt(), c.layer);
        EXPECT_EQ(e["occur_time_iso"].asString(),
                  Poco::DateTimeFormatter::format(Poco::Timestamp::fromEpochTime(e["occur_time"].asInt64()),
                                                  "%Y-%m-%dT%H:%M:%SZ"));
        EXPECT_EQ(e.isMember("description"), c.metas);
        EXPECT_EQ(e.isMember("score"), c.metas);
        if (c.metas) {
            EXPECT_EQ(e["description"].asString(), "eval of request data");
            EXPECT_EQ(e["score"].asInt(), 95);
        }
    }
}

TEST(EventE2E, ScanAccountsForEveryMatchAndKeepsSamplesOnlyWhereTold)
{
    TempDir dir;
    const std::string install = TestSupport::MakeInstallTree(dir);
    const std::string rules = dir.Write("rules/test.yar", kRules);
    const std::string shell = dir.Write("www/a-shell.php", "<?php exit; /* PLAIN_SHELL_MARKER */");
    const std::string odd1 = dir.Write("www/b-odd.php", "<?php exit; /* SUSPICIOUS_MARKER one */");
    const std::string odd2 = dir.Write("www/c-odd.php", "<?php exit; /* SUSPICIOUS_MARKER two */");
    dir.Write("www/index.php", "<?php echo 'hello';");
    // A quota of 0 admits one upload a day: the second suspicious file is beyond it.
    Json::Value policy = TestSupport::WebshellPolicy({}, rules);
    policy["content"]["upload_file_count_per_day"] = 0;
    const std::string policyFile = dir.Write("policy.json", Text(policy));
    const std::string report = dir.Join("report.json");
    const std::string kept = dir.Join("kept");

    const Outcome r = E2e::Run({"scan", "--install-dir", install, "--policy", policyFile, "--rules", rules, "--report",
                         report, "--upload-dir", kept, dir.Join("www")});
    ASSERT_EQ(r.code, 1) << r.err;
    const Json::Value doc = TestSupport::ParseJson(ReadFile(report));
    ASSERT_TRUE(doc["matches"].isArray()) << ReadFile(report);
    ASSERT_EQ(doc["matches"].size(), 3u) << ReadFile(report);
    EXPECT_EQ(doc["not_listed"].asUInt64(), 0u);
    struct Want {
        std::string path, rule, tier, keyword;
    };
    const std::vector<Want> wants = {{shell, "shell_plain", "certain", "PLAIN_SHELL_MARKER"},
                                     {odd1, "suspicious_marker", "uncertain", "SUSPICIOUS_MARKER"},
                                     {odd2, "suspicious_marker", "uncertain", "SUSPICIOUS_MARKER"}};
    int uploaded = 0;
    std::string beyond;
    for (size_t i = 0; i < wants.size(); ++i) {
        const Json::Value& m = doc["matches"][static_cast<int>(i)];
        SCOPED_TRACE(wants[i].path);
        EXPECT_EQ(m["path"].asString(), wants[i].path);
        EXPECT_EQ(m["rule"].asString(), wants[i].rule);
        EXPECT_EQ(m["tier"].asString(), wants[i].tier);
        EXPECT_EQ(m["keyword"].asString(), wants[i].keyword);
        EXPECT_EQ(m["sha256"].asString(), TestSupport::Sha256Sum(wants[i].path));
        ASSERT_TRUE(m["uploaded"].isBool());
        if (m["uploaded"].asBool()) {
            ++uploaded;
            EXPECT_EQ(ReadFile(kept + "/" + m["sha256"].asString()), ReadFile(wants[i].path));
        } else if (wants[i].tier == "uncertain") {
            beyond = wants[i].path;
        }
        // The summary lists it too, with its tier.
        EXPECT_NE(r.err.find(wants[i].tier + " " + wants[i].path), std::string::npos) << r.err;
    }
    EXPECT_EQ(uploaded, 1);
    ASSERT_FALSE(beyond.empty());
    EXPECT_NE(ReadFile(install + "log/agent.log")
                  .find("Suspicious file " + beyond + " not kept: the daily upload quota (0) is used up"),
              std::string::npos);
    EXPECT_EQ(FilesUnder(install + "data/upload"), "");

    // One file on its own (any suffix), with no copy kept: not in the
    // install tree, not in the temporary directory, nowhere.
    const std::string tmp = dir.MkDir("tmp");
    ASSERT_EQ(0, ::setenv("TMPDIR", tmp.c_str(), 1));
    const std::string single = dir.Write("loose/notes.txt", "SUSPICIOUS_MARKER");
    const Outcome one = E2e::Run({"scan", "--install-dir", install, "--rules", rules, "--no-upload", "--report", report,
                           single});
    EXPECT_EQ(one.code, 0) << one.err;
    const Json::Value only = TestSupport::ParseJson(ReadFile(report));
    ASSERT_EQ(only["matches"].size(), 1u) << ReadFile(report);
    EXPECT_EQ(only["matches"][0]["path"].asString(), single);
    EXPECT_FALSE(only["matches"][0]["uploaded"].asBool());
    EXPECT_NE(one.err.find("1 files seen, 1 checked"), std::string::npos) << one.err;
    EXPECT_EQ(FilesUnder(tmp) + FilesUnder(install + "data/upload"), "");

    // Without either option the copy goes to a fresh private directory under
    // TMPDIR, which the summary names; the install tree still gets nothing.
    const Outcome fallback = E2e::Run({"scan", "--install-dir", install, "--rules", rules, single});
    ::unsetenv("TMPDIR");
    EXPECT_EQ(fallback.code, 0) << fallback.err;
    std::vector<std::string> made;
    Poco::File(tmp).list(made);
    ASSERT_EQ(made.size(), 1u);
    const std::string place = tmp + "/" + made[0];
    EXPECT_EQ(TestSupport::ModeOf(place), 0700u);
    EXPECT_EQ(ReadFile(place + "/" + TestSupport::Sha256Sum(single)), "SUSPICIOUS_MARKER");
    EXPECT_NE(fallback.err.find("in " + place), std::string::npos) << fallback.err;
    EXPECT_EQ(FilesUnder(install + "data/upload"), "");
}
