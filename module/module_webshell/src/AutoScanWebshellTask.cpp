#include "webshell/ScanWebshellTask.h"

namespace Engine {

AutoScanWebshellTask::AutoScanWebshellTask()
    : ScanWebshellTask(kAutoScanTaskName, kDetectWebshellFeature, Framework::TaskCondition::TASK_TYPE_SCHEDULED)
{
}

AutoScanWebshellTask::~AutoScanWebshellTask() = default;

// One full pass per fire of the policy's schedule.
int AutoScanWebshellTask::Run()
{
    Check();
    return 0;
}

}  // namespace Engine
