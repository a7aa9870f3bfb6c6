// `ardent-agent run`: the resident agent in the foreground.

#include <sys/stat.h>

#include <iostream>

#include <Poco/File.h>
#include <Poco/Path.h>

#include "Commands.h"
#include "framework/Engine.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/LoggerUtils.h"
#include "sdk/Posix.h"

namespace Agent {

int RunCommandMain(const AgentOptions& options)
{
    const std::string install = options.installDir;
    for (const char* sub : {"log", "run", "policy", "data/webshell", "data/upload"}) {
        try {
            Poco::File(install + sub).createDirectories();
        } catch (const Poco::Exception& e) {
            std::cerr << "ardent-agent: cannot create " << install << sub << ": " << e.displayText() << "\n";
            return 2;
        }
    }
    // Kept samples and the rule library are private; a link planted in
    // place of either directory is refused, never followed.
    for (const char* sub : {"data/webshell", "data/upload"}) {
        const SDK::Status made = SDK::MakePrivateDir(install + sub);
        if (!made) {
            std::cerr << "ardent-agent: " << made.message() << "; left as it is\n";
        }
    }
    if (!SDK::LoggerUtils::GetInstance()->Configure(install + "log/agent.log", true, options.logLevel)) {
        std::cerr << "ardent-agent: cannot write " << install << "log/agent.log; logging to stderr only\n";
    }
    if (!options.policyFile.empty()) {
        // The given policy becomes policy 10001 before the agent starts.
        try {
            Poco::File src(options.policyFile);
            if (!src.exists() || !src.isFile()) {
                std::cerr << "ardent-agent: policy file " << options.policyFile << " does not exist\n";
                return 2;
            }
            src.copyTo(install + "policy/10001.json.tmp");
            Poco::File(install + "policy/10001.json.tmp").renameTo(install + "policy/10001.json");
        } catch (const Poco::Exception& e) {
            std::cerr << "ardent-agent: cannot install policy " << options.policyFile << ": "
                      << e.displayText() << "\n";
            return 2;
        }
    }
    SDK::InnerCpuCtrlUtils::SetCpuLimit(options.cpuLimit);

    Framework::Engine engine;
    engine.config().setString("agent.install_dir", install);
    engine.config().setString("agent.events",
                              options.eventsSink.empty() ? install + "log/webshell_events.jsonl"
                                                         : options.eventsSink);
    engine.config().setString("agent.host_root", options.hostRoot);
    engine.config().setInt("agent.cpu_limit", options.cpuLimit);
    return engine.RunAgent();
}

}  // namespace Agent
