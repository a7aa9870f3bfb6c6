#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sdk/FileUtils.h"
#include "sdk/PathUtils.h"
#include "sdk/StrUtils.h"
#include "sdk/TimeUtils.h"
#include "testsupport/TestSupport.h"

#include "Deadline.h"

using TestSupport::TempDir;

TEST(StrUtils, SplitKeepsPiecesAsTheyAre)
{
    struct Case {
        std::string text;
        std::string sep;
        std::vector<std::string> pieces;
    };
    const Case cases[] = {
        {"php,jsp,asp", ",", {"php", "jsp", "asp"}},
        {"", ",", {}},
        {"php", ",", {"php"}},
        {"a,,b", ",", {"a", "", "b"}},
        {",a,", ",", {"", "a", ""}},
        {",", ",", {"", ""}},
        {" php , jsp", ",", {" php ", " jsp"}},
        {"a::b:c", "::", {"a", "b:c"}},
        {"abc", "", {"abc"}},
    };
    for (const Case& c : cases) {
        std::vector<std::string> out;
        SDK::StrUtils::Split(c.text, c.sep, out);
        EXPECT_EQ(c.pieces, out) << "'" << c.text << "' at '" << c.sep << "'";
    }
    std::vector<std::string> out{"kept"};
    SDK::StrUtils::Split("x,y", ",", out);
    EXPECT_EQ((std::vector<std::string>{"kept", "x", "y"}), out) << "pieces are appended";
}

TEST(PathUtils, InstallationPathAndRealPath)
{
    TempDir dir("ardent-path");
    std::string out = "untouched";

    for (const std::string& spelling : {dir.Path(), dir.Path() + "/"}) {
        SDK::PathUtils::SetInstallationPath(spelling);
        ASSERT_EQ(0, SDK::PathUtils::GetInstallationPath(out));
        EXPECT_EQ(dir.Path() + "/", out);
    }

    // Relative: taken from the current directory at the time it is set.
    char cwd[PATH_MAX];
    ASSERT_NE(nullptr, getcwd(cwd, sizeof(cwd)));
    SDK::PathUtils::SetInstallationPath(".");
    ASSERT_EQ(0, SDK::PathUtils::GetInstallationPath(out));
    EXPECT_EQ(SDK::PathUtils::GetLinkRealPath(cwd) + "/", SDK::PathUtils::GetLinkRealPath(out) + "/");
    EXPECT_EQ('/', out.front());
    EXPECT_EQ('/', out.back());

    out = "untouched";
    for (const std::string& bad : {dir.Join("missing"), dir.Write("file", "x")}) {
        SDK::PathUtils::SetInstallationPath(bad);
        EXPECT_EQ(-1, SDK::PathUtils::GetInstallationPath(out));
    }
    EXPECT_EQ("untouched", out);

    // Unset: the parent of the directory holding this executable.
    SDK::PathUtils::SetInstallationPath("");
    ASSERT_EQ(0, SDK::PathUtils::GetInstallationPath(out));
    const std::string exe = SDK::PathUtils::GetLinkRealPath("/proc/self/exe");
    const std::string binDir = exe.substr(0, exe.rfind('/'));
    EXPECT_EQ(binDir.substr(0, binDir.rfind('/') + 1), out);

    const std::string target = dir.Write("real/target.php", "x");
    const std::string link = dir.Symlink(target, "link.php");
    const std::string realDir = SDK::PathUtils::GetLinkRealPath(dir.Path());
    EXPECT_EQ(realDir + "/real/target.php", SDK::PathUtils::GetLinkRealPath(link));
    EXPECT_EQ(realDir + "/real", SDK::PathUtils::GetLinkRealPath(dir.Join("real/../real/")));
    EXPECT_EQ("", SDK::PathUtils::GetLinkRealPath(dir.Symlink(dir.Join("nowhere"), "dangling")));
    EXPECT_EQ("", SDK::PathUtils::GetLinkRealPath(""));
}

TEST(FileUtils, Sha256MatchesSha256sumAndRefusesWhatItShouldNotRead)
{
    TempDir dir("ardent-sha");
    std::mt19937 rng(7);
    std::string big(3 * 64 * 1024 + 17, '\0');  // crosses several read chunks
    for (char& c : big) {
        c = static_cast<char>(rng());
    }
    const std::string lib = dir.Write("lib.dat", std::string(1000, 'r'));
    struct Case {
        std::string path;
        long limit;
        bool ok;
    };
    const Case cases[] = {
        {dir.Write("empty", ""), 0, true},
        {dir.Write("big.bin", big), 0, true},
        {dir.Write("exact.bin", std::string(64 * 1024, 'a')), 0, true},
        {dir.Write("name with spaces \xff.php", "x"), 0, true},
        {lib, 1000, true},   // exactly at the limit
        {lib, -5, true},     // negative: no limit
        {lib, 999, false},
        {dir.Join("missing"), 0, false},
        {dir.Path(), 0, false},
        {dir.Socket("sock.php"), 0, false},
        {dir.Fifo("fifo.php"), 0, false},  // no writer: refused at once, not waited on
        {"", 0, false},
    };
    for (const Case& c : cases) {
        bool flag = true;
        std::string digest = "untouched";
        int result = 0;
        ASSERT_TRUE(ReturnsWithoutWaitingOn(c.path, [&] {
            result = SDK::FileUtils::GetFileSha256(c.path, flag, digest, c.limit);
        })) << c.path;
        EXPECT_EQ(c.ok ? 0 : -1, result) << c.path;
        EXPECT_EQ(c.ok ? TestSupport::Sha256Sum(c.path) : "untouched", digest) << c.path;
    }
}
