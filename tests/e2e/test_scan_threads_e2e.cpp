// `ardent-agent scan` passes with several scanning threads, end to end: the
// real binary on generated trees, one pass whatever the schedule, the same
// outcome with one thread or several, and memory bounded on a file built to
// make libyara record matches.

#include <sys/resource.h>

#include <set>
#include <string>
#include <vector>

#include <Poco/File.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include "E2e.h"

namespace {

using TestSupport::TempDir;

// The keyword quoted is the last match of the rule's last string: a full
// scan, not one match per string, must have decided it.
const char* const kRules = R"(
rule thread_certain : certain { strings: $a = /CERTAIN_KEY_[0-9]+/ condition: $a }
rule thread_suspicious { strings: $a = "SUSPICIOUS_MARK" condition: $a }
)";

struct Outcome {
    int code = -1;
    std::string err;
    std::set<std::string> events;  // "path keyword"
    size_t kept = 0;               // files in data/upload
    std::set<std::string> listed;  // --report: "path rule uploaded"
};

// One scan in an install tree of its own, so the upload quota starts afresh.
Outcome Scan(const std::string& policy, const std::string& rules, const std::vector<std::string>& extra)
{
    TempDir dir("ardent-threads");
    const std::string install = TestSupport::MakeInstallTree(dir);
    const std::string sink = dir.Join("events.jsonl");
    const std::string report = dir.Join("report.json");
    std::vector<std::string> args = {"scan",   "--install-dir", install,          "--rules", rules,
                                     "--events", sink,          "--upload-dir",   install + "data/upload",
                                     "--report", report};
    if (!policy.empty()) {
        args.push_back("--policy");
        args.push_back(dir.Write("policy.json", policy));
    }
    args.insert(args.end(), extra.begin(), extra.end());
    const E2e::Outcome r = E2e::Run(args);
    Outcome run;
    run.code = r.code;
    run.err = r.err;
    for (const auto& e : TestSupport::ReadEvents(sink)) {
        const Json::Value& file = e["file_info"][0];
        run.events.insert(file["file_path"].asString() + " " + file["file_key_word"].asString());
    }
    const Json::Value listed = TestSupport::ParseJson(TestSupport::ReadFile(report));
    for (const auto& m : listed["matches"]) {
        run.listed.insert(m["path"].asString() + " " + m["rule"].asString() + " " + m["uploaded"].asString());
    }
    std::vector<std::string> names;
    Poco::File(install + "data/upload").list(names);
    for (const auto& name : names) {
        run.kept += name.find('.') == std::string::npos ? 1 : 0;  // not the .json sidecars
    }
    return run;
}

}  // namespace

// A tree of 240 scripts, 20 certain (some larger than a scan window) and 12
// suspicious, with a hard link and a link back to the root that lead to files
// seen already. The policy's periodic
// pass has no delay, and the upload quota (8) is smaller than the suspicious
// files: one pass, and with the walking thread scanning alone (as under a CPU
// limit) or 3 scanning threads beside it, the same events, the same number of
// files kept, the quota used exactly.
TEST(ScanThreadsE2E, OnePassAndTheSameOutcomeWithAnyNumberOfThreads)
{
    TempDir dir("ardent-tree");
    const std::string rules = TestSupport::WriteRules(dir, "rules.yar", kRules);
    std::set<std::string> certain;
    for (int i = 0; i < 240; ++i) {
        const std::string rel = "www/d" + std::to_string(i % 7) + "/s" + std::to_string(i % 3) + "/f" +
                                std::to_string(i) + ".php";
        std::string text = "<?php exit; /* page " + std::to_string(i) + " */ ?>\n";
        if (i % 12 == 0) {
            text += "/* CERTAIN_KEY_1 */ " + std::string(400 * i, ' ') + "/* CERTAIN_KEY_" +
                    std::to_string(1000 + i) + " */\n";
            certain.insert(dir.Join(rel) + " CERTAIN_KEY_" + std::to_string(1000 + i));
        } else if (i % 20 == 1) {
            text += "/* SUSPICIOUS_MARK */\n";
        }
        dir.Write(rel, text);
    }
    ASSERT_EQ(0, TestSupport::RunCommand("ln '" + dir.Join("www/d2/s2/f2.php") + "' '" + dir.Join("www/hard.php") +
                                         "' && ln -s ../.. '" + dir.Join("www/d3/s1/up") + "'"));
    ASSERT_EQ(certain.size(), 20u);

    Json::Value policy = E2e::EverySecond(TestSupport::WebshellPolicy({dir.Join("www")}, rules));
    policy["content"]["upload_file_count_per_day"] = 8;
    const std::string document = Json::writeString(Json::StreamWriterBuilder(), policy);

    std::vector<Outcome> runs;
    for (const char* threads : {"0", "3"}) {
        runs.push_back(Scan(document, rules,
                            threads == std::string("0") ? std::vector<std::string>{"--cpu-limit", "100"}
                                                        : std::vector<std::string>{"--threads", threads}));
        const Outcome& run = runs.back();
        EXPECT_EQ(run.code, 1) << threads << "\n" << run.err;
        EXPECT_NE(run.err.find("240 files seen, 240 checked, 32 matched (20 certain, 12 suspicious)"),
                  std::string::npos)
            << threads << "\n" << run.err;
        EXPECT_EQ(run.events, certain) << threads;
        EXPECT_NE(run.err.find("uploads: " + std::to_string(run.kept) + " kept"), std::string::npos)
            << threads << "\n" << run.err;
    }
    // The quota stopped the uploads at the same count with no thread or three.
    EXPECT_LT(runs[0].kept, 12u);
    EXPECT_EQ(runs[1].kept, runs[0].kept);
    // Every match is listed once, whichever thread found it.
    EXPECT_EQ(runs[0].listed.size(), 32u);
    EXPECT_EQ(runs[1].listed.size(), 32u);
}

// 1 MiB of "<%%>" against 16 rules that each search "<%" and "%>": libyara
// would keep millions of matches. The scan stays under a generous bound and
// still decides the file; a large ordinary file beside it keeps its keyword.
TEST(ScanThreadsE2E, HostileFileStaysUnderTheMemoryBound)
{
    TempDir dir("ardent-hostile");
    std::string rules = kRules;
    for (int i = 0; i < 16; ++i) {
        rules += "rule hostile_" + std::to_string(i) +
                 " { strings: $a = \"<%\" ascii wide $b = \"%>\" ascii wide condition: $a and $b }\n";
    }
    const std::string library = TestSupport::WriteRules(dir, "rules.yar", rules);
    std::string page;
    for (int i = 0; i < (1 << 18); ++i) {
        page += "<%%>";
    }
    dir.Write("www/page.jsp", page);
    const std::string big = dir.Write("www/big.php", "<?php /* CERTAIN_KEY_1 */\n" + std::string(300000, ' ') +
                                                         "/* CERTAIN_KEY_2 SUSPICIOUS_MARK */\n");

    const Outcome run = Scan("", library, {"--threads", "2", dir.Join("www")});
    EXPECT_EQ(run.code, 1) << run.err;
    EXPECT_NE(run.err.find("2 checked, 2 matched (1 certain, 1 suspicious)"), std::string::npos) << run.err;
    EXPECT_EQ(run.events, std::set<std::string>{big + " CERTAIN_KEY_2"});
    EXPECT_EQ(run.kept, 1u);

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // (A sanitizer's shadow memory would say nothing about the scan's own.)
    struct rusage usage {};
    ASSERT_EQ(getrusage(RUSAGE_CHILDREN, &usage), 0);
    EXPECT_LT(usage.ru_maxrss, 256L * 1024) << "peak RSS of the largest child, KiB";
#endif
}
