// The loggers are process-wide, so these cases run in their own binary, in
// order: the first one sees the process before logging is configured.

#include <sys/stat.h>

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"
#include "testsupport/TestSupport.h"

using SDK::LoggerUtils;
using TestSupport::TempDir;

namespace {

const char* const kSource = "tests/sdk/LoggerUtilsTest";

bool Contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

}  // namespace

TEST(LoggerUtils, ConfigureAppliesToLoggersMadeBeforeAndAfterAndLevelsFollowTheRootUnlessOwn)
{
    EXPECT_EQ(nullptr, LoggerUtils::GetInstance()->GetRootLogger()) << "not configured yet";
    Poco::Logger* early = LoggerUtils::GetInstance()->GetModuleLogger("early_module", false);
    ASSERT_NE(nullptr, early);

    TempDir dir("ardent-log");
    const std::string logFile = dir.Join("log/agent.log");  // log/ does not exist yet
    ASSERT_TRUE(LoggerUtils::GetInstance()->Configure(logFile, false, "debug"));
    Poco::Logger* root = LoggerUtils::GetInstance()->GetRootLogger();
    ASSERT_NE(nullptr, root);
    Poco::Logger* late = LoggerUtils::GetInstance()->GetModuleLogger("late_module", false);

    SDK_LOG(early, Poco::Message::PRIO_INFORMATION, kSource, "Scan of %s started.",
            std::string("/var/www"));
    SDK_LOG(late, Poco::Message::PRIO_DEBUG, kSource, "debug %d", 42);
    SDK_LOG(late, Poco::Message::PRIO_TRACE, kSource, "trace is below the level");
    SDK_LOG(root, Poco::Message::PRIO_WARNING, kSource, "from the root");

    const std::vector<std::string> lines = TestSupport::ReadLines(logFile);
    ASSERT_EQ(3u, lines.size()) << TestSupport::ReadFile(logFile);
    EXPECT_TRUE(Contains(lines[0], "early_module: Scan of /var/www started.")) << lines[0];
    EXPECT_TRUE(Contains(lines[0], "[Information]")) << lines[0];
    EXPECT_TRUE(Contains(lines[0], std::string("(") + kSource + ":")) << lines[0];
    EXPECT_TRUE(Contains(lines[1], "late_module: debug 42")) << lines[1];
    EXPECT_TRUE(Contains(lines[1], "[Debug]")) << lines[1];
    EXPECT_TRUE(Contains(lines[2], "from the root")) << lines[2];
    // A record without a source position carries no empty "(:0)".
    late->information("plain record");
    EXPECT_FALSE(Contains(TestSupport::ReadFile(logFile), "(:0)"));

    // Levels follow the root's unless a logger has its own.
    const std::string levelsFile = dir.Join("levels.log");
    Poco::Logger* follower = LoggerUtils::GetInstance()->GetModuleLogger("follower_module", false);
    Poco::Logger* own = LoggerUtils::GetInstance()->GetModuleLogger("own_module", true);
    own->setLevel(Poco::Message::PRIO_DEBUG);

    ASSERT_TRUE(LoggerUtils::GetInstance()->Configure(levelsFile, false, "warning"));
    EXPECT_EQ(Poco::Message::PRIO_WARNING, follower->getLevel());
    EXPECT_EQ(Poco::Message::PRIO_DEBUG, own->getLevel()) << "own level kept across Configure";
    SDK_LOG(follower, Poco::Message::PRIO_INFORMATION, kSource, "follower info hidden");
    SDK_LOG(follower, Poco::Message::PRIO_ERROR, kSource, "follower error shown");
    SDK_LOG(own, Poco::Message::PRIO_DEBUG, kSource, "own debug shown");
    const std::string text = TestSupport::ReadFile(levelsFile);
    EXPECT_FALSE(Contains(text, "follower info hidden"));
    EXPECT_TRUE(Contains(text, "follower error shown"));
    EXPECT_TRUE(Contains(text, "own debug shown"));

    // Asked again without its own level, it follows the root once more.
    LoggerUtils::GetInstance()->GetModuleLogger("own_module", false);
    EXPECT_EQ(Poco::Message::PRIO_WARNING, own->getLevel());
}

TEST(LoggerUtils, BadConfigurationFallsBackToStderr)
{
    TempDir dir("ardent-log");
    const std::string blocker = dir.Write("file", "not a directory");

    testing::internal::CaptureStderr();
    const bool ok = LoggerUtils::GetInstance()->Configure(blocker + "/agent.log", false, "information");
    Poco::Logger* logger = LoggerUtils::GetInstance()->GetModuleLogger("fallback_module", false);
    SDK_LOG(logger, Poco::Message::PRIO_WARNING, kSource, "still visible");
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_FALSE(ok);
    EXPECT_TRUE(Contains(err, blocker + "/agent.log")) << err;
    EXPECT_TRUE(Contains(err, "still visible")) << err;

    testing::internal::CaptureStderr();
    const bool levelOk = LoggerUtils::GetInstance()->Configure("", false, "loud");
    SDK_LOG(logger, Poco::Message::PRIO_INFORMATION, kSource, "information is the fallback level");
    SDK_LOG(logger, Poco::Message::PRIO_DEBUG, kSource, "debug stays hidden");
    const std::string err2 = testing::internal::GetCapturedStderr();
    EXPECT_FALSE(levelOk);
    EXPECT_TRUE(Contains(err2, "loud")) << err2;
    EXPECT_TRUE(Contains(err2, "information is the fallback level")) << err2;
    EXPECT_FALSE(Contains(err2, "debug stays hidden")) << err2;
}

// The log to stderr as well as the file is the agent's --log-stderr, checked
// end to end.
TEST(LoggerUtils, RotationUnderSeveralWriters)
{
    TempDir dir("ardent-log");
    const std::string logFile = dir.Join("agent.log");
    ASSERT_TRUE(LoggerUtils::GetInstance()->Configure(logFile, false, "information"));
    // 11 MB of records from several threads: the file rotates at 10 MB.
    const std::string filler(1000, 'x');
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            Poco::Logger* mine = LoggerUtils::GetInstance()->GetModuleLogger(
                "writer" + std::to_string(t) + "_module", false);
            for (int i = 0; i < 2800; ++i) {
                SDK_LOG(mine, Poco::Message::PRIO_INFORMATION, kSource, "%d %s", i, filler);
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_TRUE(TestSupport::FileExists(logFile + ".0"));
    struct stat st {};
    ASSERT_EQ(0, stat(logFile.c_str(), &st));
    EXPECT_LT(st.st_size, 10 * 1024 * 1024);
    // The file the rotation made is as private as the first one.
    EXPECT_EQ(0u, st.st_mode & 0137) << std::oct << st.st_mode;
}

TEST(LoggerUtils, HostileValuesStayOnOneLineWithinALengthCap)
{
    // value -> what the log line shows
    const struct {
        std::string value;
        std::string shown;
    } cases[] = {
        {"x\nline.php", "x\\x0aline.php"},
        {"\x1b[31mred\x1b[0m\r\t", "\\x1b[31mred\\x1b[0m\\x0d\\x09"},
        {std::string("nul\0byte", 8), "nul\\x00byte"},
        {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x90\x8d", "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x90\x8d"},
        {"bad\xff\xc3(\xed\xa0\x80", "bad\\xff\\xc3(\\xed\\xa0\\x80"},  // stray, cut short, surrogate
        {"csi\xc2\x9b" "2J del\x7f", "csi\\xc2\\x9b" "2J del\\x7f"},
        {"back\\slash \\x0a", "back\\slash \\x0a"},  // already safe text is kept
    };
    TempDir dir("ardent-log");
    const std::string logFile = dir.Join("private/agent.log");
    const mode_t old = umask(0);  // whatever the umask, the log is not world-readable
    const bool configured = LoggerUtils::GetInstance()->Configure(logFile, false, "debug");
    umask(old);
    ASSERT_TRUE(configured);
    Poco::Logger* logger = LoggerUtils::GetInstance()->GetModuleLogger("hostile_module", false);
    for (const auto& c : cases) {
        SDK_LOG(logger, Poco::Message::PRIO_WARNING, kSource, "Check file failed, path(%s).", c.value);
        EXPECT_EQ(SDK::LogSafe(c.value), c.shown);
        EXPECT_EQ(SDK::LogSafe(c.shown), c.shown) << "escaping is idempotent";
    }
    // A C string value is escaped too, and "%s" takes it.
    SDK_LOG(logger, Poco::Message::PRIO_WARNING, kSource, "C string %s", "a\nb");
    // One huge path at debug level costs a few kilobytes, not the log.
    SDK_LOG(logger, Poco::Message::PRIO_DEBUG, kSource, "ScanFromDir, path(%s)", std::string(1 << 20, 'd'));
    // A record made without SDK_LOG is escaped and capped by the channel.
    logger->warning("direct\x1b]0;title\x07 " + std::string(1 << 20, 'e'));

    const std::vector<std::string> lines = TestSupport::ReadLines(logFile);
    ASSERT_EQ(std::size(cases) + 3, lines.size()) << TestSupport::ReadFile(logFile).substr(0, 4000);
    for (size_t i = 0; i < std::size(cases); ++i) {
        EXPECT_TRUE(Contains(lines[i], "Check file failed, path(" + cases[i].shown + ").")) << lines[i];
    }
    EXPECT_TRUE(Contains(lines[7], "C string a\\x0ab")) << lines[7];
    EXPECT_TRUE(Contains(lines[8], "...(" + std::to_string((1 << 20) - 4096) + " bytes cut))")) << lines[8].substr(0, 200);
    EXPECT_LT(lines[8].size(), 4096u + 200u);
    EXPECT_TRUE(Contains(lines[9], "direct\\x1b]0;title\\x07 eee")) << lines[9].substr(0, 200);
    EXPECT_LT(lines[9].size(), SDK::kMaxLogRecordBytes + 200u);
    struct stat st {};
    ASSERT_EQ(0, stat(logFile.c_str(), &st));
    EXPECT_EQ(0u, st.st_mode & 0137) << std::oct << st.st_mode;

    // A cut never splits a character: a 3-byte euro sign straddling the cap goes whole.
    const std::string euros = std::string(4095, 'a') + "\xe2\x82\xac";
    EXPECT_EQ(SDK::LogSafe(euros), std::string(4095, 'a') + "...(3 bytes cut)");
}
