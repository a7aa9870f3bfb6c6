#pragma once
// A task that only exists to be measured: the process-wide instance tells
// message handlers where AbstractMessageReceiver lies inside a consumer task.

#include <cstddef>

#include "framework/Task.h"
#include "message/AbstractMessageReceiver.h"

namespace Engine {

class MixedTask : public Framework::Task, public AbstractMessageReceiver {
public:
    MixedTask();
    int Run() override;

    // Built on first use ("mixed_task", "mixed_feature", type 4, 1024); never started.
    static MixedTask& GetMixedOffset();
    // Byte distance from the Framework::Task base to the receiver base.
    static std::ptrdiff_t ReceiverDistance();
};

}  // namespace Engine
