// Placeholder until the one-shot scan lands.
#include <iostream>

#include "Commands.h"

namespace Agent {

int ScanCommandMain(const AgentOptions& options)
{
    (void)options;
    std::cerr << "ardent-agent scan: not available in this build\n";
    return 2;
}

}  // namespace Agent
