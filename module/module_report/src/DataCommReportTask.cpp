#include "report/DataCommReportTask.h"

#include <json/json.h>

#include "framework/StatusBoard.h"
#include "framework/Topics.h"
#include "message/Outcomes.h"
#include "sdk/JsonUtils.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"
#include "sdk/TimeUtils.h"

namespace Engine {

namespace {

const char* const kSource = "module/module_report/src/DataCommReportTask";
const int kWaitMs = 200;
const int kEventsPerWake = 128;
const int64_t kRetryIntervalMs = 1000;
const unsigned int kQueueSize = 1024;

}  // namespace

const char* const DataCommReportTask::kTaskName = "data_comm_report_task";
const char* const DataCommReportTask::kStatusKey = "report.events";

DataCommReportTask::DataCommReportTask(const Report::EventSinkOptions& options)
    : Framework::Task(kTaskName, "report", Framework::TaskCondition::TASK_TYPE_RESIDENT,
                      kQueueSize),
      m_logger(SDK::LoggerUtils::GetInstance()->GetModuleLogger("report_module", false)),
      m_sink(options, m_logger)
{
}

DataCommReportTask::~DataCommReportTask() = default;

int DataCommReportTask::HandleMsg(std::shared_ptr<Framework::Message>& msg)
{
    auto* data = dynamic_cast<Framework::DataMessage*>(msg.get());
    if (data == nullptr) {
        return Framework::Task::HandleMsg(msg);
    }
    Json::Value parsed;
    if (SDK::JsonUtils::ParseJsonStr(data->GetContent(), parsed) == 0) {
        m_sink.Write(data->GetContent());
    } else {
        // Still one valid JSON line, so that readers of the sink never choke.
        ++m_invalid;
        SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource,
                "Data message of type \"%s\" is not JSON (%z bytes); written wrapped as "
                "{\"data_type\",\"invalid_content\"} to %s.",
                data->GetDataType(), data->GetContent().size(), m_sink.Path());
        Json::Value wrapped(Json::objectValue);
        wrapped["data_type"] = data->GetDataType();
        wrapped["invalid_content"] = data->GetContent();
        m_sink.Write(SDK::JsonUtils::JsonToString(wrapped));
    }
    m_received.fetch_add(1, std::memory_order_acq_rel);
    Publish();
    return 0;
}

int DataCommReportTask::Run()
{
    SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource, "%s writes events to %s.",
            std::string(kTaskName), m_sink.IsStdout() ? std::string("standard output") : m_sink.Path());
    Publish();
    while (!IsCancelling()) {
        GetEventWaiter().WaitAndHandleEvent(kWaitMs, kEventsPerWake);
        if (m_sink.Stats().held > 0) {
            const int64_t now = SDK::TimeUtils::GetCurrentTimestampMS();
            if (now - m_lastRetryMs >= kRetryIntervalMs) {
                m_lastRetryMs = now;
                m_sink.Retry();
                Publish();
            }
        }
    }
    // Events queued before the stop still go out.
    while (GetEventWaiter().HandlePending(kEventsPerWake) > 0) {
    }
    if (m_sink.Retry() > 0) {
        SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource,
                "%z events could not be written to %s before the stop and are lost (%s).",
                m_sink.Stats().held, m_sink.Path(), m_sink.Stats().lastError);
    }
    Publish();
    return 0;
}

void DataCommReportTask::Publish()
{
    const Report::EventSinkStats& s = m_sink.Stats();
    Json::Value v(Json::objectValue);
    v["sink"] = m_sink.Path();
    v["received"] = static_cast<Json::UInt64>(Received());
    v["written"] = static_cast<Json::UInt64>(s.written);
    v["bytes"] = static_cast<Json::UInt64>(s.bytes);
    v["held"] = static_cast<Json::UInt64>(s.held);
    v["dropped"] = static_cast<Json::UInt64>(s.dropped);
    v["failures"] = static_cast<Json::UInt64>(s.failures);
    v["rotations"] = static_cast<Json::UInt64>(s.rotations);
    v["reopens"] = static_cast<Json::UInt64>(s.reopens);
    v["invalid"] = static_cast<Json::UInt64>(m_invalid);
    v["healthy"] = s.healthy;
    v["last_error"] = s.lastError;
    v["last_error_ms"] = static_cast<Json::Int64>(s.lastErrorMs);
    Framework::StatusBoard::Publish(kStatusKey, v);
    EventSinkFigures figures;
    figures.sink = m_sink.Path();
    figures.received = Received();
    figures.written = s.written;
    figures.held = s.held;
    figures.dropped = s.dropped;
    figures.lastError = s.lastError;
    Framework::Topics::Post(kEventSinkTopic, std::make_shared<EventSinkMessage>(figures));
}

}  // namespace Engine
