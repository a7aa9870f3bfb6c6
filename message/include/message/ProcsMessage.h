#pragma once
// Process event of the process collection service. Scan tasks ignore it;
// only its record type passes through AbstractMessageReceiver.

#include <string>

#include "framework/Message.h"

namespace Engine {

class ProcsMessage : public Framework::Message {
public:
    struct procInfo {
        int pid = 0;
        std::string exe;
        std::string cmdline;
    };
    ProcsMessage() : Framework::Message("procs_message") {}
};

class FtraceMessage;
class FileNotifyMessage;

}  // namespace Engine
