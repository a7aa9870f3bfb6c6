// libcontainer_module.so: the module "container_module", which runs the
// resident task "container_collect_task".

#include <Poco/AutoPtr.h>

#include "ContainerCollectTask.h"
#include "framework/Export.h"
#include "framework/Module.h"
#include "framework/StatusBoard.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"

namespace Container {

namespace {
const char* const kSource = "module/module_container/src/ContainerModule";
}

class ContainerModule : public Framework::Module {
public:
    ContainerModule()
        : Framework::Module("container_module"),
          m_logger(SDK::LoggerUtils::GetInstance()->GetModuleLogger("container_module", false))
    {
    }

    int Init() override
    {
        Framework::Module::Init();
        ContainerCollectTask::Options options = ContainerCollectTask::OptionsFromConfig();
        m_task = new ContainerCollectTask(options);
        if (RegisterTask(m_task.get(), true) != 0) {
            SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource,
                    "cannot register %s: containers are not followed",
                    std::string(ContainerCollectTask::kTaskName));
            m_task = nullptr;
            return -1;
        }
        SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource,
                "container_module ready: %s follows containers under %s every %ld ms",
                std::string(ContainerCollectTask::kTaskName), options.hostRoot, m_task->PollMs());
        return 0;
    }

    int UnInit() override
    {
        if (!m_task.isNull()) {
            UnRegisterTask(ContainerCollectTask::kTaskName);
            m_task = nullptr;
        }
        Framework::StatusBoard::Remove(ContainerCollectTask::kStatusKey);
        return Framework::Module::UnInit();
    }

private:
    Poco::Logger* m_logger;
    Poco::AutoPtr<ContainerCollectTask> m_task;
};

}  // namespace Container

extern "C" ARDENT_EXPORT Framework::Module* CreateModule()
{
    return new Container::ContainerModule();
}
