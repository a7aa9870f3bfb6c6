// `ardent-agent run`: the resident agent in the foreground. Loads the
// modules, applies the policy directory, serves the control socket and
// waits for signals: SIGTERM/SIGINT/SIGQUIT stop, SIGUSR1 scans now, SIGHUP
// re-reads the policy directory, which is also looked at every
// agent.policy_poll_ms for changes.

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <memory>
#include <set>

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

// Directories the agent owns under its install dir; one removed while the
// agent runs is made again (log/ also by the log channel and the event
// sink themselves, which reopen their files).
struct OwnedDir {
    const char* sub;
    bool isPrivate;
};
const OwnedDir kOwnedDirs[] = {
    {"log", false}, {"run", false}, {"policy", false}, {"data/webshell", true}, {"data/upload", true}};

bool MakeOwnedDir(const std::string& install, const OwnedDir& dir, std::string& error)
{
    try {
        Poco::File(install + dir.sub).createDirectories();
    } catch (const Poco::Exception& e) {
        error = "cannot create " + install + dir.sub + ": " + e.displayText();
        return false;
    }
    if (dir.isPrivate) {
        // Kept samples and the rule library are private; a link planted in
        // place of either directory is refused, never followed.
        const SDK::Status made = SDK::MakePrivateDir(install + dir.sub);
        if (!made) {
            error = made.message() + "; left as it is";
        }
    }
    return true;
}

// Run loop only. `failing` holds the directories whose re-creation failed
// and was logged, so a lasting failure is said once.
void RecreateOwnedDirs(const std::string& install, std::set<std::string>& failing)
{
    for (const OwnedDir& dir : kOwnedDirs) {
        struct stat st;
        if (::lstat((install + dir.sub).c_str(), &st) == 0 || errno != ENOENT) {
            continue;
        }
        std::string error;
        if (MakeOwnedDir(install, dir, error) && error.empty()) {
            failing.erase(dir.sub);
            SDK_LOG(Log(), Poco::Message::PRIO_WARNING, kSource,
                    "Directory %s%s was removed while the agent runs; created it again", install,
                    std::string(dir.sub));
        } else if (failing.insert(dir.sub).second) {
            SDK_LOG(Log(), Poco::Message::PRIO_ERROR, kSource,
                    "Directory %s%s was removed while the agent runs and cannot be made again: %s; "
                    "trying every second",
                    install, std::string(dir.sub), error);
        }
    }
}

std::unique_ptr<ControlServer> StartControl(Framework::Engine& engine, const std::string& path)
{
    auto control = std::make_unique<ControlServer>(engine, path);
    std::string error;
    if (!control->Start(error)) {
        SDK_LOG(Log(), Poco::Message::PRIO_ERROR, kSource,
                "Control socket not available: %s; `ardent-agent ctl` will not reach this agent",
                error);
        control.reset();
    }
    return control;
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

    const std::string socketPath = engine.DirFor("agent.run_dir", "run") + "agent.sock";
    std::unique_ptr<ControlServer> control = StartControl(engine, socketPath);
    engine.CheckHealth();
    SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource,
            "Agent running with %d module(s); stop with SIGTERM or SIGINT", loaded);

    const long pollMs = engine.config().getInt("agent.policy_poll_ms", 1000);
    int64_t lastPoll = SDK::TimeUtils::GetCurrentTimestampMS();
    std::set<std::string> failingDirs;
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
            RecreateOwnedDirs(engine.InstallDir(), failingDirs);
            struct stat st;
            if (control && ::stat(socketPath.c_str(), &st) != 0 && errno == ENOENT) {
                SDK_LOG(Log(), Poco::Message::PRIO_WARNING, kSource,
                        "Control socket %s was removed while the agent runs; listening on it again",
                        socketPath);
                control.reset();
                Poco::File(Poco::Path(socketPath).parent()).createDirectories();
                control = StartControl(engine, socketPath);
            }
            engine.ApplyPolicyDirectory(false);
            engine.CheckHealth();
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
    for (const OwnedDir& dir : kOwnedDirs) {
        std::string error;
        if (!MakeOwnedDir(install, dir, error)) {
            std::cerr << "ardent-agent: " << error << "\n";
            return 2;
        }
        if (!error.empty()) {
            std::cerr << "ardent-agent: " << error << "\n";
        }
    }
    // Under systemd stderr goes to the journal, which has the log file's
    // lines already: copy them there only when asked or for a person.
    const bool toStderr = options.logStderr || ::isatty(STDERR_FILENO) == 1;
    if (!SDK::LoggerUtils::GetInstance()->Configure(install + "log/agent.log", toStderr, options.logLevel)) {
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
