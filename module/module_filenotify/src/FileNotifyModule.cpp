// libfilenotify_module.so: registers the resident "filenotify_task".

#include <Poco/AutoPtr.h>
#include <Poco/Message.h>

#include "FileNotifyTask.h"
#include "framework/Export.h"
#include "framework/Module.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"

namespace {

const char* const kSource = "module/module_filenotify/src/FileNotifyModule";

class FileNotifyModule : public Framework::Module {
public:
    FileNotifyModule()
        : Framework::Module("filenotify_module"),
          m_logger(SDK::LoggerUtils::GetInstance()->GetModuleLogger("filenotify_module", false))
    {
    }

    int Init() override
    {
        Framework::Module::Init();
        if (m_task) {
            return 0;
        }
        m_task = new FileNotify::FileNotifyTask();
        if (RegisterTask(m_task.get(), true) != 0) {
            SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource,
                    "Cannot register %s (a task of that name exists already, or no engine); "
                    "file changes are not reported.",
                    std::string(FileNotify::FileNotifyTask::kTaskName));
            m_task = nullptr;
            return -1;
        }
        return 0;
    }

    int UnInit() override
    {
        if (m_task) {
            UnRegisterTask(FileNotify::FileNotifyTask::kTaskName);
            m_task = nullptr;
        }
        return Framework::Module::UnInit();
    }

private:
    Poco::Logger* m_logger;
    Poco::AutoPtr<FileNotify::FileNotifyTask> m_task;
};

}  // namespace

extern "C" ARDENT_EXPORT Framework::Module* CreateModule()
{
    return new FileNotifyModule();
}
