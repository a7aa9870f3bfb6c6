// libreport_module.so: the agent's report services, "data_comm_report_task"
// (detection events to the event sink) and "file_comm_report_task"
// (rule-library downloads, kept uploads).

#include <Poco/AutoPtr.h>

#include "framework/Export.h"
#include "framework/Module.h"
#include "report/DataCommReportTask.h"
#include "report/FileCommReportTask.h"
#include "report/ReportConfig.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"

namespace Engine {

namespace {

const char* const kSource = "module/module_report/src/ReportModule";

class ReportModule : public Framework::Module {
public:
    ReportModule()
        : Framework::Module("report_module"),
          m_logger(SDK::LoggerUtils::GetInstance()->GetModuleLogger("report_module", false))
    {
    }

    int Init() override
    {
        int rc = Framework::Module::Init();
        if (rc != 0) {
            return rc;
        }
        const Report::ReportConfig config = Report::ReportConfig::FromEngine();
        Poco::AutoPtr<DataCommReportTask> data(new DataCommReportTask(config.sink));
        if (RegisterTask(data.get(), true) != 0) {
            SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource,
                    "Cannot register %s (a task of that name exists, or no engine runs); "
                    "report_module not started.",
                    std::string(DataCommReportTask::kTaskName));
            return -1;
        }
        Poco::AutoPtr<FileCommReportTask> file(new FileCommReportTask(config));
        if (RegisterTask(file.get(), true) != 0) {
            SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource,
                    "Cannot register %s (a task of that name exists, or no engine runs); "
                    "report_module not started.",
                    std::string(FileCommReportTask::kTaskName));
            UnRegisterTask(DataCommReportTask::kTaskName);
            return -1;
        }
        SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource,
                "report_module started: events to %s, uploads kept in %s.",
                config.sink.path == "-" ? std::string("standard output") : config.sink.path,
                config.upload.dir);
        return 0;
    }

private:
    Poco::Logger* m_logger;
};

}  // namespace

}  // namespace Engine

extern "C" ARDENT_EXPORT Framework::Module* CreateModule()
{
    return new Engine::ReportModule();
}
