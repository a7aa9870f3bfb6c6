// libreport_module.so: the agent's report services, "data_comm_report_task"
// (detection events to the event sink) and "file_comm_report_task"
// (rule-library downloads, kept uploads).

#include "framework/ServiceModule.h"
#include "report/DataCommReportTask.h"
#include "report/FileCommReportTask.h"
#include "report/ReportConfig.h"

namespace {

Framework::ServiceStart StartReports()
{
    const Report::ReportConfig config = Report::ReportConfig::FromEngine();
    const std::string sink =
        config.sink.path == "-" ? std::string("standard output") : config.sink.path;
    return {{new Engine::DataCommReportTask(config.sink), new Engine::FileCommReportTask(config)},
            "events to " + sink + (config.upload.dir.empty() ? std::string(", no uploads kept")
                                                             : ", uploads kept in " + config.upload.dir)};
}

}  // namespace

ARDENT_SERVICE_MODULE("report_module", StartReports)
