// The event sink on real files: one line per event, written through at
// once, rotation, a full disk, a file renamed under it, a missing
// directory, and a line cut short by an earlier failure.

#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "report/EventSink.h"
#include "testsupport/TestSupport.h"

namespace {

using Report::EventSink;
using Report::EventSinkOptions;
using TestSupport::ParseJson;
using TestSupport::ReadFile;
using TestSupport::ReadLines;
using TestSupport::TempDir;

std::string Event(int n, size_t pad = 0)
{
    return "{\"n\":" + std::to_string(n) + ",\"pad\":\"" + std::string(pad, 'x') + "\"}";
}

EventSinkOptions FileSink(const std::string& path)
{
    EventSinkOptions options;
    options.path = path;
    return options;
}

}  // namespace

TEST(EventSink, OneJsonLinePerEventVisibleAtOnce)
{
    TempDir dir;
    const std::string path = dir.Join("events.jsonl");
    EventSink sink(FileSink(path), nullptr);

    // A pretty-printed document still becomes one line; trailing newlines
    // do not produce empty lines.
    const std::vector<std::string> events = {
        Event(1),
        "{\n  \"n\": 2,\n  \"text\": \"a b\"\r\n}\n",
        Event(3) + "\n\n",
    };
    for (size_t i = 0; i < events.size(); ++i) {
        ASSERT_TRUE(sink.Write(events[i]));
        // Written through: another reader sees the line before the next event.
        const auto lines = ReadLines(path);
        ASSERT_EQ(lines.size(), i + 1);
        EXPECT_EQ(ParseJson(lines[i])["n"].asInt(), static_cast<int>(i + 1));
    }
    const std::string text = ReadFile(path);
    EXPECT_EQ(text.back(), '\n');
    EXPECT_EQ(text.find("\n\n"), std::string::npos);
    EXPECT_EQ(sink.Stats().written, 3u);
    EXPECT_EQ(sink.Stats().bytes, text.size());
    EXPECT_TRUE(sink.Stats().healthy);

    EXPECT_EQ(TestSupport::ModeOf(path), 0640u);
}

TEST(EventSink, RotatesBySizeAndKeepsNumberedArchives)
{
    TempDir dir;
    const std::string path = dir.Join("events.jsonl");
    EventSinkOptions options = FileSink(path);
    options.maxBytes = 300;
    options.keep = 2;
    EventSink sink(options, nullptr);

    const int count = 40;
    for (int i = 0; i < count; ++i) {
        ASSERT_TRUE(sink.Write(Event(i, 40)));
    }
    EXPECT_GT(sink.Stats().rotations, 2u);
    EXPECT_TRUE(TestSupport::FileExists(path + ".1"));
    EXPECT_TRUE(TestSupport::FileExists(path + ".2"));
    EXPECT_FALSE(TestSupport::FileExists(path + ".3"));

    // Every file stays under the cap, no line is split across files, and
    // the archives hold the events just before the live file's, in order.
    std::vector<int> seen;
    for (const std::string& file : {path + ".2", path + ".1", path}) {
        EXPECT_LE(ReadFile(file).size(), options.maxBytes) << file;
        for (const auto& line : ReadLines(file)) {
            seen.push_back(ParseJson(line)["n"].asInt());
        }
    }
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen.back(), count - 1);
    for (size_t i = 1; i < seen.size(); ++i) {
        EXPECT_EQ(seen[i], seen[i - 1] + 1);
    }
}

TEST(EventSink, FullDiskAndUnusableDirectoryAreSaidOnceAndHeldEventsFollowTheRecovery)
{
    TestSupport::LogCapture log("report_sink_test");
    EventSinkOptions options = FileSink("/dev/full");
    options.maxHeld = 3;
    EventSink sink(options, &Poco::Logger::get("report_sink_test"));

    for (int i = 0; i < 5; ++i) {
        EXPECT_FALSE(sink.Write(Event(i)));
    }
    const Report::EventSinkStats& s = sink.Stats();
    EXPECT_FALSE(s.healthy);
    EXPECT_EQ(s.written, 0u);
    EXPECT_EQ(s.held, 3u);
    EXPECT_EQ(s.dropped, 2u);
    EXPECT_GE(s.failures, 5u);
    EXPECT_NE(s.lastError.find("/dev/full"), std::string::npos) << s.lastError;
    EXPECT_NE(s.lastError.find("space"), std::string::npos) << s.lastError;

    // One error line for the operator, naming the sink and the reason, not
    // one per event.
    const auto texts = log.Texts();
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_NE(texts[0].find("/dev/full"), std::string::npos);
    EXPECT_NE(texts[0].find("space"), std::string::npos);

    // An unusable directory, then a usable one: the held events go first, in order.
    log.Clear();
    TempDir dir;
    dir.Write("later", "a file where the directory belongs");
    const std::string path = dir.Join("later/events.jsonl");
    EventSink later(FileSink(path), &Poco::Logger::get("report_sink_test"));
    EXPECT_FALSE(later.Write(Event(1)));
    EXPECT_FALSE(later.Write(Event(2)));
    EXPECT_EQ(later.Stats().held, 2u);
    EXPECT_NE(later.Stats().lastError.find(path), std::string::npos);

    ASSERT_EQ(unlink(dir.Join("later").c_str()), 0);
    dir.MkDir("later");
    EXPECT_EQ(later.Retry(), 0u);
    ASSERT_TRUE(later.Write(Event(3)));
    const auto lines = ReadLines(path);
    ASSERT_EQ(lines.size(), 3u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(ParseJson(lines[i])["n"].asInt(), i + 1);
    }
    EXPECT_TRUE(later.Stats().healthy);
    const auto again = log.Texts();
    ASSERT_EQ(again.size(), 2u);  // the failure, then the recovery
    EXPECT_NE(again[0].find(path), std::string::npos);
    EXPECT_NE(again[1].find("writable again"), std::string::npos);
}

// A line an earlier failure cut short does not swallow the next event, and
// a file renamed under the sink (logrotate's "move and let the writer
// reopen") is reopened.
TEST(EventSink, CutLineAndRenamedFileAreWrittenPast)
{
    TempDir dir;
    const std::string path = dir.Write("events.jsonl", "{\"n\":0}\n{\"cut\":\"sho");
    EventSink sink(FileSink(path), nullptr);
    ASSERT_TRUE(sink.Write(Event(1)));
    auto lines = ReadLines(path);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1], "{\"cut\":\"sho");
    EXPECT_EQ(ParseJson(lines[2])["n"].asInt(), 1);

    // (Removed with its directory, it comes back in the end-to-end health test.)
    ASSERT_EQ(rename(path.c_str(), (path + ".old").c_str()), 0);
    ASSERT_TRUE(sink.Write(Event(3)));
    lines = ReadLines(path);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(ParseJson(lines[0])["n"].asInt(), 3);
    EXPECT_EQ(ReadLines(path + ".old").size(), 3u);
    EXPECT_EQ(sink.Stats().reopens, 1u);
}
