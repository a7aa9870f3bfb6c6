#pragma once
// The agent host: one per process, reached by modules through
// Engine::GetInstance() (or Poco's Application::instance()). It owns the
// parts that do the work and forwards the calls modules and commands make:
//   ModuleLoader  the loaded lib*_module.so         (ModuleLoader.h)
//   TaskRegistry  registered tasks, threads, routing (TaskRegistry.h)
//   PolicyStore   policies, the policy directory     (PolicyStore.h)
//   Tasklets      actions modules offer on request   (Tasklets.h)
// and renders the figures of all of them for `ctl status` (Status). The
// resident agent's loop and control socket live in agent/.
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

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Mutex.h>
#include <Poco/Util/ServerApplication.h>
#include <json/json.h>

#include "framework/Message.h"
#include "framework/Module.h"
#include "framework/ModuleLoader.h"
#include "framework/Policy.h"
#include "framework/PolicyStore.h"
#include "framework/Task.h"
#include "framework/TaskRegistry.h"
#include "framework/Tasklets.h"

namespace Framework {

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

    ModuleLoader& Modules() { return m_modules; }
    TaskRegistry& Tasks() { return m_tasks; }
    PolicyStore& Policies() { return m_policies; }
    Tasklets& TaskletRunner() { return m_tasklets; }

    // Modules (ModuleLoader). UnloadModules waits for running tasklets, calls
    // UnInit in reverse order and stops each module's tasks, then every
    // other task, drops the policies and destroys the modules.
    int LoadModules(const std::string& dir) { return m_modules.LoadDirectory(dir); }
    bool LoadModule(const std::string& path) { return m_modules.Load(path); }
    bool AddModule(Module* module) { return m_modules.Add(module); }
    void UnloadModules();
    std::vector<std::string> GetModuleNames() { return m_modules.Names(); }

    // Tasks (TaskRegistry).
    int RegisterTask(Task* task, Module* owner) { return m_tasks.Register(task, owner); }
    int UnRegisterTask(const std::string& taskName) { return m_tasks.UnRegister(taskName); }
    Task* FindTask(const std::string& taskName) { return m_tasks.Find(taskName); }
    std::vector<std::string> GetTaskNames() { return m_tasks.Names(); }
    std::vector<Poco::AutoPtr<Task>> GetRegisteredTasks() { return m_tasks.Tasks(); }
    int UnRegisterTasksOf(Module* owner) { return m_tasks.UnRegisterOwnedBy(owner); }
    // The engine owns `msg` from the call on.
    bool SendDirectMsg(const std::string& target, Message* msg)
    {
        return m_tasks.Send(target, std::shared_ptr<Message>(msg));
    }

    // Policies (PolicyStore).
    bool ApplyPolicyDocument(const std::string& policyId, const std::string& content,
                             std::string& error)
    {
        return m_policies.Apply(policyId, content, error);
    }
    int ApplyPolicyDirectory(bool force) { return m_policies.ApplyDirectory(force); }
    bool InstallPolicyDocument(const std::string& policyId, const std::string& content,
                               std::string& error)
    {
        return m_policies.Install(policyId, content, error);
    }

    // Tasklets.
    using TaskletResult = Framework::TaskletResult;
    static constexpr TaskletResult TASKLET_DONE = Framework::TASKLET_DONE;
    static constexpr TaskletResult TASKLET_STARTED = Framework::TASKLET_STARTED;
    static constexpr TaskletResult TASKLET_ALREADY_RUNNING = Framework::TASKLET_ALREADY_RUNNING;
    static constexpr TaskletResult TASKLET_UNKNOWN = Framework::TASKLET_UNKNOWN;
    TaskletResult InvokeTasklet(const std::string& id, const std::string& argument, bool wait,
                                int& result)
    {
        return m_tasklets.Invoke(id, argument, wait, result);
    }
    std::vector<std::pair<std::string, TaskletResult>> InvokeAllTasklets(bool wait)
    {
        return m_tasklets.InvokeAll(wait);
    }
    void WaitForTasklets() { m_tasklets.WaitAll(); }

    // Figures of the whole agent for `ctl status` (AgentStatus.cpp); checks
    // health first.
    Json::Value Status();
    // Raises or clears what the engine itself can see: a loaded module that
    // takes policies but has none applied. The run loop calls it every
    // second; it skips a round while a tasklet or policy callback runs.
    void CheckHealth();

    // The installation directory (config agent.install_dir), ending with "/".
    std::string InstallDir();
    // The directory of config `key`, default <install>/<sub>, ending with "/".
    std::string DirFor(const std::string& key, const std::string& sub);

    // Serialises policy callbacks, tasklets and module (un)initialisation.
    Poco::Mutex& ControlMutex() { return m_controlMutex; }

private:
    Poco::Mutex m_controlMutex;  // recursive
    ModuleLoader m_modules;
    TaskRegistry m_tasks;
    PolicyStore m_policies;
    Tasklets m_tasklets;
    int64_t m_startMs = 0;
    std::set<std::string> m_healthPolicyKeys;  // under m_healthMutex
    Poco::FastMutex m_healthMutex;
};

}  // namespace Framework
