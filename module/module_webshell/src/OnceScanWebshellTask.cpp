#include "webshell/ScanWebshellTask.h"

namespace Engine {

OnceScanWebshellTask::OnceScanWebshellTask()
    : ScanWebshellTask(kOnceScanTaskName, kDetectWebshellFeature, Framework::TaskCondition::TASK_TYPE_ONDEMAND)
{
}

OnceScanWebshellTask::~OnceScanWebshellTask() = default;

// One full pass on the thread that asked for it (the module's tasklet).
int OnceScanWebshellTask::Run()
{
    Check();
    return 0;
}

}  // namespace Engine
