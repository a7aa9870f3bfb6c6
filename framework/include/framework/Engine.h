#pragma once
// The agent host: one per process. Loads every lib*_module.so of its module
// directory, runs registered tasks on their own threads, routes messages,
// applies policy documents and serves the control socket.
//
// Configuration lives in Poco's application configuration (config()):
//   agent.install_dir   installation directory, ends with "/"
//   agent.module_dir    default <install>/module
//   agent.policy_dir    default <install>/policy
//   agent.run_dir       default <install>/run (control socket)
//   agent.log_dir       default <install>/log
//   agent.events        event sink: a file path or "-" for stdout
//   agent.host_root     root under which /proc and runtime state are read ("/")
//   agent.policy_poll_ms   how often the policy directory is checked (1000)
// Modules read the keys they need through Engine::GetInstance()->config().

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Mutex.h>
#include <Poco/SharedLibrary.h>
#include <Poco/Thread.h>
#include <Poco/Util/ServerApplication.h>
#include <json/json.h>

#include "framework/Message.h"
#include "framework/Module.h"
#include "framework/Policy.h"
#include "framework/Task.h"

namespace Framework {

class ControlServer;

// After each applied policy the engine sends the asset service a message of
// this name, so that it sends every consumer its assets again.
constexpr const char* kAssetServiceTask = "msg_sync_task";
constexpr const char* kPolicyAppliedMessage = "policy_applied";

namespace Detail {
// Poco's Application constructor resets the root logger's channel; this
// base, built first, keeps what the agent configured so Engine can restore it.
struct LogChannelKeeper {
    LogChannelKeeper();
    Poco::AutoPtr<Poco::Channel> channel;
    int level = 0;
};
}  // namespace Detail

class Engine : private Detail::LogChannelKeeper, public Poco::Util::ServerApplication {
public:
    Engine();
    ~Engine() override;

    // The engine of this process, or null.
    static Engine* GetInstance();

    // Modules. LoadModules loads every lib*_module.so of `dir` in name
    // order (a file without CreateModule is skipped with an error naming it)
    // and returns how many were loaded. UnloadModules calls UnInit in reverse
    // order, destroys the modules and unloads the libraries.
    int LoadModules(const std::string& dir);
    bool LoadModule(const std::string& path);
    // A module built into the caller (tests, the agent itself); not unloaded.
    bool AddModule(Module* module);
    void UnloadModules();
    std::vector<std::string> GetModuleNames();

    // Tasks. RegisterTask takes a reference; a task of type 1 or 4 starts on
    // its own thread, which calls its Init first and its UnInit last (a task
    // of type 3 gets both on the caller's thread). UnRegisterTask cancels,
    // wakes, joins and releases: 1 when it did, 0 when no such task was
    // registered.
    int RegisterTask(Task* task, Module* owner);
    int UnRegisterTask(const std::string& taskName);
    Task* FindTask(const std::string& taskName);
    std::vector<std::string> GetTaskNames();
    std::vector<Poco::AutoPtr<Task>> GetRegisteredTasks();
    // Unregisters every task `owner` registered; returns how many.
    int UnRegisterTasksOf(Module* owner);

    // Messages. The engine owns `msg` from the call on.
    bool SendDirectMsg(const std::string& target, Message* msg);
    bool SendToTask(Task* target, Message* msg);

    // Policies. ApplyPolicyDocument calls the callback registered under
    // `policyId` with the document's "feature_name", keeps the returned
    // policy and dispatches it. false (and `error`) when the document is not
    // a JSON object, no module takes the id, or the callback rejects it.
    bool ApplyPolicyDocument(const std::string& policyId, const std::string& content,
                             std::string& error);
    // Applies every <id>.json of the policy directory that is new or changed
    // since the last call; unreadable files are logged and skipped. Returns
    // how many documents were applied.
    int ApplyPolicyDirectory(bool force);
    // Applies `content` and, when the module takes it, keeps it as
    // policy/<id>.json so that it survives a restart.
    bool InstallPolicyDocument(const std::string& policyId, const std::string& content,
                               std::string& error);

    // Tasklets. With `wait` false a long action runs on a worker thread.
    enum TaskletResult { TASKLET_DONE, TASKLET_STARTED, TASKLET_ALREADY_RUNNING, TASKLET_UNKNOWN };
    TaskletResult InvokeTasklet(const std::string& id, const std::string& argument, bool wait,
                                int& result);
    // Invokes every registered tasklet (scan-now / SIGUSR1).
    std::vector<std::pair<std::string, TaskletResult>> InvokeAllTasklets(bool wait);
    void WaitForTasklets();

    // Figures of the whole agent for `ctl status`.
    Json::Value Status();

    // The resident agent: load modules, apply policies, serve the control
    // socket, and wait for SIGTERM/SIGINT (SIGUSR1: scan now, SIGHUP:
    // reload). Returns the process exit code.
    int RunAgent();
    void RequestStop();
    bool StopRequested() const { return m_stop.load(); }

    // The installation directory (config agent.install_dir), ending with "/".
    std::string InstallDir();

    // Serialises policy callbacks, tasklets and module (un)initialisation.
    Poco::Mutex& ControlMutex() { return m_controlMutex; }

protected:
    int main(const std::vector<std::string>& args) override;

private:
    struct LoadedModule {
        std::unique_ptr<Poco::SharedLibrary> library;  // null for AddModule
        Module* module = nullptr;
        std::string path;
    };
    struct Registered {
        Poco::AutoPtr<Task> task;
        Module* owner = nullptr;
        std::unique_ptr<Poco::Thread> thread;
    };
    struct TaskletRun {
        std::unique_ptr<std::thread> thread;
        std::shared_ptr<std::atomic<bool>> done;
    };

    bool InitModule(LoadedModule entry);
    Module* ModuleForPolicy(const std::string& policyId);
    Module* ModuleForTasklet(const std::string& id, AbstractTaskletCallback*& callback);
    void HandleOnDemandMessages();
    void ReapTasklets();
    std::string DirFor(const std::string& key, const std::string& sub);

    Poco::Mutex m_controlMutex;  // recursive
    Poco::FastMutex m_moduleMutex;
    std::vector<LoadedModule> m_modules;
    Poco::FastMutex m_taskMutex;
    std::map<std::string, Registered> m_tasks;
    Poco::FastMutex m_policyMutex;
    std::map<std::string, Poco::AutoPtr<Policy>> m_policies;  // by policy id
    std::map<std::string, std::string> m_policyFileStamps;    // id -> mtime/size/hash
    Poco::FastMutex m_taskletMutex;
    std::map<std::string, TaskletRun> m_tasklets;
    std::atomic<bool> m_stop{false};
    std::unique_ptr<ControlServer> m_control;
    std::vector<std::unique_ptr<Poco::SharedLibrary>> m_keptLibraries;
    int64_t m_startMs = 0;
};

}  // namespace Framework
