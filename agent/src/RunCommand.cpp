// `ardent-agent run`: the resident agent in the foreground. Loads the
// modules, applies the policy directory, serves the control socket and
// waits for signals: SIGTERM/SIGINT/SIGQUIT stop, SIGUSR1 scans now, SIGHUP
// re-reads the policy directory, which is also looked at every
// agent.policy_poll_ms for changes.

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>

#include <Poco/File.h>
#include <Poco/Path.h>
#include <Poco/Util/PropertyFileConfiguration.h>

#include "Commands.h"
#include "ControlServer.h"
#include "framework/Engine.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"
#include "sdk/Posix.h"
#include "sdk/TimeUtils.h"

namespace Agent {

namespace {

const char* const kSource = "agent/src/RunCommand";
const long kSignalTickMs = 200;

Poco::Logger* Log()
{
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("framework", false);
}

void ReadSettings(Framework::Engine& engine)
{
    const std::string properties = engine.InstallDir() + "etc/agent.properties";
    if (!Poco::File(properties).exists()) {
        return;
    }
    try {
        engine.config().add(new Poco::Util::PropertyFileConfiguration(properties), 50);
        SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "Read settings from %s", properties);
    } catch (const Poco::Exception& e) {
        SDK_LOG(Log(), Poco::Message::PRIO_ERROR, kSource, "Settings file %s ignored: %s",
                properties, e.displayText());
    }
}

int RunAgent(Framework::Engine& engine)
{
    // Signals are taken by sigtimedwait below; block them before any thread
    // starts so that no other thread gets them.
    sigset_t set;
    sigemptyset(&set);
    for (int sig : {SIGINT, SIGTERM, SIGQUIT, SIGUSR1, SIGHUP}) {
        sigaddset(&set, sig);
    }
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);

    ReadSettings(engine);
    const std::string moduleDir = engine.DirFor("agent.module_dir", "module");
    SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource,
            "Agent starting: pid %d, install dir %s, modules from %s", static_cast<int>(getpid()),
            engine.InstallDir(), moduleDir);
    const int loaded = engine.LoadModules(moduleDir);
    if (loaded == 0) {
        SDK_LOG(Log(), Poco::Message::PRIO_WARNING, kSource,
                "No module loaded from %s; the agent runs without modules", moduleDir);
    }
    engine.ApplyPolicyDirectory(true);

    auto control =
        std::make_unique<ControlServer>(engine, engine.DirFor("agent.run_dir", "run") + "agent.sock");
    std::string error;
    if (!control->Start(error)) {
        SDK_LOG(Log(), Poco::Message::PRIO_ERROR, kSource,
                "Control socket not available: %s; `ardent-agent ctl` will not reach this agent",
                error);
        control.reset();
    }
    SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource,
            "Agent running with %d module(s); stop with SIGTERM or SIGINT", loaded);

    const long pollMs = engine.config().getInt("agent.policy_poll_ms", 1000);
    int64_t lastPoll = SDK::TimeUtils::GetCurrentTimestampMS();
    const timespec tick{0, kSignalTickMs * 1000 * 1000};
    for (;;) {
        const int sig = sigtimedwait(&set, nullptr, &tick);
        if (sig == SIGINT || sig == SIGTERM || sig == SIGQUIT) {
            SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "Signal %d received: stopping",
                    sig);
            break;
        }
        if (sig == SIGUSR1) {
            SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource,
                    "SIGUSR1 received: starting an immediate scan");
            engine.InvokeAllTasklets(false);
        } else if (sig == SIGHUP) {
            SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource,
                    "SIGHUP received: re-reading the policy directory");
            engine.ApplyPolicyDirectory(true);
        }
        const int64_t now = SDK::TimeUtils::GetCurrentTimestampMS();
        if (now - lastPoll >= pollMs) {
            lastPoll = now;
            engine.ApplyPolicyDirectory(false);
        }
    }

    control.reset();
    // Long loops (a scan in progress) see the cancel and stop early.
    engine.Tasks().CancelAll();
    engine.UnloadModules();
    SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "Agent stopped");
    return 0;
}

}  // namespace

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
    return RunAgent(engine);
}

}  // namespace Agent
