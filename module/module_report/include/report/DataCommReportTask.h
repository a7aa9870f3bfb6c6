#pragma once
// "data_comm_report_task": writes the content of every Framework::DataMessage
// to the event sink as one JSON line, flushed per event, and publishes its
// figures as "report.events" on the status board:
//   {"sink","received","written","bytes","held","dropped","failures",
//    "rotations","reopens","invalid","duplicates","healthy","last_error",
//    "last_error_ms"}
// "received" counts messages handled (written, held or dropped as a
// duplicate), so a caller that knows how many events it sent can wait until
// they all reached the sink.
//
// An event identical in file path, SHA-256 and matched keyword (and
// container) to one written within the last minute is dropped and counted
// as "duplicates": the file-change task and the periodic pass find the same
// dropped file seconds apart. At most kMaxRemembered events are remembered.
// While the sink fails the health register says "report.sink".
//
// Remote sinks (syslog, HTTP) get every event written to the sink, not the
// duplicates; they deliver on threads of their own, started with the task's
// loop and stopped when it ends.

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <json/json.h>

#include "framework/Task.h"
#include "report/EventSink.h"
#include "report/RemoteSink.h"

namespace Poco {
class Logger;
}

namespace Engine {

class DataCommReportTask : public Framework::Task {
public:
    static const char* const kTaskName;   // "data_comm_report_task"
    static const char* const kStatusKey;  // "report.events"

    static const size_t kMaxRemembered;   // 4096
    static const int64_t kDuplicateWindowMs;  // 60 s

    explicit DataCommReportTask(const Report::EventSinkOptions& options,
                                std::vector<std::unique_ptr<Report::RemoteSink>> remote = {});
    ~DataCommReportTask() override;

    int Run() override;
    int HandleMsg(std::shared_ptr<Framework::Message>& msg) override;

    uint64_t Received() const { return m_received.load(std::memory_order_acquire); }

private:
    void Publish();
    void Forward(const std::string& content);  // to the remote sinks
    // true when `event` repeats one written within the window; remembers it
    // otherwise.
    bool IsDuplicate(const Json::Value& event);

    Poco::Logger* m_logger;
    Report::EventSink m_sink;  // used on the task's thread only
    std::vector<std::unique_ptr<Report::RemoteSink>> m_remote;
    std::atomic<uint64_t> m_received{0};
    uint64_t m_invalid = 0;
    uint64_t m_duplicates = 0;
    bool m_sinkRaised = false;
    // Event key -> when it was last written (steady ms); the deque keeps the
    // order they expire in. Task thread only.
    std::unordered_map<std::string, int64_t> m_recent;
    std::deque<std::pair<std::string, int64_t>> m_recentOrder;
    int64_t m_lastRetryMs = 0;
};

}  // namespace Engine
