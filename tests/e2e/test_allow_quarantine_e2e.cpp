// Allow-lists and quarantine through the real binary: each kind of entry
// from the policy and from etc/allow.d (a malformed line, then a change
// picked up by the running agent), and certain files quarantined and put
// back exactly, on the install's filesystem and on another one, never
// through a symbolic link.

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <Poco/String.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include "E2e.h"

namespace {

using TestSupport::FileExists;
using TestSupport::ReadFile;
using TestSupport::TempDir;
using TestSupport::WaitFor;

const std::string kRules = R"(
rule allow_e2e_a : certain { strings: $a = "ALLOW_E2E_A" condition: $a }
rule allow_e2e_c : certain { strings: $a = "ALLOW_E2E_C" condition: $a }
rule allow_e2e_odd { strings: $a = "ALLOW_E2E_ODD" condition: $a }
)";

// A harmless look-alike; `tag` makes each file's digest its own.
std::string Shell(const std::string& marker, const std::string& tag)
{
    return "<?php exit; /* " + marker + " " + tag + " */ ?>\n";
}

// Over what is there; the directory exists.
void WriteFile(const std::string& path, const std::string& content) { std::ofstream(path, std::ios::trunc) << content; }

int64_t Ns(const struct timespec& t)
{
    return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
}

}  // namespace

// One running agent, two passes: every kind of entry from each source keeps
// its match out of events and uploads; a malformed line is named with its
// file and line and the rest of the file still counts; an edited list is
// picked up by the next pass.
TEST(AllowQuarantineE2E, AllowListsFromPolicyAndFilesAndTheirChanges)
{
    TempDir dir;
    E2e::Agent agent(dir);
    const std::string& install = agent.install;
    const std::string rules = TestSupport::WriteRules(dir, "rules/allow.yar", kRules);
    const std::string www = dir.MkDir("www");
    const std::map<std::string, std::string> files = {
        {"vendor/pkg/lib.php", Shell("ALLOW_E2E_A", "vendor")},  // policy path **
        {"known.php", Shell("ALLOW_E2E_A", "known")},            // policy sha256
        {"ruled.php", Shell("ALLOW_E2E_C", "ruled")},            // policy rule
        {"cache/x.php", Shell("ALLOW_E2E_A", "cache")},          // list path *
        {"cache/deep/y.php", Shell("ALLOW_E2E_A", "deep")},      // * stops at /: reported
        {"hashed.php", Shell("ALLOW_E2E_A", "hashed")},          // list sha256, upper case
        {"odd.php", Shell("ALLOW_E2E_ODD", "odd")},              // list rule, uncertain
        {"report.php", Shell("ALLOW_E2E_A", "report")},          // nothing allows it
    };
    for (const auto& f : files) {
        dir.Write("www/" + f.first, f.second);
    }
    Json::Value policy = TestSupport::WebshellPolicy({www}, rules);
    policy["content"]["allow"]["paths"].append(www + "/vendor/**");
    policy["content"]["allow"]["sha256"].append(TestSupport::Sha256Sum(www + "/known.php"));
    policy["content"]["allow"]["rules"].append("allow_e2e_c");
    const std::string list = dir.Write("install/etc/allow.d/local.list",
                                       "# local exceptions\n"
                                       "path:" + www + "/cache/*.php\n"
                                       "sha256: " + Poco::toUpper(TestSupport::Sha256Sum(www + "/hashed.php")) + "\n"
                                       "this line names no kind\n"
                                       "rule:allow_e2e_odd\n");

    ASSERT_TRUE(agent.Start(policy) && agent.Applied()) << agent.process.Stderr();
    Json::Value pass = agent.ScanNow();
    EXPECT_EQ(pass["allowed"].asUInt64(), 6u) << pass;
    EXPECT_EQ(pass["certain"].asUInt64(), 2u) << pass;
    EXPECT_EQ(pass["uncertain"].asUInt64(), 0u) << pass;
    EXPECT_EQ(pass["uploads"].asUInt64(), 0u) << pass;
    EXPECT_EQ(agent.Reported(), (std::map<std::string, int>{{www + "/cache/deep/y.php", 1}, {www + "/report.php", 1}}));
    EXPECT_EQ(agent.Component("webshell.allow_list")["allowed"].asUInt64(), 6u);
    EXPECT_EQ(agent.Health().count("webshell.allow_list"), 1u);
    const std::string log = agent.Log();
    EXPECT_NE(log.find(list + ":4: no path:, sha256: or rule: before the entry; line skipped"), std::string::npos)
        << log;

    // The odd file loses its entry, y.php gains one, the bad line goes.
    WriteFile(list, "path:" + www + "/cache/*.php\npath:" + www + "/**/y.php\nsha256:" +
                        TestSupport::Sha256Sum(www + "/hashed.php") + "\n");
    pass = agent.ScanNow();
    EXPECT_EQ(pass["allowed"].asUInt64(), 6u) << pass;
    EXPECT_EQ(pass["certain"].asUInt64(), 1u) << pass;  // report.php (repeated, not reported again)
    EXPECT_EQ(pass["uncertain"].asUInt64(), 1u) << pass;
    EXPECT_TRUE(WaitFor([&] { return FileExists(install + "data/upload/" + TestSupport::Sha256Sum(www + "/odd.php")); }))
        << agent.process.Stderr();
    EXPECT_EQ(agent.Health().count("webshell.allow_list"), 0u);
    EXPECT_EQ(agent.Component("webshell.allow_list")["allowed"].asUInt64(), 12u);
    EXPECT_EQ(0, agent.process.Stop());
}

// `scan` with quarantine on: certain files leave the web roots (renamed on
// the same filesystem, copied from a tmpfs), a link to a file outside the
// roots stays, and restore puts content, owner, mode and times back but
// never over a file that is there.
TEST(AllowQuarantineE2E, QuarantineAndRestoreRoundTrip)
{
    TempDir dir;
    TempDir other("../dev/shm/ardent-quarantine");  // tmpfs: another filesystem than the install's
    char real[PATH_MAX];
    ASSERT_NE(realpath(other.Path().c_str(), real), nullptr);
    const std::string shm = real;
    const std::string install = TestSupport::MakeInstallTree(dir);
    const std::string rules = TestSupport::WriteRules(dir, "rules/allow.yar", kRules);
    const std::string www = dir.MkDir("www");
    struct Original {
        std::string path, content;
        uid_t uid;
        gid_t gid;
        mode_t mode;
        struct timespec times[2];  // access, modification
    };
    std::vector<Original> originals = {
        {www + "/shell.php", Shell("ALLOW_E2E_A", "same fs"), 4321, 4322, 04754,
         {{1600000000, 123456789}, {1500000000, 987654321}}},
        {shm + "/other.php", Shell("ALLOW_E2E_A", "tmpfs"), 4323, 4324, 0640, {{1600000001, 5}, {1500000001, 7}}},
    };
    for (auto& o : originals) {
        WriteFile(o.path, o.content);
        ASSERT_EQ(0, chown(o.path.c_str(), o.uid, o.gid));
        ASSERT_EQ(0, chmod(o.path.c_str(), o.mode));
        ASSERT_EQ(0, utimensat(AT_FDCWD, o.path.c_str(), o.times, 0));
    }
    const std::string outside = dir.Write("outside/target.php", Shell("ALLOW_E2E_A", "outside"));
    const std::string link = dir.Symlink(outside, "www/link.php");
    Json::Value policy = TestSupport::WebshellPolicy({www, shm}, rules);
    policy["content"]["quarantine_certain"] = true;
    const std::string policyFile = E2e::PolicyFile(dir, "policy.json", policy);

    const E2e::Outcome scan = E2e::Run({"scan", "-q", "--install-dir", install, "--policy", policyFile, "--rules",
                                        rules, "--events", dir.Join("ev"), www, shm});
    EXPECT_EQ(1, scan.code) << scan.err;
    const std::string& out = scan.err;
    std::map<std::string, Json::Value> events;
    for (const auto& event : TestSupport::ReadEvents(dir.Join("ev"))) {
        events[event["file_info"][0]["file_path"].asString()] = event;
    }
    ASSERT_EQ(events.size(), 3u) << out;
    EXPECT_FALSE(events[link]["quarantined"].asBool()) << out;
    EXPECT_TRUE(FileExists(link) && FileExists(outside));
    const std::string store = install + "data/quarantine/";
    EXPECT_EQ(TestSupport::ModeOf(store), 0700);
    for (const auto& o : originals) {
        const Json::Value& event = events[o.path];
        const std::string id = event["quarantine_id"].asString();
        EXPECT_TRUE(event["quarantined"].asBool()) << out;
        EXPECT_EQ(event["file_info"][0]["file_sha256"].asString(), TestSupport::Sha256Sum(store + id));
        EXPECT_FALSE(FileExists(o.path));
        EXPECT_EQ(TestSupport::ModeOf(store + id), 0600);
        EXPECT_EQ(ReadFile(store + id), o.content);
    }
    E2e::Outcome listed = E2e::Run({"quarantine", "list", "--install-dir", install});
    EXPECT_EQ(0, listed.code) << listed.err;
    for (const auto& o : originals) {
        EXPECT_NE(listed.out.find(events[o.path]["quarantine_id"].asString()), std::string::npos) << listed.out;
        EXPECT_NE(listed.out.find(o.path), std::string::npos) << listed.out;
    }

    for (const auto& o : originals) {
        const std::vector<std::string> restore = {"quarantine", "restore", events[o.path]["quarantine_id"].asString(),
                                                  "--install-dir", install};
        WriteFile(o.path, "newer\n");
        const E2e::Outcome refused = E2e::Run(restore);
        EXPECT_EQ(2, refused.code);
        EXPECT_NE(refused.err.find("exists"), std::string::npos) << refused.err;
        EXPECT_EQ(ReadFile(o.path), "newer\n");
        ASSERT_EQ(0, unlink(o.path.c_str()));

        const E2e::Outcome restored = E2e::Run(restore);
        EXPECT_EQ(0, restored.code) << restored.err;
        struct stat st;
        ASSERT_EQ(0, lstat(o.path.c_str(), &st)) << o.path;
        EXPECT_EQ(ReadFile(o.path), o.content);
        EXPECT_EQ(st.st_uid, o.uid);
        EXPECT_EQ(st.st_gid, o.gid);
        EXPECT_EQ(st.st_mode & 07777, o.mode) << o.path;
        EXPECT_EQ(Ns(st.st_atim), Ns(o.times[0]));
        EXPECT_EQ(Ns(st.st_mtim), Ns(o.times[1]));
    }
    listed = E2e::Run({"quarantine", "list", "--install-dir", install});
    EXPECT_EQ(0, listed.code);
    EXPECT_NE((listed.out + listed.err).find("nothing is quarantined"), std::string::npos) << listed.out << listed.err;
}
