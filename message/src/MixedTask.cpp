#include "message/MixedTask.h"

namespace Engine {

MixedTask::MixedTask()
    : Framework::Task("mixed_task", "mixed_feature", Framework::TaskCondition::TASK_TYPE_RESIDENT, 1024)
{
}

int MixedTask::Run()
{
    return 0;
}

MixedTask& MixedTask::GetMixedOffset()
{
    static MixedTask instance;
    return instance;
}

std::ptrdiff_t MixedTask::ReceiverDistance()
{
    MixedTask& mixed = GetMixedOffset();
    auto* asTask = static_cast<Framework::Task*>(&mixed);
    auto* asReceiver = static_cast<AbstractMessageReceiver*>(&mixed);
    return reinterpret_cast<const char*>(asReceiver) - reinterpret_cast<const char*>(asTask);
}

}  // namespace Engine
