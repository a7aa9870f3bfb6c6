#include "asset/AssetModule.h"

#include "framework/Export.h"
#include "framework/StatusBoard.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"

namespace Engine {

namespace {
const char* const kSource = "module/module_asset/src/AssetModule";
}

AssetModule::AssetModule() : Framework::Module("asset_module") {}

AssetModule::~AssetModule() = default;

int AssetModule::Init()
{
    Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger("asset_module", false);
    if (Framework::Module::Init() != 0) {
        return -1;
    }
    const AssetSyncTask::Settings settings = AssetSyncTask::SettingsFromConfig();
    m_task = new AssetSyncTask(settings);
    if (RegisterTask(m_task.get(), true) != 0) {
        SDK_LOG(logger, Poco::Message::PRIO_ERROR, kSource,
                "Cannot register %s (a task of that name is running already, or there is no engine); web servers will not be discovered",
                std::string(AssetSyncTask::kTaskName));
        m_task = nullptr;
        return -1;
    }
    SDK_LOG(logger, Poco::Message::PRIO_INFORMATION, kSource,
            "Asset service started: discovering web servers under host root %s every %d s",
            settings.hostRoot, settings.intervalS);
    return 0;
}

int AssetModule::UnInit()
{
    // Stops and joins the task before its object goes.
    int result = Framework::Module::UnInit();
    m_task = nullptr;
    Framework::StatusBoard::Remove("asset");
    return result;
}

}  // namespace Engine

extern "C" ARDENT_EXPORT Framework::Module* CreateModule()
{
    return new Engine::AssetModule();
}
