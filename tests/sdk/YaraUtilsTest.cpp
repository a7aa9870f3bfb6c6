#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sdk/RuleCheck.h"
#include "sdk/YaraUtils.h"
#include "testsupport/TestSupport.h"

#include <yara.h>

using SDK::YaraUtils;
using TestSupport::TempDir;

namespace {

const char* const kRules = R"(
rule php_eval : certain extra_php
{
    strings:
        $eval = "eval($_POST"
    condition:
        $eval
}

rule jsp_exec : extra_jsp
{
    strings:
        $exec = "Runtime.getRuntime().exec("
    condition:
        $exec
}
)";

// What the scan callback saw, and what it answers.
struct Seen {
    int answer = CALLBACK_CONTINUE;
    std::vector<std::string> rules;
    std::vector<std::string> tags;
    std::string matchedText;
};

// libyara 4.2 packs YR_MATCH records behind their match data in its notebook
// allocator, so they are not 8-byte aligned (harmless on x86-64). Walking the
// matches is then an "alignment" finding for UBSan, which is library layout,
// not a fault of ours.
__attribute__((no_sanitize("alignment")))
int Record(void* context, int message, void* messageData, void* userData)
{
    auto* seen = static_cast<Seen*>(userData);
    if (message != CALLBACK_MSG_RULE_MATCHING) {
        return CALLBACK_CONTINUE;
    }
    auto* rule = static_cast<YR_RULE*>(messageData);
    seen->rules.push_back(rule->identifier);
    const char* tag = nullptr;
    yr_rule_tags_foreach(rule, tag)
    {
        seen->tags.push_back(tag);
    }
    YR_STRING* string = nullptr;
    yr_rule_strings_foreach(rule, string)
    {
        YR_MATCH* match = nullptr;
        yr_string_matches_foreach(static_cast<YR_SCAN_CONTEXT*>(context), string, match)
        {
            seen->matchedText.assign(reinterpret_cast<const char*>(match->data),
                                     static_cast<size_t>(match->data_length));
        }
    }
    return seen->answer;
}

}  // namespace

TEST(YaraUtils, LoadsSourceAndCompiledRulesScansFilesAndKeepsGoodRulesOverBadOnes)
{
    TempDir dir("ardent-yara");
    const std::string shell = dir.Write("www/shell.php", "<?php eval($_POST['c']); ?>");
    const std::string empty = dir.Write("www/empty.php", "");
    const std::string both = dir.Write("www/both.php",
                                       "eval($_POST[1]); Runtime.getRuntime().exec(x)");

    const std::string good = dir.Write("good.yar", kRules);
    const std::string compiled = TestSupport::WriteRules(dir, "compiled.yarc", kRules, true);
    for (const std::string& rules : {good, compiled}) {
        SCOPED_TRACE(rules);
        YaraUtils yara(Record);
        EXPECT_FALSE(yara.HasRules());
        ASSERT_TRUE(yara.LoadRuleFromFile(rules)) << yara.LastError();
        EXPECT_TRUE(yara.HasRules());

        Seen seen;
        ASSERT_TRUE(yara.CheckFile(shell, &seen, 5)) << yara.LastError();
        EXPECT_EQ(std::vector<std::string>{"php_eval"}, seen.rules);
        EXPECT_EQ((std::vector<std::string>{"certain", "extra_php"}), seen.tags);
        EXPECT_EQ("eval($_POST", seen.matchedText);

        seen = Seen();
        EXPECT_TRUE(yara.CheckFile(empty, &seen, 5)) << yara.LastError();
        EXPECT_TRUE(seen.rules.empty());

        // The callback decides how far the scan goes; stopping it is success.
        seen = Seen();
        ASSERT_TRUE(yara.CheckFile(both, &seen, 5));
        EXPECT_EQ((std::vector<std::string>{"php_eval", "jsp_exec"}), seen.rules);
        seen = Seen();
        seen.answer = CALLBACK_ABORT;
        EXPECT_TRUE(yara.CheckFile(both, &seen, 5)) << yara.LastError();
        EXPECT_EQ(1u, seen.rules.size());
        seen = Seen();
        seen.answer = CALLBACK_ERROR;
        EXPECT_FALSE(yara.CheckFile(both, &seen, 5));
        EXPECT_FALSE(yara.LastError().empty());

        yara.CleanUsedRules();
        EXPECT_FALSE(yara.HasRules());
        yara.CleanUsedRules();
        EXPECT_FALSE(yara.CheckFile(shell, &seen, 5)) << "no rules loaded";
    }

    // Bad or damaged rule files leave the good ones in force.
    const std::string syntax = dir.Write("broken.yar", "rule ok { condition: true }\n\nrule broken {\n  condition: true or or\n}\n");
    const std::string original = TestSupport::ReadFile(compiled);
    const std::string truncated = dir.Write("truncated.yarc", original.substr(0, original.size() / 2));
    const std::string binary = dir.Write("garbage.dat", std::string("\x7f" "ELF\x02\x01\x01\0\0\xff\xfe", 11));
    const std::string damaged = dir.Join("damaged.yarc");

    YaraUtils yara(Record);
    for (const std::string& bad :
         {syntax, truncated, binary, dir.Join("missing.yar"), dir.Path(), dir.Fifo("rules.fifo")}) {
        ASSERT_TRUE(yara.LoadRuleFromFile(good)) << yara.LastError();
        EXPECT_FALSE(yara.LoadRuleFromFile(bad)) << bad;
        EXPECT_TRUE(yara.HasRules()) << bad;  // the good rules stay in force
        EXPECT_NE(std::string::npos, yara.LastError().find(bad)) << yara.LastError();
    }
    // A compile error names the file and the line.
    EXPECT_FALSE(yara.LoadRuleFromFile(syntax));
    EXPECT_NE(std::string::npos, yara.LastError().find(syntax + ":4")) << yara.LastError();

    // A damaged compiled library is checked in a child and remembered. The
    // first flipped bit that kills a process loading the file with
    // libyara itself (libyara 4.2 asserts on damaged relocations).
    int status = 0;
    for (size_t offset = 4; offset < original.size() && !WIFSIGNALED(status); ++offset) {
        std::string bytes = original;
        bytes[offset] ^= 0x01;
        dir.Write("damaged.yarc", bytes);
        const pid_t probe = fork();
        if (probe == 0) {
            YR_RULES* rules = nullptr;
            yr_rules_load(damaged.c_str(), &rules);
            _exit(0);
        }
        ASSERT_EQ(probe, waitpid(probe, &status, 0));
    }
    ASSERT_TRUE(WIFSIGNALED(status)) << "no flipped bit kills this libyara";

    ASSERT_TRUE(yara.LoadRuleFromFile(compiled)) << yara.LastError();
    EXPECT_FALSE(yara.LoadRuleFromFile(damaged));
    EXPECT_TRUE(yara.HasRules());
    EXPECT_NE(std::string::npos, yara.LastError().find(damaged + " (sha256 ")) << yara.LastError();
    EXPECT_NE(std::string::npos, yara.LastError().find("signal " + std::to_string(WTERMSIG(status))))
        << yara.LastError();
    const std::string marker = SDK::RejectedRulesMarker(damaged, TestSupport::Sha256Sum(damaged));
    EXPECT_TRUE(TestSupport::FileExists(marker));

    // After a restart (a new object) the file is not tried again; good
    // libraries, compiled or not, still load.
    YaraUtils again(Record);
    EXPECT_FALSE(again.LoadRuleFromFile(damaged));
    EXPECT_NE(std::string::npos, again.LastError().find("failed its check before")) << again.LastError();
    EXPECT_TRUE(again.LoadRuleFromFile(compiled)) << again.LastError();
    EXPECT_TRUE(again.LoadRuleFromFile(good)) << again.LastError();
}

// Rules see the path of what they scan and what its content looks like,
// and public-style rules written against those variables compile; a slow
// scan times out.
TEST(YaraUtils, RulesSeeThePathAndTheSignalsOfTheScannedBufferAndSlowScansTimeOut)
{
    TempDir dir("ardent-yara");
    const std::string rules = dir.Write("vars.yar", R"(
rule by_path { condition: filename == "Shell.PHP" and extension == "php" and filetype == "PHP" and
                          filepath endswith "/www/Shell.PHP" and layer_depth == 0 }
rule jsp_type { condition: filetype == "JSP" and extension == "jspx" }
rule no_extension { condition: extension == "" and filetype == "OTHER" and filename == "README" }
rule long_line { condition: longest_line >= 5000 }
rule binary { condition: control_pct >= 50 }
rule random_literal { condition: longest_literal >= 200 and literal_entropy > 5.5 }
rule flat_literal { condition: longest_literal >= 200 and literal_entropy < 1.0 }
rule layer_two { condition: layer_depth == 2 }
)");
    std::mt19937 random(1);
    std::string noise;
    const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (int i = 0; i < 300; ++i) {
        noise += alphabet[random() % alphabet.size()];
    }
    struct Case {
        std::string path;
        std::vector<std::string> rules;
    };
    const std::vector<Case> cases = {
        {dir.Write("www/Shell.PHP", "<?php echo 1;"), {"by_path"}},
        {dir.Write("app/x.jspx", "<jsp:root/>"), {"jsp_type"}},
        {dir.Write("README", "text\n"), {"no_extension"}},
        {dir.Write("long.php", "short\n" + std::string(6000, 'a') + "\nshort"), {"long_line"}},
        {dir.Write("bin.dat", std::string(100, '\x01') + "ab"), {"binary"}},
        {dir.Write("noise.php", "<?php $x = '" + noise + "';\n$y = 'it''s';"), {"random_literal"}},
        // A literal broken across lines is not one literal.
        {dir.Write("flat.php", "<?php $x = \"" + std::string(300, 'a') + "\"; $y = \"" + std::string(300, 'b') + "\n\";"),
         {"flat_literal"}},
    };
    YaraUtils yara(Record);
    ASSERT_TRUE(yara.LoadRuleFromFile(rules)) << yara.LastError();
    for (const Case& c : cases) {
        Seen seen;
        ASSERT_TRUE(yara.CheckFile(c.path, &seen, 5)) << yara.LastError();
        EXPECT_EQ(seen.rules, c.rules) << c.path;
    }

    // A buffer scanned as a decoded layer carries its depth; the scanner is
    // reused, so nothing of the previous scan must linger.
    SDK::ScanContext context = SDK::ScanContext::ForPath(dir.Join("www/Shell.PHP"));
    context.layerDepth = 2;
    const std::string layer = "decoded";
    Seen seen;
    ASSERT_TRUE(yara.CheckBuffer(layer.data(), layer.size(), &seen, 5, context)) << yara.LastError();
    EXPECT_EQ(seen.rules, (std::vector<std::string>{"layer_two"}));

    // A slow rule times out, naming the file. Quadratic in the file size:
    // far longer than a second on 64 KiB.
    ASSERT_TRUE(yara.LoadRuleFromFile(dir.Write("slow.yar", R"(
rule slow
{
    condition:
        for all i in (0..filesize - 1) : (
            for all j in (0..filesize - 1) : ( uint8(i) + uint8(j) < 600 )
        )
}
)"))) << yara.LastError();
    const std::string big = dir.Write("big.php", std::string(64 * 1024, 'a'));
    EXPECT_FALSE(yara.CheckFile(big, &seen, 1));
    EXPECT_NE(std::string::npos, yara.LastError().find("timed out")) << yara.LastError();
    EXPECT_NE(std::string::npos, yara.LastError().find(big));
}
