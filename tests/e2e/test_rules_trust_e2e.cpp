// Rules and passes an operator can trust, end to end with the real binary:
// a large library loads, a library is fetched when its policy is applied, a
// broken update leaves the old rules in force, a check that times out is
// said and kept, missing rules are said once, and uploads that were not
// kept do not use up the daily quota.

#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "E2e.h"

namespace {

using TestSupport::TempDir;
using TestSupport::WaitFor;

const std::string kRules = R"(
rule trust_certain : certain { strings: $a = "TRUST_E2E_SHELL_MARK" condition: $a }
rule trust_suspicious { strings: $a = "TRUST_E2E_ODD_MARK" condition: $a }

// Quadratic in the number of pads: a few thousand of them take far longer
// than the time limit of a check.
rule trust_slow
{
    strings:
        $a = "PADPAD"
    condition:
        for all i in (1..#a) : (for all j in (1..#a) : (@a[i] + @a[j] >= 0))
}
)";

const std::string kShell = "<?php exit; /* TRUST_E2E_SHELL_MARK */ ?>\n";
const std::string kOdd = "<?php exit; /* TRUST_E2E_ODD_MARK */ ?>\n";

class RulesTrustE2E : public ::testing::Test {
protected:
    RulesTrustE2E()
        : m_install(TestSupport::MakeInstallTree(m_dir)), m_root(m_dir.MkDir("www")), m_events(m_dir.Join("events.jsonl"))
    {
    }

    // A policy document for the rule file `rules` at `version`, written to a file.
    std::string Policy(const std::string& name, const std::string& rules, const std::string& version = "1",
                       int quota = 100)
    {
        Json::Value policy = TestSupport::WebshellPolicy({m_root}, rules);
        policy["content"]["lib_version"] = version;
        policy["content"]["upload_file_count_per_day"] = quota;
        return E2e::PolicyFile(m_dir, name, policy);
    }

    // Until the agent answers with its policy applied.
    bool Start(const std::string& policy)
    {
        return m_agent.Start({"run", "--install-dir", m_install, "--policy", policy, "--events", m_events,
                              "--host-root", m_dir.MkDir("host")}) &&
               WaitFor([&] { return TestSupport::CtlStatus(m_install)["policies"].isMember("10001"); }, 30000, 100);
    }

    Json::Value Component(const std::string& key) { return E2e::Component(m_install, key); }
    std::map<std::string, std::string> Health() { return E2e::Health(m_install); }
    Json::Value ScanNow() { return E2e::ScanNow(m_install); }
    bool Reported(const std::string& path) { return E2e::Reported(m_events).count(path) == 1; }
    std::string Lib() const { return m_install + "data/webshell/webshell.dat"; }

    TempDir m_dir{"e2e-rules"};
    std::string m_install;
    std::string m_root;
    std::string m_events;
    TestSupport::AgentProcess m_agent;
};

}  // namespace

TEST_F(RulesTrustE2E, LibraryLargerThanTenMiBIsLoaded)
{
    std::string padding = "/*\n";
    while (padding.size() < (11u << 20)) {
        padding += "a comment that only makes the library large, line after line\n";
    }
    const std::string rules = m_dir.Write("rules/big.yar", padding + "*/\n" + kRules);
    const std::string shell = m_dir.Write("www/shell.php", kShell);

    const E2e::Outcome r = E2e::Run({"scan", "--install-dir", m_install, "--policy", Policy("big.json", rules),
                                     "--events", m_events});
    EXPECT_EQ(1, r.code) << r.err;
    EXPECT_TRUE(Reported(shell)) << r.err;
}

TEST_F(RulesTrustE2E, LibraryIsFetchedWhenAppliedAndABrokenUpdateLeavesItInForce)
{
    const std::string good = m_dir.Write("rules/good.yar", kRules);
    const std::string bad = m_dir.Write("rules/bad.yar", "rule broken : certain { condition: }\n");
    const std::string goodPolicy = Policy("good.json", good);
    ASSERT_TRUE(Start(goodPolicy));
    // Fetched and loaded when the policy is applied: the periodic pass is a
    // day away and nobody asked for one.
    Json::Value loaded;
    ASSERT_TRUE(WaitFor(
        [&] {
            loaded = Component("webshell.rules");
            return loaded["state"].asString() == "loaded";
        },
        30000, 100))
        << loaded << m_agent.Stderr();
    EXPECT_EQ(loaded["loaded_version"].asString(), "1");
    EXPECT_EQ(loaded["loaded_hash"].asString(), TestSupport::Sha256Sum(good));
    EXPECT_TRUE(Component("webshell.last_pass").isNull());
    EXPECT_EQ(Health().count("webshell.rules"), 0u);
    const std::string first = m_dir.Write("www/first.php", kShell);
    ScanNow();
    ASSERT_TRUE(Reported(first)) << m_agent.Stderr();

    // Version 2 arrives but does not compile: version 1 keeps detecting,
    // status and health say so.
    ASSERT_EQ(0, E2e::Ctl(m_install, "policy " + Policy("bad.json", bad, "2")));
    ASSERT_TRUE(WaitFor([&] { return TestSupport::Sha256Sum(Lib()) == TestSupport::Sha256Sum(bad); }, 30000, 100));
    const std::string second = m_dir.Write("www/second.php", kShell);
    EXPECT_EQ(ScanNow()["state"].asString(), "finished");
    EXPECT_TRUE(WaitFor([&] { return Reported(second); }, 10000)) << m_agent.Stderr();
    const Json::Value rules = Component("webshell.rules");
    EXPECT_EQ(rules["state"].asString(), "load_failed");
    EXPECT_EQ(rules["loaded_version"].asString(), "1");
    EXPECT_EQ(rules["loaded_hash"].asString(), TestSupport::Sha256Sum(good));
    EXPECT_EQ(Health()["webshell.rules"], "degraded");

    // The good policy again: version 1 is what is loaded, health is clear.
    ASSERT_EQ(0, E2e::Ctl(m_install, "policy " + goodPolicy));
    EXPECT_TRUE(WaitFor(
        [&] { return Component("webshell.rules")["state"].asString() == "loaded" && Health().count("webshell.rules") == 0; },
        30000, 100))
        << Component("webshell.rules");
    const std::string third = m_dir.Write("www/third.php", kShell);
    ScanNow();
    EXPECT_TRUE(WaitFor([&] { return Reported(third); }, 10000));
}

TEST_F(RulesTrustE2E, CheckThatTimesOutIsSaidCountedAndKept)
{
    m_dir.Write("install/data/webshell/webshell.dat", kRules);
    ASSERT_TRUE(Start(Policy("p.json", m_dir.Write("rules/r.yar", kRules))));
    std::string padded = "<?php /* ";
    for (int i = 0; i < 20000; ++i) {
        padded += "PADPAD ";
    }
    const std::string slow = m_dir.Write("www/padded.php", padded + "*/ ?>\n");
    m_dir.Write("www/clean.php", "<?php echo 1; ?>\n");

    Json::Value pass = ScanNow();
    EXPECT_EQ(pass["files_timed_out"].asUInt64(), 1u) << pass;
    EXPECT_EQ(pass["files_checked"].asUInt64(), 1u) << pass;
    EXPECT_EQ(E2e::Count(E2e::Log(m_install), "File " + slow + " not checked to the end (scan of " + slow + " timed out"), 1u);
    EXPECT_TRUE(WaitFor([&] { return TestSupport::FileExists(m_install + "data/upload/" + TestSupport::Sha256Sum(slow)); },
                        10000));
    EXPECT_EQ(Health()["webshell.pass"], "degraded");

    // A pass that checks everything to the end clears it.
    ASSERT_EQ(0, unlink(slow.c_str()));
    pass = ScanNow();
    EXPECT_EQ(pass["files_timed_out"].asUInt64(), 0u) << pass;
    EXPECT_EQ(Health().count("webshell.pass"), 0u);
}

TEST_F(RulesTrustE2E, MissingRulesAreSaidOnceAndFailTheHealth)
{
    const std::string absent = m_dir.Join("rules/absent.yar");
    Json::Value policy = TestSupport::WebshellPolicy({m_root}, m_dir.Write("rules/r.yar", kRules));
    policy["content"]["lib_url"] = "file://" + absent;
    ASSERT_TRUE(Start(E2e::PolicyFile(m_dir, "p.json", policy)));

    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(ScanNow()["state"].asString(), "skipped");
    }
    EXPECT_EQ(E2e::Count(E2e::Log(m_install), "skipped: the rule library " + Lib() + " is missing"), 1u)
        << E2e::Log(m_install);
    EXPECT_EQ(Health()["webshell.rules"], "failing");
    EXPECT_EQ(TestSupport::CtlStatus(m_install)["health"]["verdict"].asString(), "failing");
}

TEST_F(RulesTrustE2E, UploadsThatWereNotKeptDoNotUseUpTheQuota)
{
    m_dir.Write("install/data/webshell/webshell.dat", kRules);
    // A quota of 0 admits one upload a day.
    ASSERT_TRUE(Start(Policy("p.json", m_dir.Write("rules/r.yar", kRules), "1", 0)));
    const std::string uploads = m_install + "data/upload";
    ASSERT_TRUE(WaitFor([&] { return !Component("report.uploads").isNull(); }, 30000, 100));
    // The store cannot keep anything while a plain file sits in its place.
    ASSERT_EQ(0, rename(uploads.c_str(), (uploads + ".away").c_str()));
    m_dir.Write("install/data/upload", "not a directory");
    m_dir.Write("www/first.php", kOdd);
    ScanNow();
    EXPECT_TRUE(WaitFor([&] { return Component("report.uploads")["failed"].asUInt64() == 1; }, 10000))
        << Component("report.uploads");

    ASSERT_EQ(0, unlink(uploads.c_str()));
    ASSERT_EQ(0, rename((uploads + ".away").c_str(), uploads.c_str()));
    // The quota learns of the failure from the service's figures, which may
    // lag behind its status on a busy machine: a few passes at most.
    const std::string second = m_dir.Write("www/second.php", kOdd + "// another\n");
    const std::string kept = uploads + "/" + TestSupport::Sha256Sum(second);
    for (int pass = 0; pass < 3 && !TestSupport::FileExists(kept); ++pass) {
        ScanNow();
        WaitFor([&] { return TestSupport::FileExists(kept); }, 5000);
    }
    EXPECT_TRUE(TestSupport::FileExists(kept)) << Component("report.uploads")
                                               << E2e::Log(m_install);
}
