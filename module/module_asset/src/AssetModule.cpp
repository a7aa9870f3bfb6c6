// libasset_module.so: the asset service "msg_sync_task".

#include <Poco/Format.h>

#include "asset/AssetSyncTask.h"
#include "framework/ServiceModule.h"

namespace {

Framework::ServiceStart StartAssets()
{
    const Engine::AssetSyncTask::Settings settings = Engine::AssetSyncTask::SettingsFromConfig();
    return {{new Engine::AssetSyncTask(settings)},
            Poco::format("discovering web servers under host root %s every %d s", settings.hostRoot,
                         settings.intervalS)};
}

}  // namespace

ARDENT_SERVICE_MODULE("asset_module", StartAssets)
