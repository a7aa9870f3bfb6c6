#include "webshell/ScanWebshellTask.h"

namespace Engine {

OnceScanWebshellTask::OnceScanWebshellTask()
    : ScanWebshellTask(kOnceScanTaskName, kDetectWebshellFeature, Framework::TaskCondition::TASK_TYPE_ONDEMAND)
{
}

OnceScanWebshellTask::~OnceScanWebshellTask() = default;

int OnceScanWebshellTask::Init()
{
    const int result = ScanWebshellTask::Init();
    if (result == 0) {
        PrepareRules();
    }
    return result;
}

// One full pass on the thread that asked for it (the module's tasklet).
int OnceScanWebshellTask::Run()
{
    Check();
    return 0;
}

}  // namespace Engine
