// The two report services on a real engine: messages in, lines, files and
// status-board figures out; coalesced downloads; a prompt stop while a
// download hangs. (The engine test loads the real libreport_module.so.)

#include <sys/stat.h>
#include <sys/time.h>

#include <memory>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include "LoopbackHttpServer.h"
#include "framework/Message.h"
#include "framework/StatusBoard.h"
#include "report/DataCommReportTask.h"
#include "report/FileCommReportTask.h"
#include "report/ReportConfig.h"
#include "sdk/TimeUtils.h"
#include "testsupport/TestSupport.h"

namespace {

using Engine::DataCommReportTask;
using Engine::FileCommReportTask;
using Framework::DataMessage;
using Framework::FileMessage;
using Framework::StatusBoard;
using TestSupport::ReadFile;
using TestSupport::ReadLines;
using TestSupport::TempDir;
using TestSupport::TestEngine;
using TestSupport::WaitFor;

uint64_t Figure(const char* key, const char* member)
{
    return StatusBoard::Get(key)[member].asUInt64();
}

Json::Value DownloadStatus(const std::string& target)
{
    return StatusBoard::Get(FileCommReportTask::kDownloadsKey)[target];
}

bool Ends(const std::string& target, const std::string& state)
{
    return WaitFor([&] { return DownloadStatus(target)["state"].asString() == state; });
}

void Fetch(TestEngine& env, const std::string& target, const std::string& url, const std::string& sha = "")
{
    ASSERT_TRUE(env.engine().SendDirectMsg("file_comm_report_task",
                                           new FileMessage(FileMessage::DOWNLOAD, target, sha, url)));
}

// Registers a task on the test engine and always takes it down again.
// The status board is process-wide: the figures of a task of an earlier test
// are cleared first, and the new task has published its own before the
// test reads them.
class Registered {
public:
    Registered(Framework::Engine& engine, Framework::Task* task, const char* boardKey)
        : m_engine(engine), m_task(task)
    {
        StatusBoard::Remove(boardKey);
        EXPECT_EQ(m_engine.RegisterTask(task, nullptr), 0);
        m_name = task->GetTaskName();
        EXPECT_TRUE(WaitFor([&] { return !StatusBoard::Get(boardKey).isNull(); }));
    }
    ~Registered() { Stop(); }
    int Stop() { return m_engine.UnRegisterTask(m_name); }

private:
    Framework::Engine& m_engine;
    Poco::AutoPtr<Framework::Task> m_task;
    std::string m_name;
};

// Messages are handled in order: once an upload sent after them is counted,
// every earlier message to the file task has been handled.
void Settle(TestEngine& env, TempDir& dir)
{
    const uint64_t received = Figure(FileCommReportTask::kUploadsKey, "received");
    const std::string marker = dir.Write("marker-" + std::to_string(received) + ".php", "m");
    env.engine().SendDirectMsg("file_comm_report_task",
                               new FileMessage(FileMessage::UPLOAD, marker, "webshell", ""));
    ASSERT_TRUE(WaitFor([&] { return Figure(FileCommReportTask::kUploadsKey, "received") > received; }));
}

Report::ReportConfig Config(const TestEngine& env, int timeoutS = 10)
{
    Report::ReportConfig config;
    config.installDir = env.InstallDir();
    config.downloadRoot = env.InstallDir();
    config.upload.dir = env.InstallDir() + "data/upload";
    config.download.timeoutS = timeoutS;
    config.download.maxBytes = 1024 * 1024;
    return config;
}

}  // namespace

TEST(DataCommReportTask, WritesEveryEventAsAJsonLineIncludingThoseQueuedAtStop)
{
    TestEngine env;
    const std::string sink = env.InstallDir() + "log/events.jsonl";
    Report::EventSinkOptions options;
    options.path = sink;
    Registered task(env.engine(), new DataCommReportTask(options), DataCommReportTask::kStatusKey);

    ASSERT_TRUE(env.engine().SendDirectMsg("data_comm_report_task",
                                           new DataMessage("2", "{\"event_id\":\"a\"}")));
    // Not JSON: still one valid line, carrying the text.
    ASSERT_TRUE(env.engine().SendDirectMsg("data_comm_report_task",
                                           new DataMessage("2", "broken {\n\"x")));
    // Another message type goes to its own handler and writes nothing.
    ASSERT_TRUE(env.engine().SendDirectMsg("data_comm_report_task",
                                           new Framework::Message("other")));
    ASSERT_TRUE(WaitFor([&] { return Figure(DataCommReportTask::kStatusKey, "received") == 2; }));
    auto lines = ReadLines(sink);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(TestSupport::ParseJson(lines[0])["event_id"].asString(), "a");
    const Json::Value wrapped = TestSupport::ParseJson(lines[1]);
    EXPECT_EQ(wrapped["data_type"].asString(), "2");
    EXPECT_EQ(wrapped["invalid_content"].asString(), "broken {\n\"x");

    // A burst sent right before the stop still reaches the file.
    for (int i = 0; i < 200; ++i) {
        ASSERT_TRUE(env.engine().SendDirectMsg(
            "data_comm_report_task", new DataMessage("2", "{\"i\":" + std::to_string(i) + "}")));
    }
    EXPECT_EQ(task.Stop(), 1);
    lines = ReadLines(sink);
    ASSERT_EQ(lines.size(), 202u);
    EXPECT_EQ(TestSupport::ParseJson(lines.back())["i"].asInt(), 199);
    EXPECT_EQ(Figure(DataCommReportTask::kStatusKey, "written"), 202u);
}

TEST(FileCommReportTask, DownloadsReportTheirStateJoinTheRunningOneAndAStopCutsIt)
{
    TestEngine env;
    LoopbackHttpServer server;
    server.SetBody("rules", "new rules\n");
    Registered task(env.engine(), new FileCommReportTask(Config(env, 300)), FileCommReportTask::kUploadsKey);
    const std::string target = env.InstallDir() + "data/webshell/webshell.dat";
    TempDir src;
    const std::string local = src.Write("rules.yar", "local rules\n");

    Fetch(env, target, "file://" + local);
    ASSERT_TRUE(Ends(target, "done"));
    EXPECT_EQ(ReadFile(target), "local rules\n");
    EXPECT_EQ(DownloadStatus(target)["bytes"].asUInt64(), 12u);
    EXPECT_GT(DownloadStatus(target)["finished_ms"].asInt64(), 0);

    // Every way a download fails is the downloader's (DownloadTest); here
    // the board says so and the next request tries again.
    Fetch(env, target, server.Url("/missing"));
    ASSERT_TRUE(Ends(target, "failed"));
    EXPECT_EQ(DownloadStatus(target)["url"].asString(), server.Url("/missing"));
    Fetch(env, target, server.Url("/ok/rules"));
    ASSERT_TRUE(Ends(target, "done"));
    EXPECT_EQ(ReadFile(target), "new rules\n");

    // Installed only with the digest the request names: a file:// URL that
    // names a secret does not become a readable copy of it.
    const std::string secret = src.Write("shadow", "root:$6$hash:19000::::::\n", 0600);
    const std::string zeros(64, '0');
    Fetch(env, target, "file://" + secret, zeros);
    ASSERT_TRUE(Ends(target, "failed"));
    EXPECT_NE(DownloadStatus(target)["error"].asString().find("not the expected " + zeros),
              std::string::npos);
    EXPECT_EQ(ReadFile(target), "new rules\n");
    Fetch(env, target, "file://" + local, TestSupport::Sha256Sum(local));
    ASSERT_TRUE(Ends(target, "done"));
    EXPECT_EQ(ReadFile(target), "local rules\n");
    EXPECT_EQ(TestSupport::ModeOf(target), 0600u);

    // Only inside the installation directory.
    const std::string outside = src.Join("elsewhere.dat");
    Fetch(env, outside, "file://" + local);
    ASSERT_TRUE(Ends(outside, "failed"));
    EXPECT_FALSE(TestSupport::FileExists(outside));

    // Requests for a target being fetched join the running download.
    const std::string body(200 * 1024, 'z');
    server.SetBody("big", body);
    server.SetBody("v2", "version two\n");
    const std::string url = server.Url("/slow/big");
    for (int i = 0; i < 3; ++i) {
        Fetch(env, target, url);
    }
    ASSERT_TRUE(WaitFor([&] { return server.Stalling(); }, 10000));
    // Handled while the first one still runs.
    Fetch(env, target, url);
    TempDir markers;
    Settle(env, markers);
    EXPECT_EQ(DownloadStatus(target)["state"].asString(), "running");
    EXPECT_EQ(ReadFile(target), "local rules\n");  // nothing half-written at the target
    server.Release();
    ASSERT_TRUE(Ends(target, "done"));
    EXPECT_EQ(server.Hits("/slow/big"), 1);
    EXPECT_EQ(DownloadStatus(target)["coalesced"].asUInt64(), 3u);
    EXPECT_EQ(ReadFile(target), body);

    // A request naming another URL while a download runs is fetched after it.
    server.Hold();
    Fetch(env, target, url);
    ASSERT_TRUE(WaitFor([&] { return server.Stalling(); }, 10000));
    Fetch(env, target, server.Url("/ok/v2"));
    Settle(env, markers);
    EXPECT_EQ(server.Hits("/ok/v2"), 0);
    server.Release();
    ASSERT_TRUE(WaitFor([&] { return ReadFile(target) == "version two\n"; }));
    EXPECT_EQ(server.Hits("/slow/big"), 2);
    EXPECT_EQ(server.Hits("/ok/v2"), 1);

    // A stop while a download hangs is prompt, far below the 300 s transfer
    // timeout: the connection is cut, and the target and its directory keep
    // what they held.
    server.Hold();
    Fetch(env, target, url);
    ASSERT_TRUE(WaitFor([&] { return server.Stalling(); }, 10000));
    const int64_t begin = SDK::TimeUtils::GetCurrentTimestampMS();
    EXPECT_EQ(task.Stop(), 1);
    EXPECT_LT(SDK::TimeUtils::GetCurrentTimestampMS() - begin, 30000);
    EXPECT_EQ(ReadFile(target), "version two\n");
    std::string listing;
    TestSupport::RunCommand("ls -A '" + env.InstallDir() + "data/webshell'", &listing);
    EXPECT_EQ(listing, "webshell.dat\n");
    EXPECT_EQ(DownloadStatus(target)["state"].asString(), "failed");
    EXPECT_NE(DownloadStatus(target)["error"].asString().find("aborted"), std::string::npos)
        << DownloadStatus(target)["error"];
}

TEST(FileCommReportTask, KeepsUploadsCountsThemAndLogsFailuresOnceAMinute)
{
    TestEngine env;
    // Copies a crash interrupted are removed at start; one being made now is not.
    const std::string uploads = env.InstallDir() + "data/upload";
    const std::string stale = env.Dir().Write("install/data/upload/.incoming.AbC123", "half");
    const std::string current = env.Dir().Write("install/data/upload/.incoming.XyZ789", "half");
    struct timeval old[2] = {{1000, 0}, {1000, 0}};
    ASSERT_EQ(0, utimes(stale.c_str(), old));
    TestSupport::LogCapture log("report_module");
    Registered task(env.engine(), new FileCommReportTask(Config(env)), FileCommReportTask::kUploadsKey);
    EXPECT_FALSE(TestSupport::FileExists(stale));
    EXPECT_TRUE(TestSupport::FileExists(current));

    TempDir www;
    const std::string shell = www.Write("site/shell.php", "<?php exit; /* passthru($_GET[c]) */\n");
    for (const std::string& path : {www.Fifo("site/fifo.php"), shell}) {
        env.engine().SendDirectMsg("file_comm_report_task",
                                   new FileMessage(FileMessage::UPLOAD, path, "webshell", ""));
    }
    ASSERT_TRUE(WaitFor([&] { return Figure(FileCommReportTask::kUploadsKey, "received") == 2; }));
    EXPECT_EQ(Figure(FileCommReportTask::kUploadsKey, "stored"), 1u);
    EXPECT_EQ(Figure(FileCommReportTask::kUploadsKey, "refused"), 1u);
    EXPECT_EQ(ReadFile(uploads + "/" + TestSupport::Sha256Sum(shell)), ReadFile(shell));

    // The directory replaced by a file: every upload of a pass fails, and the
    // operator reads one error, not one per file.
    ASSERT_EQ(0, TestSupport::RunCommand("rm -rf '" + uploads + "' && touch '" + uploads + "'"));
    for (int i = 0; i < 20; ++i) {
        env.engine().SendDirectMsg(
            "file_comm_report_task",
            new FileMessage(FileMessage::UPLOAD, www.Write("site/s" + std::to_string(i) + ".php", "x"),
                            "webshell", ""));
    }
    ASSERT_TRUE(WaitFor([&] { return Figure(FileCommReportTask::kUploadsKey, "received") == 22; }));
    EXPECT_EQ(Figure(FileCommReportTask::kUploadsKey, "failed"), 20u);
    EXPECT_EQ(log.Texts("the file was not kept").size(), 1u);
    // The rest are counted in one line when the task stops.
    EXPECT_EQ(task.Stop(), 1);
    const auto summary = log.Texts("19 more uploads failed");
    ASSERT_EQ(summary.size(), 1u);
    EXPECT_NE(summary[0].find("s19.php"), std::string::npos) << summary[0];
}
