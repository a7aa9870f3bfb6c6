#pragma once
// libasset_module.so: the module "asset_module" that runs the asset service
// task "msg_sync_task".

#include <Poco/AutoPtr.h>

#include "asset/AssetSyncTask.h"
#include "framework/Module.h"

namespace Engine {

class AssetModule : public Framework::Module {
public:
    AssetModule();
    ~AssetModule() override;

    int Init() override;
    int UnInit() override;

private:
    Poco::AutoPtr<AssetSyncTask> m_task;
};

}  // namespace Engine
