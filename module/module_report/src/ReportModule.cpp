// libreport_module.so: the agent's report services, "data_comm_report_task"
// (detection events to the event sink) and "file_comm_report_task"
// (rule-library downloads, kept uploads).

#include "framework/ServiceModule.h"
#include "report/DataCommReportTask.h"
#include "report/FileCommReportTask.h"
#include "report/ReportConfig.h"
#include "sdk/LoggerUtils.h"

namespace {

Framework::ServiceStart StartReports()
{
    const Report::ReportConfig config = Report::ReportConfig::FromEngine();
    std::string sinks =
        config.sink.path == "-" ? std::string("standard output") : config.sink.path;
    std::vector<std::unique_ptr<Report::RemoteSink>> remote;
    Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger("report_module", false);
    if (!config.syslog.target.empty()) {
        remote.emplace_back(new Report::SyslogSink(config.syslog, logger));
        sinks += ", syslog " + config.syslog.target;
    }
    if (!config.http.url.empty()) {
        remote.emplace_back(new Report::HttpSink(config.http, logger));
        sinks += ", " + config.http.url;
    }
    return {{new Engine::DataCommReportTask(config.sink, std::move(remote)),
             new Engine::FileCommReportTask(config)},
            "events to " + sinks + (config.upload.dir.empty() ? std::string(", no uploads kept")
                                                              : ", uploads kept in " + config.upload.dir)};
}

}  // namespace

ARDENT_SERVICE_MODULE("report_module", StartReports)
