#include "report/DataCommReportTask.h"

#include <json/json.h>

#include "framework/Health.h"
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
const size_t DataCommReportTask::kMaxRemembered = 4096;
const int64_t DataCommReportTask::kDuplicateWindowMs = 60 * 1000;

DataCommReportTask::DataCommReportTask(const Report::EventSinkOptions& options,
                                       std::vector<std::unique_ptr<Report::RemoteSink>> remote)
    : Framework::Task(kTaskName, "report", Framework::TaskCondition::TASK_TYPE_RESIDENT,
                      kQueueSize),
      m_logger(SDK::LoggerUtils::GetInstance()->GetModuleLogger("report_module", false)),
      m_sink(options, m_logger),
      m_remote(std::move(remote))
{
}

DataCommReportTask::~DataCommReportTask()
{
    for (auto& remote : m_remote) {
        remote->Stop();
    }
}

int DataCommReportTask::HandleMsg(std::shared_ptr<Framework::Message>& msg)
{
    auto* data = dynamic_cast<Framework::DataMessage*>(msg.get());
    if (data == nullptr) {
        return Framework::Task::HandleMsg(msg);
    }
    Json::Value parsed;
    if (SDK::JsonUtils::ParseJsonStr(data->GetContent(), parsed) == 0) {
        if (IsDuplicate(parsed)) {
            ++m_duplicates;
            SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource,
                    "Event dropped: the same file, hash and keyword were reported within the last "
                    "minute (%s).",
                    data->GetContent());
        } else {
            m_sink.Write(data->GetContent());
            Forward(data->GetContent());
        }
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
        const std::string line = SDK::JsonUtils::JsonToString(wrapped);
        m_sink.Write(line);
        Forward(line);
    }
    m_received.fetch_add(1, std::memory_order_acq_rel);
    Publish();
    return 0;
}

int DataCommReportTask::Run()
{
    SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource, "%s writes events to %s.",
            std::string(kTaskName), m_sink.IsStdout() ? std::string("standard output") : m_sink.Path());
    for (auto& remote : m_remote) {
        remote->Start();
    }
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
    for (auto& remote : m_remote) {
        remote->Stop();
    }
    Publish();
    return 0;
}

void DataCommReportTask::Forward(const std::string& content)
{
    if (m_remote.empty()) {
        return;
    }
    std::string line = Report::EventSink::ToLine(content);
    line.pop_back();
    for (auto& remote : m_remote) {
        remote->Submit(line);
    }
}

bool DataCommReportTask::IsDuplicate(const Json::Value& event)
{
    if (!event.isObject()) {
        return false;
    }
    const Json::Value& info = event["file_info"];
    const Json::Value& file = info.isArray() && info.size() == 1 ? info[0] : info;
    if (!file.isObject() || !file["file_path"].isString()) {
        return false;  // not about one file: nothing to compare
    }
    std::string key;
    for (const Json::Value* part :
         {&event["event_classid"], &file["file_path"], &file["file_path_b64"], &file["file_sha256"],
          &file["file_key_word"], &event["resource_info"]["container_id"]}) {
        key += part->isString() ? part->asString() : std::string();
        key += '\0';
    }
    const int64_t now = static_cast<int64_t>(SDK::TimeUtils::GetCurrentSystemTickUsed());
    while (!m_recentOrder.empty() &&
           (now - m_recentOrder.front().second >= kDuplicateWindowMs ||
            m_recentOrder.size() >= kMaxRemembered)) {
        auto it = m_recent.find(m_recentOrder.front().first);
        if (it != m_recent.end() && it->second == m_recentOrder.front().second) {
            m_recent.erase(it);
        }
        m_recentOrder.pop_front();
    }
    auto it = m_recent.find(key);
    if (it != m_recent.end() && now - it->second < kDuplicateWindowMs) {
        return true;
    }
    m_recent[key] = now;
    m_recentOrder.emplace_back(key, now);
    return false;
}

void DataCommReportTask::Publish()
{
    const Report::EventSinkStats& s = m_sink.Stats();
    if (!s.healthy) {
        // Events that cannot be written are detections nobody sees.
        Framework::Health::Raise("report.sink", Framework::Health::Severity::Failing,
                                 "event sink failing: " + s.lastError + " (" + std::to_string(s.held) +
                                     " events held, " + std::to_string(s.dropped) + " dropped)");
        m_sinkRaised = true;
    } else if (m_sinkRaised) {
        Framework::Health::Clear("report.sink");
        m_sinkRaised = false;
    }
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
    v["duplicates"] = static_cast<Json::UInt64>(m_duplicates);
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
