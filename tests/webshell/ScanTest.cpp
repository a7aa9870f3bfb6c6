// Scan roots, the rule library, the walk over real trees, the check of one
// file with real compiled rules, and the event it gives.

#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <regex>
#include <set>

#include <gtest/gtest.h>

#include "WebshellTestUtil.h"
#include "framework/StatusBoard.h"
#include "message/AssetMessage.h"
#include "sdk/TimeUtils.h"
#include "sdk/YaraUtils.h"
#include "webshell/DetectResult.h"
#include "webshell/ScanWebshellTask.h"

using namespace WebshellTest;

namespace {

using ScanTest = TaskFixture<Engine::OnceScanWebshellTask>;

std::string Certain(const std::string& prefix = "<?php ") { return prefix + kCertainMark + "\n"; }

std::set<std::string> Keys(const Json::Value& object)
{
    const auto names = object.getMemberNames();
    return std::set<std::string>(names.begin(), names.end());
}

// Runs one pass of `task` on another thread; a pass still running after the
// deadline is cancelled and counts as endless.
bool PassEnds(Engine::OnceScanWebshellTask& task, int timeoutS = 60)
{
    auto done = std::async(std::launch::async, [&task] { task.Run(); });
    if (done.wait_for(std::chrono::seconds(timeoutS)) == std::future_status::ready) {
        return true;
    }
    task.cancel();
    done.wait();
    return false;
}

// Writes `levels` directories named `prefix`<i> padded to 100 bytes below
// `base`, a shell in each, and at the bottom a link "jump" to `jumpTo` when
// given; returns the deepest directory's path. Everything is made relative
// to a directory descriptor: the paths pass PATH_MAX.
std::string MakeDeepTree(const std::string& base, const std::string& prefix, int levels,
                         std::vector<std::string>& shells, const std::string& jumpTo = "")
{
    int fd = open(base.c_str(), O_RDONLY | O_DIRECTORY);
    std::string path = base;
    for (int i = 0; i < levels && fd >= 0; ++i) {
        std::string name = prefix + std::to_string(i);
        name.resize(100, 'x');
        mkdirat(fd, name.c_str(), 0755);
        const int next = openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY);
        close(fd);
        fd = next;
        path += "/" + name;
        const int file = openat(fd, "s.php", O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const std::string content = Certain();
        EXPECT_EQ(write(file, content.data(), content.size()), static_cast<ssize_t>(content.size()));
        close(file);
        shells.push_back(path + "/s.php");
    }
    EXPECT_GE(fd, 0);
    if (!jumpTo.empty()) {
        EXPECT_EQ(0, symlinkat(jumpTo.c_str(), fd, "jump"));
    }
    close(fd);
    return path;
}

}  // namespace

TEST_F(ScanTest, ScanRootsComeFromBothListsAndFromReportedServers)
{
    const std::string www = web.MkDir("www");
    const std::string other = web.MkDir("other");
    const std::string file = web.Write("index.php", "<?php");
    const std::string link = web.Symlink(www, "www-link");
    const std::string hostRoot = web.MkDir("host/html");
    const std::string tomcatRoot = web.MkDir("tomcat/webapps");
    const std::string containerRoot = web.MkDir("proc/1234/root/var/www");
    doc.defaultPaths = {www, web.Join("missing"), file};
    doc.customPaths = {www, www + "/", link, other, web.Symlink(web.Join("gone"), "dangling")};

    auto asset = [](const std::string& container, std::vector<std::string> dirs) {
        auto info = std::make_shared<Engine::AssetMessage::assetInfo>();
        info->containerId = container;
        for (auto& d : dirs) {
            auto dir = std::make_shared<Engine::AssetMessage::webDirInfo>();
            dir->path = d;
            info->webDirList.push_back(dir);
        }
        return info;
    };
    auto report = [&](unsigned kind, const Engine::AssetMessage::AssetMap& assets) {
        Engine::AssetMessage(kind, assets).MessageHandle(static_cast<Framework::Task*>(task.get()));
    };
    // Reports that come before any policy are kept for it.
    report(0, {{1, asset("", {hostRoot, web.Join("nowhere")})}, {2, asset("c0ffee", {containerRoot})}});
    report(4, {{7, asset("", {tomcatRoot})}});
    Apply();
    ASSERT_TRUE(task->ParsePolicyContent());
    // Duplicates collapse; the trailing slash makes another root; the link
    // is a root under its own path, a file is checked alone; missing paths
    // and dangling links are not roots; a container's web root is one only
    // while containers are followed.
    EXPECT_EQ(task->GetScanPaths(), (std::set<std::string>{www, www + "/", link, other, file, hostRoot, tomcatRoot}));

    // A second report of kind 4 replaces that kind whole; kind 0 stays.
    doc.monitorContainer = true;
    Apply();
    report(4, {});
    ASSERT_TRUE(task->ParsePolicyContent());
    EXPECT_EQ(task->GetScanPaths(), (std::set<std::string>{www, www + "/", link, other, file, hostRoot, containerRoot}));
}

// Fetching, a missing library, a new version, a broken update and its
// recovery are checked end to end; here what only the task shows: the
// digest gates the load, and new content under the same version is not
// loaded.
TEST_F(ScanTest, RuleLibraryIsVerifiedDownloadedAndLoadedByVersion)
{
    const std::string marked = web.Write("www/a.php", Certain());
    doc.defaultPaths = {web.Join("www")};
    const std::string goodHash = doc.libHash;

    // Present but with another hash: a download request per call, no load.
    doc.libHash = std::string(64, '0');
    Apply();
    env.ClearCaptures();
    EXPECT_FALSE(task->ParsePolicyContent());
    EXPECT_FALSE(task->ParsePolicyContent());
    auto downloads = env.Sent<Framework::FileMessage>(kFileReport);
    ASSERT_EQ(downloads.size(), 2u);
    EXPECT_EQ(downloads[0]->GetTaskType(), Framework::FileMessage::DOWNLOAD);
    EXPECT_EQ(downloads[0]->GetFilePath(), env.LibPath());
    EXPECT_EQ(downloads[0]->GetKind(), doc.libHash);  // installed only with this digest
    EXPECT_EQ(downloads[0]->GetExtra(), doc.libUrl);
    EXPECT_EQ(Framework::StatusBoard::Get("webshell.rules")["state"].asString(), "hash_mismatch");
    EXPECT_EQ(task->GetLoadedLibVersion(), "");

    // Matching hash: loaded once, then kept while the version stays.
    env.ClearCaptures();
    doc.libHash = goodHash;
    Apply();
    EXPECT_TRUE(task->ParsePolicyContent());
    EXPECT_EQ(task->GetLoadedLibVersion(), "1");
    EXPECT_TRUE(env.Sent<Framework::FileMessage>(kFileReport).empty());

    // New content under the same version is not reloaded: the old rules,
    // which know the mark, still find it.
    doc.libHash = env.InstallRules("rule other : certain { strings: $o = \"OTHER_MARK_3e1d\" condition: $o }");
    Apply();
    EXPECT_TRUE(task->ParsePolicyContent());
    task->ScanFromFile(marked, Engine::ContainerCacheInfo());
    EXPECT_EQ(env.EventPaths(), (std::set<std::string>{marked}));
}

// What receivers rely on beyond what the end-to-end tests read: exactly the
// known keys, the fixed figures, a fresh version-4 id per event, and
// duplicate suppression within a minute, per task.
TEST_F(ScanTest, HostFileEventHasTheKnownKeysAndFiguresAndIsSentOncePerTask)
{
    doc.defaultPaths = {web.MkDir("www")};
    Apply();
    ASSERT_TRUE(task->ParsePolicyContent());
    const std::string shell = web.Write("www/dir with space/sh\"ell.php", Certain());
    const int64_t before = SDK::TimeUtils::GetCurrentTimestampS();
    task->ScanFromFile(shell, Engine::ContainerCacheInfo());
    const int64_t after = SDK::TimeUtils::GetCurrentTimestampS();

    auto events = env.Events();
    ASSERT_EQ(events.size(), 1u);
    const Json::Value& event = events[0];
    std::set<std::string> keys = Keys(event);
    keys.erase("host_id");  // present only where /etc/machine-id is readable
    EXPECT_EQ(keys, (std::set<std::string>{"event_id", "event_classid", "event_name", "occur_time",
                                           "event_category", "event_type", "severity", "event_count",
                                           "attack_phase", "attack_tag", "confidence", "detect_module",
                                           "file_info", "occur_time_iso", "host_name", "agent_version",
                                           "rule_name", "layer_depth"}));
    EXPECT_TRUE(std::regex_match(event["event_id"].asString(),
                                 std::regex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}")))
        << event["event_id"].asString();
    ASSERT_TRUE(event["occur_time"].isIntegral());
    EXPECT_GE(event["occur_time"].asInt64(), before);
    EXPECT_LE(event["occur_time"].asInt64(), after);
    const std::pair<const char*, int> numbers[] = {{"event_category", 1000}, {"event_type", 1015}, {"severity", 2},
                                                   {"event_count", 1},       {"attack_phase", 6},  {"attack_tag", 2},
                                                   {"confidence", 90}};
    for (const auto& [key, value] : numbers) {
        EXPECT_EQ(event[key].asInt(), value) << key;
    }
    ASSERT_EQ(event["file_info"].size(), 1u);
    EXPECT_EQ(Keys(event["file_info"][0]), (std::set<std::string>{"file_path", "file_key_word", "file_sha256"}));
    EXPECT_EQ(event["file_info"][0]["file_sha256"].asString(), TestSupport::Sha256Sum(shell));

    const std::string second = web.Write("www/second.php", Certain());
    task->ScanFromFile(second, Engine::ContainerCacheInfo());
    task->ScanFromFile(shell, Engine::ContainerCacheInfo());
    events = env.Events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_NE(events[0]["event_id"].asString(), events[1]["event_id"].asString());
    const auto other = StartOnce(policy.get());
    ASSERT_TRUE(other->ParsePolicyContent());
    other->ScanFromFile(shell, Engine::ContainerCacheInfo());
    EXPECT_EQ(env.Events().size(), 3u);

    // An event without a key word (a private string) has no file_key_word
    // (an extra_php tag making an upload is the decoding tests' case).
    const std::string privateOnly = web.Write("www/private.php", kPrivateMark);
    task->ScanFromFile(privateOnly, Engine::ContainerCacheInfo());
    events = env.Events();
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[3]["file_info"][0]["file_path"].asString(), privateOnly);
    EXPECT_FALSE(events[3]["file_info"][0].isMember("file_key_word"));
}

TEST_F(ScanTest, WalkOverAHostileTreeChecksExactlyTheRightFiles)
{
    const std::string root = web.MkDir("www");
    const std::string a = web.Write("www/a.php", Certain());
    const std::string b = web.Write("www/b.php", std::string("<?php ") + kSuspiciousMark);
    web.Write("www/c.txt", Certain("text "));  // wrong suffix
    // Two rules match, neither certain: one upload.
    const std::string both = web.Write("www/both.php", std::string(kSuspiciousMark) + " " + kExtraPhpMark);
    web.Write("www/clean.php", "<?php echo 'hello';");
    std::string exact = Certain("<?php ");
    exact.resize(100, ' ');
    const std::string atLimit = web.Write("www/size/exact.php", exact);
    const std::string overLimit = web.Write("www/size/over.php", exact + " ");
    const std::string fifo = web.Fifo("www/pipes/index.php");
    const std::string socket = web.Socket("www/sock/index.php");
    const std::string real = web.Write("www/real/r.php", Certain());
    web.Symlink(web.Join("www/real"), "www/linkdir");
    web.Symlink(".", "www/loop/self");
    const std::string dangling = web.Symlink(web.Join("www/nowhere.php"), "www/dangling.php");
    const std::string fileLink = web.Symlink(a, "www/filelink.php");
    const std::string locked = web.Write("www/locked/l.php", Certain());
    web.MkDir("www/locked", 0);

    doc.defaultPaths = {root};
    doc.customPaths = {root, root + "/"};  // the same root twice is walked once
    doc.maxFileSize = 100;
    Apply();
    // Root reads a mode-0 directory anyway: the walk runs with the file
    // system uid of "nobody" (per thread; it drops root's file capabilities).
    chmod(web.Path().c_str(), 0755);
    log.SetHook([](const LogRecord& record) {
        if (record.text == "Webshell task check OS web directory. ") {
            setfsuid(65534);
        }
    });
    task->Run();
    setfsuid(0);
    log.SetHook(nullptr);

    // A directory reached under two names is walked once, and a file under
    // two names is checked once: under whichever name the walk met first.
    const std::set<std::string> events = env.EventPaths();
    EXPECT_EQ(events.size(), 3u) << log.Dump();
    EXPECT_EQ(events.count(a) + events.count(fileLink), 1u);
    EXPECT_EQ(events.count(real) + events.count(root + "/linkdir/r.php"), 1u);
    EXPECT_EQ(events.count(atLimit), 1u);
    const size_t expectedEvents = events.size();
    EXPECT_EQ(env.UploadPaths(), (std::set<std::string>{b, both}));
    // An unreadable directory is named once, at warning.
    EXPECT_EQ(log.Count("Cannot read directory " + web.Join("www/locked") +
                            " (Permission denied); the files under it are not checked.",
                        Poco::Message::PRIO_WARNING),
              1u);

    // Checked: the matches plus clean.php; seen: also c.txt and over.php.
    const Json::Value pass = Framework::StatusBoard::Get("webshell.last_pass");
    EXPECT_EQ(pass["state"].asString(), "finished");
    const std::pair<const char*, size_t> figures[] = {
        {"events", expectedEvents},        {"uploads", 2},           {"certain", expectedEvents},
        {"uncertain", 2},                  {"files_matched", expectedEvents + 2},
        {"files_checked", expectedEvents + 3}, {"files_seen", expectedEvents + 5}};
    for (const auto& [key, value] : figures) {
        EXPECT_EQ(pass[key].asUInt64(), value) << key;
    }
    ASSERT_EQ(pass["roots"].size(), 2u);
    EXPECT_EQ(pass["roots"][0].asString(), root);
}

TEST_F(ScanTest, LinkArrangementsEndAndReportEachShellOnceAlsoBeyondFourKilobytePaths)
{
    TestSupport::TempDir outside("ardent-outside");
    outside.Write("o.php", Certain());
    struct Arrangement {
        const char* name;
        std::vector<std::pair<std::string, std::string>> links;  // link -> target ("@out": outside)
        // Each shell: where it is written ("" outside the root), then the
        // other names it may be reported under.
        std::vector<std::vector<std::string>> shells;
    };
    const Arrangement arrangements[] = {
        {"two links to .", {{"l1", "."}, {"l2", "."}}, {{"a.php"}}},
        {"link to ..", {{"sub/up", ".."}}, {{"a.php"}, {"sub/s.php"}}},
        {"link two levels up", {{"d1/d2/top", "../.."}}, {{"a.php"}, {"d1/d2/deep.php"}}},
        {"links between siblings",
         {{"x/toY", "../y"}, {"y/toX", "../x"}},
         {{"a.php"}, {"x/x.php", "y/toX/x.php"}, {"y/y.php", "x/toY/y.php"}}},
        {"chain of links back to the root",
         {{"l1", "l2"}, {"l2", "l3"}, {"l3", "."}, {"sub/back", "../l1"}},
         {{"a.php"}, {"sub/s.php"}}},
        {"links and a hard link to one file",
         {{"alias.php", "a.php"}, {"chain.php", "alias.php"}, {"hard.php", "=a.php"}},
         {{"a.php", "alias.php", "chain.php", "hard.php"}}},
        {"two links to one outside directory", {{"o1", "@out"}, {"o2", "@out"}}, {{"a.php"}, {"", "o1/o.php", "o2/o.php"}}},
    };
    for (const auto& arrangement : arrangements) {
        SCOPED_TRACE(arrangement.name);
        TestSupport::TempDir root("ardent-links");
        for (const auto& shell : arrangement.shells) {
            if (!shell.front().empty()) {
                root.Write(shell.front(), Certain());
            }
        }
        for (const auto& link : arrangement.links) {
            if (link.second[0] == '=') {
                ASSERT_EQ(0, ::link(root.Join(link.second.substr(1)).c_str(), root.Join(link.first).c_str()));
            } else {
                root.Symlink(link.second == "@out" ? outside.Path() : link.second, link.first);
            }
        }
        env.ClearCaptures();
        doc.defaultPaths = {root.Path()};
        EXPECT_TRUE(PassEnds(*StartOnce(MakePolicy(doc).get()))) << "the pass did not end";

        std::vector<std::string> reported;
        for (auto& e : env.Events()) {
            reported.push_back(e["file_info"][0]["file_path"].asString());
        }
        EXPECT_EQ(reported.size(), arrangement.shells.size());
        for (const auto& shell : arrangement.shells) {
            size_t times = 0;
            for (const auto& path : reported) {
                times += std::count(shell.begin(), shell.end(), path.substr(root.Path().size() + 1));
            }
            EXPECT_EQ(times, 1u) << shell.back() << " reported " << times << " times";
        }
    }

    // 45 levels of 100-byte names (a 4.5 KB path, deeper than the walk keeps
    // descriptors open), a shell on every level, and from the bottom a link
    // into another 40 levels outside the root.
    std::vector<std::string> outsideShells;
    MakeDeepTree(outside.Path(), "far", 40, outsideShells);
    const std::string far0 = outsideShells.front().substr(0, outsideShells.front().rfind('/'));
    std::vector<std::string> shells;
    const std::string bottom = MakeDeepTree(web.MkDir("www"), "level", 45, shells, far0);
    for (const auto& path : outsideShells) {
        shells.push_back(bottom + "/jump" + path.substr(far0.size()));
    }
    ASSERT_GT(shells.back().size(), 8000u);

    env.ClearCaptures();
    log.Clear();
    doc.defaultPaths = {web.Join("www")};
    Apply();
    EXPECT_TRUE(PassEnds(*task));
    const std::set<std::string> reported = env.EventPaths();
    for (const auto& shell : shells) {
        EXPECT_EQ(reported.count(shell), 1u) << "missed, at depth " << std::count(shell.begin(), shell.end(), '/');
    }
    EXPECT_EQ(reported.size(), shells.size());
    EXPECT_EQ(log.Texts("", Poco::Message::PRIO_WARNING), std::vector<std::string>{});
}

TEST_F(ScanTest, SuffixFilterUsesTheLastDotOfTheWholePathAndNoSizeLimitIsZeroOrLess)
{
    // An empty text lets every file through; ",," gives empty pieces that
    // match only a path ending in a dot.
    const struct {
        const char* fileType;
        std::vector<std::string> pass;
        std::vector<std::string> refuse;
    } cases[] = {
        {"php,JSP",
         {"/srv/www/a.Php", "/srv/www/b.jsp", "/srv/site.d/x.php", ".php"},
         {"/srv/www/c.php5", "/srv/www/README", "/srv/site.d/index", "/srv/www/a.php."}},
        {"", {"/srv/www/README", "/srv/site.d/index"}, {}},
        {"php,,", {"/srv/www/a."}, {"/srv/www/README"}},
    };
    doc.defaultPaths = {web.MkDir("www")};
    for (const auto& c : cases) {
        doc.fileType = c.fileType;
        Apply();
        ASSERT_TRUE(task->ParsePolicyContent());
        for (const auto& path : c.pass) {
            EXPECT_TRUE(task->CheckFileType(path)) << c.fileType << " " << path;
        }
        for (const auto& path : c.refuse) {
            EXPECT_FALSE(task->CheckFileType(path)) << c.fileType << " " << path;
        }
    }

    // A size limit of zero or less means no limit.
    for (int limit : {0, -1}) {
        env.ClearCaptures();
        const std::string dir = "www" + std::to_string(limit);
        const std::string big = web.Write(dir + "/big.php", Certain() + std::string(5000, 'x'));
        doc.defaultPaths = {web.Join(dir)};
        doc.maxFileSize = limit;
        Apply();
        task->Run();
        EXPECT_EQ(env.EventPaths(), (std::set<std::string>{big})) << limit;
    }
}

TEST_F(ScanTest, MatchCallbackReadsTagsInOrderAndTheLastMatchedText)
{
    const std::string extra = web.Write("f/extra.php", kExtraPhpMark);
    const std::string certainly = web.Write("f/certainly.php", kCertainlyMark);
    const std::string privateOnly = web.Write("f/private.php", kPrivateMark);
    const std::string twoStrings = web.Write("f/two.php", std::string(kSecondMark) + " " + kFirstMark);
    const std::string both = web.Write("f/both.php", std::string(kCertainMark) + kSuspiciousMark);
    const std::string clean = web.Write("f/clean.php", "nothing here");

    SDK::YaraUtils yara(&Engine::ScanWebshellTask::Callback);
    ASSERT_TRUE(yara.LoadRuleFromFile(env.LibPath()));
    auto check = [&](const std::string& path) {
        Engine::DetectResult result;
        EXPECT_TRUE(yara.CheckFile(path, &result, 5)) << path;
        return result;
    };

    // The first fitting tag decides; "certainly" is a prefix test; private
    // strings give no key word; of several strings the last in rule order
    // wins; a certain rule beats an earlier suspicious one.
    const struct {
        std::string path, rule, keyWord;
        bool certain, extraPhp;
    } cases[] = {
        {extra, "extra_then_certain", kExtraPhpMark, false, true},
        {certainly, "certainly_prefix", kCertainlyMark, true, false},
        {privateOnly, "private_only", "", true, false},
        {twoStrings, "two_strings", kSecondMark, true, false},
        {both, "certain_mark", kCertainMark, true, false},
        {clean, "", "", false, false},
    };
    for (const auto& c : cases) {
        const Engine::DetectResult r = check(c.path);
        EXPECT_EQ(r.matched, !c.rule.empty()) << c.path;
        EXPECT_EQ(r.ruleName, c.rule) << c.path;
        EXPECT_EQ(r.keyWord, c.keyWord) << c.path;
        EXPECT_EQ(r.certain, c.certain) << c.path;
        EXPECT_EQ(r.extraPhp, c.extraPhp) << c.path;
        EXPECT_FALSE(r.extraJsp) << c.path;
    }
}

TEST_F(ScanTest, CancellingDuringAWalkStopsAtTheNextEntry)
{
    const std::string root = web.MkDir("www");
    for (int d = 0; d < 30; ++d) {
        for (int f = 0; f < 20; ++f) {
            web.Write("www/d" + std::to_string(d) + "/f" + std::to_string(f) + ".php", "<?php echo 1;");
        }
    }
    doc.defaultPaths = {root};
    Apply();

    // While a pass runs, status shows how far it got.
    uint64_t seenWhileRunning = 0;
    log.SetHook([&seenWhileRunning](const LogRecord& record) {
        const Json::Value running = Framework::StatusBoard::Get("webshell.last_pass");
        if (running["state"].asString() == "running") {
            seenWhileRunning = std::max<uint64_t>(seenWhileRunning, running["files_seen"].asUInt64());
        }
    });
    task->Run();
    EXPECT_GE(seenWhileRunning, 100u);
    EXPECT_EQ(Framework::StatusBoard::Get("webshell.last_pass")["files_seen"].asUInt64(), 600u);
    log.Clear();

    // Cancel from inside the walk, the moment it enters the tenth directory.
    const std::string trigger = "ScanFromDir, path(" + root + "/d10), index(0)";
    Engine::OnceScanWebshellTask* raw = task.get();
    log.SetHook([raw, trigger](const LogRecord& record) {
        if (record.text == trigger) {
            raw->cancel();
        }
    });
    task->Run();
    log.SetHook(nullptr);

    ASSERT_TRUE(task->IsCancelling());
    const auto records = log.Records();
    auto at = std::find_if(records.begin(), records.end(), [&](const LogRecord& r) { return r.text == trigger; });
    ASSERT_NE(at, records.end()) << "the walk never reached d10";
    for (auto it = at + 1; it != records.end(); ++it) {
        EXPECT_NE(it->text.compare(0, 12, "ScanFromDir,"), 0) << "walked on after the cancel: " << it->text;
    }
    const Json::Value pass = Framework::StatusBoard::Get("webshell.last_pass");
    EXPECT_EQ(pass["state"].asString(), "finished");
    EXPECT_LT(pass["files_seen"].asUInt64(), 600u);
    // The cancelled directory's own files were not checked: the pass saw
    // whole directories only.
    EXPECT_EQ(pass["files_seen"].asUInt64() % 20, 0u);

    // A task that is cancelling does not start walking the next root.
    log.Clear();
    task->Run();
    EXPECT_EQ(log.Count("ScanFromDir", Poco::Message::PRIO_TRACE), 0u);
}
