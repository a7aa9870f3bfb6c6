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

TEST(LoggerUtils, ConfigureAppliesToLoggersMadeBeforeAndAfter)
{
    EXPECT_EQ(nullptr, LoggerUtils::GetInstance()->GetRootLogger()) << "not configured yet";
    EXPECT_EQ(LoggerUtils::GetInstance(), LoggerUtils::GetInstance());
    Poco::Logger* early = LoggerUtils::GetInstance()->GetModuleLogger("early_module", false);
    ASSERT_NE(nullptr, early);
    EXPECT_EQ("early_module", early->name());

    TempDir dir("ardent-log");
    const std::string logFile = dir.Join("log/agent.log");  // log/ does not exist yet
    ASSERT_TRUE(LoggerUtils::GetInstance()->Configure(logFile, false, "debug"));
    Poco::Logger* root = LoggerUtils::GetInstance()->GetRootLogger();
    ASSERT_NE(nullptr, root);
    Poco::Logger* late = LoggerUtils::GetInstance()->GetModuleLogger("late_module", false);
    EXPECT_EQ(late, LoggerUtils::GetInstance()->GetModuleLogger("late_module", false));

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
}

TEST(LoggerUtils, LevelsFollowTheRootUnlessOwn)
{
    TempDir dir("ardent-log");
    const std::string logFile = dir.Join("agent.log");
    Poco::Logger* follower = LoggerUtils::GetInstance()->GetModuleLogger("follower_module", false);
    Poco::Logger* own = LoggerUtils::GetInstance()->GetModuleLogger("own_module", true);
    own->setLevel(Poco::Message::PRIO_DEBUG);

    ASSERT_TRUE(LoggerUtils::GetInstance()->Configure(logFile, false, "warning"));
    EXPECT_EQ(Poco::Message::PRIO_WARNING, follower->getLevel());
    EXPECT_EQ(Poco::Message::PRIO_DEBUG, own->getLevel()) << "own level kept across Configure";
    SDK_LOG(follower, Poco::Message::PRIO_INFORMATION, kSource, "follower info hidden");
    SDK_LOG(follower, Poco::Message::PRIO_ERROR, kSource, "follower error shown");
    SDK_LOG(own, Poco::Message::PRIO_DEBUG, kSource, "own debug shown");
    const std::string text = TestSupport::ReadFile(logFile);
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

TEST(LoggerUtils, FileAndStderrTogetherAndRotation)
{
    TempDir dir("ardent-log");
    const std::string logFile = dir.Join("agent.log");
    testing::internal::CaptureStderr();
    ASSERT_TRUE(LoggerUtils::GetInstance()->Configure(logFile, true, "information"));
    Poco::Logger* logger = LoggerUtils::GetInstance()->GetModuleLogger("both_module", false);
    SDK_LOG(logger, Poco::Message::PRIO_NOTICE, kSource, "to both sinks");
    EXPECT_TRUE(Contains(testing::internal::GetCapturedStderr(), "to both sinks"));
    EXPECT_TRUE(Contains(TestSupport::ReadFile(logFile), "to both sinks"));

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
}
