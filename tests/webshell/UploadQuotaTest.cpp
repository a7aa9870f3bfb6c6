// The daily upload quota. The recorder is one object per process, so the
// test that goes through it runs in a binary of its own; the period rules
// are tested on recorders with an injected clock.

#include <atomic>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "WebshellTestUtil.h"
#include "webshell/ScanWebshellTask.h"
#include "webshell/WebshellFileUploadRecorder.h"

using namespace WebshellTest;

namespace {

const int64_t kDayMs = 86400000;

struct FakeClock {
    std::atomic<int64_t> now{1700000000000};
    Engine::WebshellFileUploadRecorder::Clock Fn()
    {
        return [this] { return now.load(); };
    }
};

// Check, then record, as the upload does.
bool Upload(Engine::WebshellFileUploadRecorder& recorder, const std::string& path)
{
    if (!recorder.CheckUploadWebshellFile(path)) {
        return false;
    }
    recorder.AddUploadedWebshellFile(path);
    return true;
}

}  // namespace

// The first check opens the period and ignores the quota; then files pass
// while "count <= quota" (50 admits 51 below, 0 admits 1 end to end, and a
// negative quota only the first file).
TEST(WebshellFileUploadRecorder, PeriodRenewsLazilyAfterTwentyFourHoursAndRacersStayNearTheQuota)
{
    FakeClock clock;
    Engine::WebshellFileUploadRecorder negative(clock.Fn());
    negative.SetUploadFileCountPerDay(-3);
    EXPECT_TRUE(Upload(negative, "/a"));
    EXPECT_FALSE(Upload(negative, "/b"));

    Engine::WebshellFileUploadRecorder recorder(clock.Fn());
    recorder.SetUploadFileCountPerDay(1);
    const int64_t start = clock.now.load();
    EXPECT_TRUE(Upload(recorder, "/a"));
    EXPECT_TRUE(Upload(recorder, "/b"));
    EXPECT_FALSE(Upload(recorder, "/c"));

    // Exactly 24 h later the period still runs.
    clock.now = start + kDayMs;
    EXPECT_FALSE(Upload(recorder, "/c"));
    // A file of the old period is refused before the period test is made,
    // even after the period ran out...
    clock.now = start + kDayMs + 1;
    EXPECT_FALSE(recorder.CheckUploadWebshellFile("/a"));
    // ...until another file's check renews the period: count and set reset.
    EXPECT_TRUE(recorder.CheckUploadWebshellFile("/c"));
    EXPECT_EQ(recorder.GetUploadFileCount(), 0);
    recorder.AddUploadedWebshellFile("/c");
    EXPECT_TRUE(Upload(recorder, "/a"));
    EXPECT_FALSE(Upload(recorder, "/d"));

    // The new period runs from its own start.
    const int64_t second = start + kDayMs + 1;
    clock.now = second + kDayMs;
    EXPECT_FALSE(Upload(recorder, "/d"));
    clock.now = second + kDayMs + 1;
    EXPECT_TRUE(Upload(recorder, "/d"));

    // Concurrent uploaders stay within the quota plus the racers.
    Engine::WebshellFileUploadRecorder shared(clock.Fn());
    shared.SetUploadFileCountPerDay(50);
    std::atomic<int> admitted{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                admitted += Upload(shared, "/t" + std::to_string(t) + "/" + std::to_string(i)) ? 1 : 0;
            }
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    // Check and record are separate calls: racing threads may each pass.
    EXPECT_GE(admitted.load(), 51);
    EXPECT_LE(admitted.load(), 51 + 4);
    EXPECT_EQ(shared.GetUploadFileCount(), admitted.load());
}

// The only test in this binary that uses the process-wide recorder. The
// policy's quota reaching it is checked end to end.
TEST(WebshellUpload, PathsLongerThan256BytesAreNeverUploadedNorCounted)
{
    Env env;
    PolicyDoc doc;
    doc.defaultPaths = {env.Dir().MkDir("www")};
    doc.libHash = env.InstallRules(kTestRules);
    doc.uploadPerDay = 10;
    const auto task = StartOnce(MakePolicy(doc).get());

    const std::string tooLong = "/" + std::string(256, 'p');
    const std::string exact = "/" + std::string(255, 'q');
    task->SendFileUploadMsg(tooLong);
    EXPECT_EQ(Engine::WebshellFileUploadRecorder::GetInstance().GetUploadFileCount(), 0);
    task->SendFileUploadMsg(exact);
    task->SendFileUploadMsg(tooLong);
    EXPECT_EQ(env.UploadPaths(), (std::set<std::string>{exact}));
    EXPECT_EQ(Engine::WebshellFileUploadRecorder::GetInstance().GetUploadFileCount(), 1);
}
