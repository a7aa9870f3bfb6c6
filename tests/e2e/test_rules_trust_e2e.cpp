// Rules and passes an operator can trust, end to end with the real binary:
// missing rules are said once, a large library is fetched when its policy is
// applied, a broken update leaves the old rules in force, a check that times
// out is said and kept, and uploads that were not kept do not use up the
// daily quota.

#include <sys/stat.h>
#include <unistd.h>

#include <string>

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
    // A policy for the rule file `rules` at `version`.
    Json::Value Policy(const std::string& rules, const std::string& version = "1", int quota = 100)
    {
        Json::Value policy = TestSupport::WebshellPolicy({m_root}, rules);
        policy["content"]["lib_version"] = version;
        policy["content"]["upload_file_count_per_day"] = quota;
        return policy;
    }
    // Applied by `ctl policy`.
    void Apply(const std::string& name, const Json::Value& policy)
    {
        ASSERT_EQ(0, m_agent.Ctl("policy " + E2e::PolicyFile(m_dir, name, policy)));
    }
    bool Reported(const std::string& path) { return m_agent.Reported().count(path) == 1; }
    std::string Lib() const { return m_agent.install + "data/webshell/webshell.dat"; }

    TempDir m_dir{"e2e-rules"};
    E2e::Agent m_agent{m_dir};
    std::string m_root = m_dir.MkDir("www");
};

}  // namespace

// Missing rules are said once and fail the health; a library larger than
// 10 MiB is fetched and loaded when its policy is applied; a broken update
// leaves it in force.
TEST_F(RulesTrustE2E, MissingLargeAndBrokenLibraries)
{
    Json::Value missing = Policy(m_dir.Write("rules/r.yar", kRules));
    missing["content"]["lib_url"] = "file://" + m_dir.Join("rules/absent.yar");
    ASSERT_TRUE(m_agent.Start(missing) && m_agent.Applied());
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(m_agent.ScanNow()["state"].asString(), "skipped");
    }
    EXPECT_EQ(E2e::Count(m_agent.Log(), "skipped: the rule library " + Lib() + " is missing"), 1u) << m_agent.Log();
    EXPECT_EQ(m_agent.Health()["webshell.rules"], "failing");
    EXPECT_EQ(m_agent.Status()["health"]["verdict"].asString(), "failing");

    std::string padding = "/*\n";
    while (padding.size() < (11u << 20)) {
        padding += "a comment that only makes the library large, line after line\n";
    }
    const std::string good = m_dir.Write("rules/good.yar", padding + "*/\n" + kRules);
    const std::string bad = m_dir.Write("rules/bad.yar", "rule broken : certain { condition: }\n");
    // Fetched and loaded when the policy is applied: the periodic pass is a
    // day away and nobody asked for one.
    const uint64_t passes = m_agent.Component("webshell.last_pass")["pass_id"].asUInt64();
    Apply("good.json", Policy(good));
    Json::Value loaded;
    ASSERT_TRUE(WaitFor(
        [&] {
            loaded = m_agent.Component("webshell.rules");
            return loaded["state"].asString() == "loaded";
        },
        30000, 100))
        << loaded << m_agent.process.Stderr();
    EXPECT_EQ(loaded["loaded_version"].asString(), "1");
    EXPECT_EQ(loaded["loaded_hash"].asString(), TestSupport::Sha256Sum(good));
    EXPECT_EQ(m_agent.Component("webshell.last_pass")["pass_id"].asUInt64(), passes);
    EXPECT_EQ(m_agent.Health().count("webshell.rules"), 0u);
    const std::string first = m_dir.Write("www/first.php", kShell);
    m_agent.ScanNow();
    ASSERT_TRUE(Reported(first)) << m_agent.process.Stderr();

    // Version 2 arrives but does not compile: version 1 keeps detecting,
    // status and health say so.
    Apply("bad.json", Policy(bad, "2"));
    ASSERT_TRUE(WaitFor([&] { return TestSupport::Sha256Sum(Lib()) == TestSupport::Sha256Sum(bad); }, 30000, 100));
    const std::string second = m_dir.Write("www/second.php", kShell);
    EXPECT_EQ(m_agent.ScanNow()["state"].asString(), "finished");
    EXPECT_TRUE(WaitFor([&] { return Reported(second); }, 10000)) << m_agent.process.Stderr();
    const Json::Value rules = m_agent.Component("webshell.rules");
    EXPECT_EQ(rules["state"].asString(), "load_failed");
    EXPECT_EQ(rules["loaded_version"].asString(), "1");
    EXPECT_EQ(rules["loaded_hash"].asString(), TestSupport::Sha256Sum(good));
    EXPECT_EQ(m_agent.Health()["webshell.rules"], "degraded");

    // The good policy again: version 1 is what is loaded, health is clear.
    Apply("good.json", Policy(good));
    EXPECT_TRUE(WaitFor(
        [&] {
            return m_agent.Component("webshell.rules")["state"].asString() == "loaded" &&
                   m_agent.Health().count("webshell.rules") == 0;
        },
        30000, 100))
        << m_agent.Component("webshell.rules");
    const std::string third = m_dir.Write("www/third.php", kShell);
    m_agent.ScanNow();
    EXPECT_TRUE(WaitFor([&] { return Reported(third); }, 10000));
}

// A check that times out is said, counted and kept; uploads that were not
// kept do not use up the quota (1: two uploads a day, the timed-out file's
// and one more).
TEST_F(RulesTrustE2E, CheckThatTimesOutAndUploadsThatFail)
{
    m_agent.InstallRules(kRules);
    ASSERT_TRUE(m_agent.Start(Policy(m_dir.Write("rules/r.yar", kRules), "1", 1)) && m_agent.Applied());
    std::string padded = "<?php /* ";
    for (int i = 0; i < 20000; ++i) {
        padded += "PADPAD ";
    }
    const std::string slow = m_dir.Write("www/padded.php", padded + "*/ ?>\n");
    m_dir.Write("www/clean.php", "<?php echo 1; ?>\n");

    Json::Value pass = m_agent.ScanNow();
    EXPECT_EQ(pass["files_timed_out"].asUInt64(), 1u) << pass;
    EXPECT_EQ(pass["files_checked"].asUInt64(), 1u) << pass;
    EXPECT_EQ(E2e::Count(m_agent.Log(), "File " + slow + " not checked to the end (scan of " + slow + " timed out"), 1u);
    const std::string uploads = m_agent.install + "data/upload";
    EXPECT_TRUE(WaitFor([&] { return TestSupport::FileExists(uploads + "/" + TestSupport::Sha256Sum(slow)); }, 10000));
    EXPECT_EQ(m_agent.Health()["webshell.pass"], "degraded");

    // A pass that checks everything to the end clears it.
    ASSERT_EQ(0, unlink(slow.c_str()));
    pass = m_agent.ScanNow();
    EXPECT_EQ(pass["files_timed_out"].asUInt64(), 0u) << pass;
    EXPECT_EQ(m_agent.Health().count("webshell.pass"), 0u);

    // The store cannot keep anything while a plain file sits in its place.
    ASSERT_EQ(0, rename(uploads.c_str(), (uploads + ".away").c_str()));
    m_dir.Write("install/data/upload", "not a directory");
    m_dir.Write("www/first.php", kOdd);
    m_agent.ScanNow();
    EXPECT_TRUE(WaitFor([&] { return m_agent.Component("report.uploads")["failed"].asUInt64() == 1; }, 10000))
        << m_agent.Component("report.uploads");

    ASSERT_EQ(0, unlink(uploads.c_str()));
    ASSERT_EQ(0, rename((uploads + ".away").c_str(), uploads.c_str()));
    // The quota learns of the failure from the service's figures, which may
    // lag behind its status on a busy machine: a few passes at most.
    const std::string second = m_dir.Write("www/second.php", kOdd + "// another\n");
    const std::string kept = uploads + "/" + TestSupport::Sha256Sum(second);
    for (int n = 0; n < 3 && !TestSupport::FileExists(kept); ++n) {
        m_agent.ScanNow();
        WaitFor([&] { return TestSupport::FileExists(kept); }, 5000);
    }
    EXPECT_TRUE(TestSupport::FileExists(kept)) << m_agent.Component("report.uploads") << m_agent.Log();
}
