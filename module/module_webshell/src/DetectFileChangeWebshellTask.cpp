#include "webshell/ScanWebshellTask.h"

namespace Engine {

DetectFileChangeWebshellTask::DetectFileChangeWebshellTask()
    : ScanWebshellTask(kFileChangeTaskName, kDetectWebshellFeature, Framework::TaskCondition::TASK_TYPE_RESIDENT)
{
}

DetectFileChangeWebshellTask::~DetectFileChangeWebshellTask() = default;

int DetectFileChangeWebshellTask::Init()
{
    if (ScanWebshellTask::Init() != 0) {
        return -1;
    }
    RegisterFileMonitorMessage();
    return 0;
}

void DetectFileChangeWebshellTask::OnRulesArrived()
{
    RegisterFileMonitorMessage();
}

// Resident: file notifications, asset updates and container events are
// handled here until the task is cancelled.
int DetectFileChangeWebshellTask::Run()
{
    ReceiveMsg();
    return 0;
}

}  // namespace Engine
