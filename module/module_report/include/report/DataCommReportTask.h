#pragma once
// "data_comm_report_task": writes the content of every Framework::DataMessage
// to the event sink as one JSON line, flushed per event, and publishes its
// figures as "report.events" on the status board:
//   {"sink","received","written","bytes","held","dropped","failures",
//    "rotations","reopens","invalid","healthy","last_error","last_error_ms"}
// "received" counts messages handled (written or held), so a caller that
// knows how many events it sent can wait until they all reached the sink.

#include <atomic>
#include <cstdint>
#include <memory>

#include "framework/Task.h"
#include "report/EventSink.h"

namespace Poco {
class Logger;
}

namespace Engine {

class DataCommReportTask : public Framework::Task {
public:
    static const char* const kTaskName;   // "data_comm_report_task"
    static const char* const kStatusKey;  // "report.events"

    explicit DataCommReportTask(const Report::EventSinkOptions& options);
    ~DataCommReportTask() override;

    int Run() override;
    int HandleMsg(std::shared_ptr<Framework::Message>& msg) override;

    uint64_t Received() const { return m_received.load(std::memory_order_acquire); }

private:
    void Publish();

    Poco::Logger* m_logger;
    Report::EventSink m_sink;  // used on the task's thread only
    std::atomic<uint64_t> m_received{0};
    uint64_t m_invalid = 0;
    int64_t m_lastRetryMs = 0;
};

}  // namespace Engine
