#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <random>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sdk/CryptoCodeUtils.h"
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

TEST(TimeUtils, ClocksAgreeWithTheSystem)
{
    const int64_t s = SDK::TimeUtils::GetCurrentTimestampS();
    const int64_t ms = SDK::TimeUtils::GetCurrentTimestampMS();
    EXPECT_LE(std::llabs(s - static_cast<int64_t>(time(nullptr))), 2);
    EXPECT_LE(std::llabs(ms / 1000 - s), 2);

    struct timespec mono {};
    clock_gettime(CLOCK_MONOTONIC, &mono);
    const unsigned long tick = SDK::TimeUtils::GetCurrentSystemTickUsed();
    const unsigned long monoMs = static_cast<unsigned long>(mono.tv_sec) * 1000 + mono.tv_nsec / 1000000;
    EXPECT_LE(monoMs, tick);
    EXPECT_LE(tick - monoMs, 1000u);
    // The tick moves on.
    EXPECT_TRUE(TestSupport::WaitFor(
        [&] { return SDK::TimeUtils::GetCurrentSystemTickUsed() >= tick + 20; }, 5000));
}

TEST(CryptoCodeUtils, UuidsAreRandomVersion4)
{
    const std::regex form("^[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}$");
    std::set<std::string> seen;
    for (int i = 0; i < 2000; ++i) {
        const std::string id = SDK::CryptoCodeUtils::GenerateUUID();
        ASSERT_TRUE(std::regex_match(id, form)) << id;
        seen.insert(id);
    }
    EXPECT_EQ(2000u, seen.size());
}

TEST(PathUtils, InstallationPathAndRealPath)
{
    TempDir dir("ardent-path");
    std::string out = "untouched";

    SDK::PathUtils::SetInstallationPath(dir.Path());
    ASSERT_EQ(0, SDK::PathUtils::GetInstallationPath(out));
    EXPECT_EQ(dir.Path() + "/", out);

    SDK::PathUtils::SetInstallationPath(dir.Path() + "/");
    ASSERT_EQ(0, SDK::PathUtils::GetInstallationPath(out));
    EXPECT_EQ(dir.Path() + "/", out);

    // Relative: taken from the current directory at the time it is set.
    char cwd[PATH_MAX];
    ASSERT_NE(nullptr, getcwd(cwd, sizeof(cwd)));
    SDK::PathUtils::SetInstallationPath(".");
    ASSERT_EQ(0, SDK::PathUtils::GetInstallationPath(out));
    EXPECT_EQ(SDK::PathUtils::GetLinkRealPath(cwd) + "/", SDK::PathUtils::GetLinkRealPath(out) + "/");
    EXPECT_EQ('/', out.front());
    EXPECT_EQ('/', out.back());

    out = "untouched";
    SDK::PathUtils::SetInstallationPath(dir.Join("missing"));
    EXPECT_EQ(-1, SDK::PathUtils::GetInstallationPath(out));
    SDK::PathUtils::SetInstallationPath(dir.Write("file", "x"));
    EXPECT_EQ(-1, SDK::PathUtils::GetInstallationPath(out));
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

TEST(FileUtils, Sha256MatchesSha256sum)
{
    TempDir dir("ardent-sha");
    std::mt19937 rng(7);
    std::string big(3 * 64 * 1024 + 17, '\0');  // crosses several read chunks
    for (char& c : big) {
        c = static_cast<char>(rng());
    }
    const std::vector<std::string> files = {
        dir.Write("empty", ""),
        dir.Write("small.php", "<?php eval($_POST['x']); ?>\n"),
        dir.Write("big.bin", big),
        dir.Write("exact.bin", std::string(64 * 1024, 'a')),
        dir.Write("name with spaces \xff.php", "x"),
    };
    for (const std::string& path : files) {
        bool flag = true;
        std::string digest;
        ASSERT_EQ(0, SDK::FileUtils::GetFileSha256(path, flag, digest, 0)) << path;
        EXPECT_EQ(TestSupport::Sha256Sum(path), digest) << path;
    }
    EXPECT_EQ("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855",
              [&] {
                  bool flag = true;
                  std::string d;
                  SDK::FileUtils::GetFileSha256(files[0], flag, d, 0);
                  return d;
              }());
}

TEST(FileUtils, Sha256RefusesWhatItShouldNotRead)
{
    TempDir dir("ardent-sha");
    const std::string file = dir.Write("lib.dat", std::string(1000, 'r'));
    bool flag = true;
    std::string digest = "untouched";

    EXPECT_EQ(0, SDK::FileUtils::GetFileSha256(file, flag, digest, 1000)) << "exactly at the limit";
    EXPECT_EQ(TestSupport::Sha256Sum(file), digest);
    EXPECT_EQ(0, SDK::FileUtils::GetFileSha256(file, flag, digest, -5)) << "negative: no limit";

    digest = "untouched";
    EXPECT_EQ(-1, SDK::FileUtils::GetFileSha256(file, flag, digest, 999));
    EXPECT_EQ(-1, SDK::FileUtils::GetFileSha256(dir.Join("missing"), flag, digest, 0));
    EXPECT_EQ(-1, SDK::FileUtils::GetFileSha256(dir.Path(), flag, digest, 0));
    EXPECT_EQ(-1, SDK::FileUtils::GetFileSha256(dir.Socket("sock.php"), flag, digest, 0));
    // A FIFO with no writer: refused at once instead of waiting for data.
    const std::string fifo = dir.Fifo("fifo.php");
    int fifoResult = 0;
    EXPECT_TRUE(ReturnsWithoutWaitingOn(fifo, [&] {
        bool f = true;
        std::string d;
        fifoResult = SDK::FileUtils::GetFileSha256(fifo, f, d, 0);
    }));
    EXPECT_EQ(-1, fifoResult);
    EXPECT_EQ(-1, SDK::FileUtils::GetFileSha256("", flag, digest, 0));
    if (geteuid() != 0) {
        const std::string secret = dir.Write("secret", "x", 0000);
        EXPECT_EQ(-1, SDK::FileUtils::GetFileSha256(secret, flag, digest, 0));
    }
    EXPECT_EQ("untouched", digest) << "failures leave the output alone";
}
