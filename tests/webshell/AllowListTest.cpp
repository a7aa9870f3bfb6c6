// Allow-list globs and list files: what "*", "**" and "?" match, and which
// lines and policy values are refused with which reason.

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "webshell/AllowList.h"

using Engine::AllowEntries;
using Engine::AllowList;

TEST(AllowListTest, GlobsMatchWholePathsStarStopsAtSlashDoubleStarDoesNot)
{
    struct Case {
        const char* glob;
        const char* path;
        bool match;
    };
    const Case cases[] = {
        {"/www/*.php", "/www/a.php", true},
        {"/www/*.php", "/www/sub/a.php", false},
        {"/www/*", "/www/", true},
        {"/www/a?.php", "/www/ab.php", true},
        {"/www/a?.php", "/www/a/.php", false},
        {"/www/**", "/wwwx/a.php", false},
        {"/www/**/cache/*.php", "/www/cache/a.php", true},  // **/ is also no directory
        {"/www/**/cache/*.php", "/www/a/b/cache/a.php", true},
        {"/www/**/cache/*.php", "/www/a/xcache/a.php", false},
        {"**/vendor/**", "/srv/site/vendor/lib/x.php", true},
        {"/www/**.php", "/www/a/b.php", true},
        {"/www/**.php", "/www/a/b.phps", false},
        {"/www/[a].php", "/www/[a].php", true},  // brackets are literal
        {"/www/[a].php", "/www/a.php", false},
        {"/a/*/*/*/*/*/*/*/*/*/*/*/*/z", "/a/b/b/b/b/b/b/b/b/b/b/b/b/b/b/b/b/b/b/b/b/y", false},
        {"", "", true},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(AllowList::GlobMatch(c.glob, c.path), c.match) << c.glob << " vs " << c.path;
    }
}

TEST(AllowListTest, ListFilesAndPolicyKeepGoodEntriesAndNameEachBadOne)
{
    const std::string sha(64, 'a');
    std::vector<std::string> problems;
    const AllowEntries entries = AllowList::FromListText(
        "# comment\n\n  path: /www/vendor/**  \nsha256:" + std::string(64, 'A') +
            "\nrule:my_rule_1\nrule:1bad\nsha256:abc\npath:relative/*.php\nwhat:ever\nno colon\n",
        "x.list", problems);
    // Every kind is also checked end to end; here the spaces around an entry.
    EXPECT_EQ(entries.paths, std::vector<std::string>{"/www/vendor/**"});
    EXPECT_EQ(entries.Size(), 3u);
    ASSERT_EQ(problems.size(), 5u);
    const char* const lines[] = {"x.list:6: ", "x.list:7: ", "x.list:8: ", "x.list:9: ", "x.list:10: "};
    for (size_t i = 0; i < problems.size(); ++i) {
        EXPECT_EQ(problems[i].rfind(lines[i], 0), 0u) << problems[i];
    }

    Json::Value allow;
    allow["paths"].append("/www/cache/*");
    allow["paths"].append(7);
    allow["sha256"].append("zz");
    allow["rules"] = "not an array";
    allow["rule"] = Json::arrayValue;
    std::vector<std::string> errors;
    std::vector<std::string> warnings;
    const AllowEntries fromPolicy = AllowList::FromPolicy(allow, errors, warnings);
    EXPECT_EQ(fromPolicy.paths, std::vector<std::string>{"/www/cache/*"});
    EXPECT_EQ(errors, (std::vector<std::string>{
                          "content.allow.paths[1] must be a string",
                          "content.allow.sha256[0]: \"zz\" is not a SHA-256 (64 hexadecimal digits)",
                          "content.allow.rules must be an array of strings"}));
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_NE(warnings[0].find("content.allow.rule "), std::string::npos) << warnings[0];

    // The digest is asked for only once a sha256 entry exists.
    AllowList list("/nonexistent/allow.d/");
    AllowEntries policy;
    int asked = 0;
    const auto give = [&]() -> const std::string& { ++asked; return sha; };
    EXPECT_EQ(list.Allowing(policy, "/www/a.php", "r", give), "");
    policy.sha256.insert(sha);
    EXPECT_EQ(list.Allowing(policy, "/www/a.php", "r", give), "policy sha256:" + sha);
    EXPECT_EQ(asked, 1);
}
