#include "framework/Engine.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include <Poco/DirectoryIterator.h>
#include <Poco/File.h>
#include <Poco/Path.h>
#include <Poco/SHA1Engine.h>
#include <Poco/Util/PropertyFileConfiguration.h>

#include "ControlServer.h"
#include "framework/StatusBoard.h"
#include "sdk/JsonUtils.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"
#include "sdk/PathUtils.h"
#include "sdk/TimeUtils.h"

namespace Framework {

namespace {

const char* const kSource = "framework/src/Engine";
const size_t kMaxPolicyBytes = 16 * 1024 * 1024;
std::atomic<Engine*> g_engine{nullptr};

Poco::Logger* Log()
{
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("framework", false);
}

std::string WithSlash(std::string dir)
{
    if (dir.empty() || dir.back() != '/') {
        dir += '/';
    }
    return dir;
}

bool ReadWholeFile(const std::string& path, size_t limit, std::string& out, std::string& error)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = std::string(strerror(errno));
        return false;
    }
    std::ostringstream buf;
    char chunk[65536];
    size_t total = 0;
    while (in.read(chunk, sizeof(chunk)) || in.gcount() > 0) {
        total += static_cast<size_t>(in.gcount());
        if (total > limit) {
            error = "larger than " + std::to_string(limit) + " bytes";
            return false;
        }
        buf.write(chunk, in.gcount());
    }
    if (in.bad()) {
        error = "read error";
        return false;
    }
    out = buf.str();
    return true;
}

std::string Digest(const std::string& content)
{
    Poco::SHA1Engine sha;
    sha.update(content);
    return Poco::DigestEngine::digestToHex(sha.digest());
}

const char* TaskTypeName(TaskCondition::TaskType type)
{
    switch (type) {
    case TaskCondition::TASK_TYPE_SCHEDULED:
        return "scheduled";
    case TaskCondition::TASK_TYPE_ONDEMAND:
        return "on demand";
    case TaskCondition::TASK_TYPE_RESIDENT:
        return "resident";
    default:
        return "none";
    }
}

const char* StateName(Poco::Task::TaskState state)
{
    switch (state) {
    case Poco::Task::TASK_IDLE:
        return "idle";
    case Poco::Task::TASK_STARTING:
        return "starting";
    case Poco::Task::TASK_RUNNING:
        return "running";
    case Poco::Task::TASK_CANCELLING:
        return "cancelling";
    case Poco::Task::TASK_FINISHED:
        return "finished";
    }
    return "unknown";
}

}  // namespace

Detail::LogChannelKeeper::LogChannelKeeper()
{
    Poco::Logger& root = Poco::Logger::root();
    channel = root.getChannel();
    level = root.getLevel();
}

Engine::Engine()
{
    if (!channel.isNull()) {
        Poco::Logger::setChannel("", channel);
        Poco::Logger::setLevel("", level);
    }
    std::string install;
    if (SDK::PathUtils::GetInstallationPath(install) == 0) {
        config().setString("agent.install_dir", install);
    }
    g_engine.store(this);
}

Engine::~Engine()
{
    if (m_control) {
        m_control->Stop();
    }
    UnloadModules();
    Engine* self = this;
    g_engine.compare_exchange_strong(self, nullptr);
}

Engine* Engine::GetInstance()
{
    return g_engine.load();
}

std::string Engine::InstallDir()
{
    return WithSlash(config().getString("agent.install_dir", "./"));
}

std::string Engine::DirFor(const std::string& key, const std::string& sub)
{
    return WithSlash(config().getString(key, InstallDir() + sub));
}

// ---------------------------------------------------------------- modules

int Engine::LoadModules(const std::string& dir)
{
    std::vector<std::string> files;
    try {
        for (Poco::DirectoryIterator it(dir), end; it != end; ++it) {
            const std::string name = it.name();
            if (name.size() > 13 && name.compare(0, 3, "lib") == 0 &&
                name.compare(name.size() - 10, 10, "_module.so") == 0) {
                files.push_back(it->path());
            }
        }
    } catch (const Poco::Exception& e) {
        SDK_LOG(Log(), Poco::Message::PRIO_ERROR, kSource,
                "Module directory %s cannot be read: %s; no module loaded", dir, e.displayText());
        return 0;
    }
    std::sort(files.begin(), files.end());
    int loaded = 0;
    for (auto& file : files) {
        loaded += LoadModule(file) ? 1 : 0;
    }
    return loaded;
}

bool Engine::LoadModule(const std::string& path)
{
    auto library = std::make_unique<Poco::SharedLibrary>();
    try {
        library->load(path);
    } catch (const Poco::Exception& e) {
        SDK_LOG(Log(), Poco::Message::PRIO_ERROR, kSource,
                "Module file %s cannot be loaded: %s; skipped, the agent goes on without it", path,
                e.displayText());
        return false;
    }
    if (!library->hasSymbol("CreateModule")) {
        SDK_LOG(Log(), Poco::Message::PRIO_ERROR, kSource,
                "Module file %s has no CreateModule entry point; skipped, the agent goes on without it",
                path);
        return false;
    }
    auto create = reinterpret_cast<CreateModuleFunc>(library->getSymbol("CreateModule"));
    Module* module = create();
    if (module == nullptr) {
        SDK_LOG(Log(), Poco::Message::PRIO_ERROR, kSource,
                "Module file %s: CreateModule returned nothing; skipped", path);
        return false;
    }
    LoadedModule entry;
    entry.library = std::move(library);
    entry.module = module;
    entry.path = path;
    return InitModule(std::move(entry));
}

bool Engine::AddModule(Module* module)
{
    if (module == nullptr) {
        return false;
    }
    LoadedModule entry;
    entry.module = module;
    entry.path = "(built in)";
    return InitModule(std::move(entry));
}

bool Engine::InitModule(LoadedModule entry)
{
    Module* module = entry.module;
    {
        Poco::FastMutex::ScopedLock lock(m_moduleMutex);
        m_modules.push_back(std::move(entry));
    }
    Poco::Mutex::ScopedLock control(m_controlMutex);
    const int rc = module->Init();
    SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "Loaded module %s (Init returned %d)",
            std::string(module->name()), rc);
    return true;
}

void Engine::UnloadModules()
{
    std::vector<LoadedModule> modules;
    {
        Poco::FastMutex::ScopedLock lock(m_moduleMutex);
        modules.swap(m_modules);
    }
    if (modules.empty()) {
        return;
    }
    WaitForTasklets();
    Poco::Mutex::ScopedLock control(m_controlMutex);
    // First stop everything, then free: a queued message or a policy may
    // belong to another module's code.
    for (auto it = modules.rbegin(); it != modules.rend(); ++it) {
        it->module->UnInit();
        UnRegisterTasksOf(it->module);
        SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "Module %s uninitialised",
                std::string(it->module->name()));
    }
    {
        std::vector<std::string> names = GetTaskNames();
        for (auto& name : names) {
            UnRegisterTask(name);
        }
    }
    {
        Poco::FastMutex::ScopedLock lock(m_policyMutex);
        m_policies.clear();
    }
    for (auto it = modules.rbegin(); it != modules.rend(); ++it) {
        delete it->module;
        it->module = nullptr;
    }
    // The libraries stay mapped until the process exits: objects of theirs
    // (static singletons, log channels) may outlive this call.
    for (auto& m : modules) {
        m_keptLibraries.push_back(std::move(m.library));
    }
}

std::vector<std::string> Engine::GetModuleNames()
{
    Poco::FastMutex::ScopedLock lock(m_moduleMutex);
    std::vector<std::string> names;
    for (auto& m : m_modules) {
        names.push_back(m.module->name());
    }
    return names;
}

// ------------------------------------------------------------------ tasks

int Engine::RegisterTask(Task* task, Module* owner)
{
    if (task == nullptr) {
        return -1;
    }
    Poco::FastMutex::ScopedLock lock(m_taskMutex);
    const std::string name = task->GetTaskName();
    if (m_tasks.count(name) != 0) {
        SDK_LOG(Log(), Poco::Message::PRIO_WARNING, kSource,
                "Task %s is registered already; second registration refused", name);
        return -1;
    }
    Registered& entry = m_tasks[name];
    entry.task = Poco::AutoPtr<Task>(task, true);
    entry.owner = owner;
    task->ResetForStart();
    const TaskCondition::TaskType type = task->GetTaskType();
    if (type == TaskCondition::TASK_TYPE_SCHEDULED || type == TaskCondition::TASK_TYPE_RESIDENT) {
        // Init, the runs and UnInit happen on the task's own thread (Task::run).
        entry.thread = std::make_unique<Poco::Thread>(name.substr(0, 15));
        entry.thread->start(*task);
    } else {
        task->Init();
    }
    SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "Registered task %s (%s, feature %s)",
            name, std::string(TaskTypeName(type)), task->GetFeatureName());
    return 0;
}

int Engine::UnRegisterTask(const std::string& taskName)
{
    Registered entry;
    {
        Poco::FastMutex::ScopedLock lock(m_taskMutex);
        auto it = m_tasks.find(taskName);
        if (it == m_tasks.end()) {
            return 0;
        }
        entry = std::move(it->second);
        m_tasks.erase(it);
    }
    entry.task->cancel();
    if (!entry.thread) {
        entry.task->UnInit();
    } else {
        if (Poco::Thread::current() == entry.thread.get()) {
            SDK_LOG(Log(), Poco::Message::PRIO_WARNING, kSource,
                    "Task %s unregistered itself; its thread ends on its own", taskName);
        } else {
            while (!entry.thread->tryJoin(5000)) {
                SDK_LOG(Log(), Poco::Message::PRIO_WARNING, kSource,
                        "Task %s has not stopped 5 s after it was cancelled; still waiting", taskName);
            }
        }
    }
    SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "Unregistered task %s", taskName);
    return 1;
}

int Engine::UnRegisterTasksOf(Module* owner)
{
    std::vector<std::string> names;
    {
        Poco::FastMutex::ScopedLock lock(m_taskMutex);
        for (auto& entry : m_tasks) {
            if (entry.second.owner == owner) {
                names.push_back(entry.first);
            }
        }
    }
    int count = 0;
    for (auto& name : names) {
        count += UnRegisterTask(name);
    }
    return count;
}

Task* Engine::FindTask(const std::string& taskName)
{
    Poco::FastMutex::ScopedLock lock(m_taskMutex);
    auto it = m_tasks.find(taskName);
    return it == m_tasks.end() ? nullptr : it->second.task.get();
}

std::vector<std::string> Engine::GetTaskNames()
{
    Poco::FastMutex::ScopedLock lock(m_taskMutex);
    std::vector<std::string> names;
    for (auto& entry : m_tasks) {
        names.push_back(entry.first);
    }
    return names;
}

std::vector<Poco::AutoPtr<Task>> Engine::GetRegisteredTasks()
{
    Poco::FastMutex::ScopedLock lock(m_taskMutex);
    std::vector<Poco::AutoPtr<Task>> tasks;
    for (auto& entry : m_tasks) {
        tasks.push_back(entry.second.task);
    }
    return tasks;
}

// --------------------------------------------------------------- messages

bool Engine::SendDirectMsg(const std::string& target, Message* msg)
{
    std::shared_ptr<Message> owned(msg);
    Poco::AutoPtr<Task> task;
    {
        Poco::FastMutex::ScopedLock lock(m_taskMutex);
        auto it = m_tasks.find(target);
        if (it != m_tasks.end()) {
            task = it->second.task;
        }
    }
    if (!task) {
        Task::WarnDropped(target, "no task of that name is registered");
        return false;
    }
    if (task->EnqueueMsg(owned) != 1) {
        Task::WarnDropped(target, "its queue is full");
        return false;
    }
    return true;
}

bool Engine::SendToTask(Task* target, Message* msg)
{
    std::shared_ptr<Message> owned(msg);
    return Task::DeliverToLive(target, owned);
}

// --------------------------------------------------------------- policies

Module* Engine::ModuleForPolicy(const std::string& policyId)
{
    Poco::FastMutex::ScopedLock lock(m_moduleMutex);
    for (auto& m : m_modules) {
        if (m.module->GetPolicyCallback(policyId) != nullptr) {
            return m.module;
        }
    }
    return nullptr;
}

bool Engine::ApplyPolicyDocument(const std::string& policyId, const std::string& content,
                                 std::string& error)
{
    // The feature name comes from the document when it is an object; the
    // module judges the rest, a document that is not JSON included.
    std::string feature;
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(content, root) == 0) {
        feature = SDK::JsonUtils::GetStringValue(root, "feature_name", "");
    }
    Poco::Mutex::ScopedLock control(m_controlMutex);
    Module* module = ModuleForPolicy(policyId);
    if (module == nullptr) {
        error = "no loaded module takes policy " + policyId;
        SDK_LOG(Log(), Poco::Message::PRIO_WARNING, kSource, "Policy %s not applied: %s", policyId,
                error);
        return false;
    }
    HandleOnDemandMessages();
    Policy* current = nullptr;
    {
        Poco::FastMutex::ScopedLock lock(m_policyMutex);
        auto it = m_policies.find(policyId);
        current = it == m_policies.end() ? nullptr : it->second.get();
    }
    Policy* fresh = module->RefreshPolicy(policyId, feature, content, current);
    if (fresh == nullptr) {
        error = "module " + std::string(module->name()) + " rejected policy " + policyId +
                " (feature '" + feature + "'); the previous policy stays in force";
        SDK_LOG(Log(), Poco::Message::PRIO_ERROR, kSource, "%s", error);
        return false;
    }
    Poco::AutoPtr<Policy> policy(fresh);  // adopts the callback's reference
    policy->Dispatch(nullptr);
    {
        Poco::FastMutex::ScopedLock lock(m_policyMutex);
        m_policies[policyId] = policy;
    }
    SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "Applied policy %s (feature %s)",
            policyId, feature);
    // Consumers derive their directories from the policy and the assets
    // together: the asset service sends its assets again so they re-derive.
    if (FindTask(kAssetServiceTask) != nullptr) {
        SendDirectMsg(kAssetServiceTask, new Message(kPolicyAppliedMessage));
    }
    return true;
}

int Engine::ApplyPolicyDirectory(bool force)
{
    const std::string dir = DirFor("agent.policy_dir", "policy");
    std::vector<std::string> files;
    try {
        for (Poco::DirectoryIterator it(dir), end; it != end; ++it) {
            const std::string name = it.name();
            if (name.size() > 5 && name.compare(name.size() - 5, 5, ".json") == 0) {
                files.push_back(name);
            }
        }
    } catch (const Poco::Exception&) {
        return 0;  // no policy directory: nothing to apply
    }
    std::sort(files.begin(), files.end());
    int applied = 0;
    for (auto& name : files) {
        const std::string id = name.substr(0, name.size() - 5);
        const std::string path = dir + name;
        std::string content;
        std::string error;
        if (!ReadWholeFile(path, kMaxPolicyBytes, content, error)) {
            SDK_LOG(Log(), Poco::Message::PRIO_ERROR, kSource,
                    "Policy file %s cannot be read: %s; skipped", path, error);
            continue;
        }
        const std::string stamp = Digest(content);
        {
            Poco::FastMutex::ScopedLock lock(m_policyMutex);
            if (!force && m_policyFileStamps[id] == stamp) {
                continue;
            }
            m_policyFileStamps[id] = stamp;
        }
        SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "Applying policy file %s", path);
        if (ApplyPolicyDocument(id, content, error)) {
            ++applied;
        }
    }
    return applied;
}

bool Engine::InstallPolicyDocument(const std::string& policyId, const std::string& content,
                                   std::string& error)
{
    if (!ApplyPolicyDocument(policyId, content, error)) {
        return false;
    }
    const std::string dir = DirFor("agent.policy_dir", "policy");
    const std::string path = dir + policyId + ".json";
    const std::string tmp = path + ".tmp";
    {
        std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
        out << content;
        if (!out) {
            SDK_LOG(Log(), Poco::Message::PRIO_WARNING, kSource,
                    "Policy %s applied but not kept: cannot write %s", policyId, tmp);
            return true;
        }
    }
    {
        Poco::FastMutex::ScopedLock lock(m_policyMutex);
        m_policyFileStamps[policyId] = Digest(content);
    }
    if (rename(tmp.c_str(), path.c_str()) != 0) {
        SDK_LOG(Log(), Poco::Message::PRIO_WARNING, kSource,
                "Policy %s applied but not kept: cannot rename %s to %s", policyId, tmp, path);
    }
    return true;
}

// --------------------------------------------------------------- tasklets

void Engine::HandleOnDemandMessages()
{
    // On-demand tasks have no thread of their own; their messages are
    // handled here, under the control mutex, where they cannot be running.
    for (Task* task : Task::LiveTasksOfType(TaskCondition::TASK_TYPE_ONDEMAND)) {
        task->GetEventWaiter().HandlePending(1024);
    }
}

Module* Engine::ModuleForTasklet(const std::string& id, AbstractTaskletCallback*& callback)
{
    Poco::FastMutex::ScopedLock lock(m_moduleMutex);
    for (auto& m : m_modules) {
        if ((callback = m.module->GetTaskletCallback(id)) != nullptr) {
            return m.module;
        }
    }
    return nullptr;
}

void Engine::ReapTasklets()
{
    for (auto it = m_tasklets.begin(); it != m_tasklets.end();) {
        if (it->second.done->load()) {
            if (it->second.thread && it->second.thread->joinable()) {
                it->second.thread->join();
            }
            it = m_tasklets.erase(it);
        } else {
            ++it;
        }
    }
}

Engine::TaskletResult Engine::InvokeTasklet(const std::string& id, const std::string& argument,
                                            bool wait, int& result)
{
    AbstractTaskletCallback* callback = nullptr;
    if (ModuleForTasklet(id, callback) == nullptr) {
        return TASKLET_UNKNOWN;
    }
    auto done = std::make_shared<std::atomic<bool>>(false);
    {
        Poco::FastMutex::ScopedLock lock(m_taskletMutex);
        ReapTasklets();
        if (m_tasklets.count(id) != 0) {
            SDK_LOG(Log(), Poco::Message::PRIO_NOTICE, kSource,
                    "Tasklet %s requested while it runs; answered 'already running', not queued", id);
            return TASKLET_ALREADY_RUNNING;
        }
        m_tasklets[id].done = done;
    }
    auto body = [this, id, argument, done]() -> int {
        int rc = -1;
        {
            Poco::Mutex::ScopedLock control(m_controlMutex);
            AbstractTaskletCallback* cb = nullptr;
            if (ModuleForTasklet(id, cb) != nullptr) {
                HandleOnDemandMessages();
                SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "Tasklet %s started", id);
                try {
                    rc = cb->invoke(argument);
                } catch (const std::exception& e) {
                    SDK_LOG(Log(), Poco::Message::PRIO_ERROR, kSource, "Tasklet %s threw: %s", id,
                            std::string(e.what()));
                }
                SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource,
                        "Tasklet %s finished (result %d)", id, rc);
            }
        }
        done->store(true);
        return rc;
    };
    if (wait || !callback->IsLongAction()) {
        result = body();
        Poco::FastMutex::ScopedLock lock(m_taskletMutex);
        ReapTasklets();
        return TASKLET_DONE;
    }
    Poco::FastMutex::ScopedLock lock(m_taskletMutex);
    m_tasklets[id].thread = std::make_unique<std::thread>([body] { body(); });
    result = 0;
    return TASKLET_STARTED;
}

std::vector<std::pair<std::string, Engine::TaskletResult>> Engine::InvokeAllTasklets(bool wait)
{
    std::vector<std::string> ids;
    {
        Poco::FastMutex::ScopedLock lock(m_moduleMutex);
        for (auto& m : m_modules) {
            for (auto& id : m.module->GetTaskletIds()) {
                ids.push_back(id);
            }
        }
    }
    std::vector<std::pair<std::string, TaskletResult>> results;
    for (auto& id : ids) {
        int rc = 0;
        results.emplace_back(id, InvokeTasklet(id, "", wait, rc));
    }
    return results;
}

void Engine::WaitForTasklets()
{
    std::map<std::string, TaskletRun> running;
    {
        Poco::FastMutex::ScopedLock lock(m_taskletMutex);
        running.swap(m_tasklets);
    }
    for (auto& entry : running) {
        if (entry.second.thread && entry.second.thread->joinable()) {
            entry.second.thread->join();
        }
    }
}

// ----------------------------------------------------------------- status

Json::Value Engine::Status()
{
    Json::Value status(Json::objectValue);
    status["agent"]["pid"] = static_cast<int>(getpid());
    status["agent"]["install_dir"] = InstallDir();
    status["agent"]["uptime_s"] =
        static_cast<Json::Int64>((SDK::TimeUtils::GetCurrentTimestampMS() - m_startMs) / 1000);
    status["modules"] = Json::Value(Json::arrayValue);
    for (auto& name : GetModuleNames()) {
        status["modules"].append(name);
    }
    status["tasks"] = Json::Value(Json::arrayValue);
    for (auto& task : GetRegisteredTasks()) {
        Json::Value t(Json::objectValue);
        t["name"] = task->GetTaskName();
        t["feature"] = task->GetFeatureName();
        t["type"] = TaskTypeName(task->GetTaskType());
        t["state"] = StateName(task->GetState());
        t["queue_depth"] = task->QueueDepth();
        t["dropped_messages"] = static_cast<Json::UInt64>(task->DroppedMessages());
        t["runs"] = static_cast<Json::UInt64>(task->RunCount());
        t["last_run_start_ms"] = static_cast<Json::Int64>(task->LastRunStartMs());
        t["last_run_end_ms"] = static_cast<Json::Int64>(task->LastRunEndMs());
        if (task->GetTaskType() == TaskCondition::TASK_TYPE_SCHEDULED) {
            t["schedule"] = task->GetCondition().Describe();
            t["next_fire_ms"] = static_cast<Json::Int64>(task->NextFireMs());
        }
        t["has_policy"] = task->GetFeaturePolicy() != nullptr;
        status["tasks"].append(t);
    }
    status["policies"] = Json::Value(Json::objectValue);
    {
        Poco::FastMutex::ScopedLock lock(m_policyMutex);
        for (auto& entry : m_policies) {
            Json::Value p(Json::objectValue);
            p["feature"] = entry.second->GetName();
            p["hash"] = entry.second->GetHash();
            p["enabled"] = entry.second->IsEnabled();
            status["policies"][entry.first] = p;
        }
    }
    {
        Poco::FastMutex::ScopedLock lock(m_taskletMutex);
        status["tasklets_running"] = Json::Value(Json::arrayValue);
        for (auto& entry : m_tasklets) {
            if (!entry.second.done->load()) {
                status["tasklets_running"].append(entry.first);
            }
        }
    }
    status["components"] = StatusBoard::Snapshot();
    return status;
}

// ------------------------------------------------------------ the agent

void Engine::RequestStop()
{
    m_stop.store(true);
}

int Engine::main(const std::vector<std::string>& args)
{
    (void)args;
    return RunAgent();
}

int Engine::RunAgent()
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
    m_startMs = SDK::TimeUtils::GetCurrentTimestampMS();

    const std::string install = InstallDir();
    const std::string properties = install + "etc/agent.properties";
    if (Poco::File(properties).exists()) {
        try {
            config().add(new Poco::Util::PropertyFileConfiguration(properties), 50);
            SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "Read settings from %s",
                    properties);
        } catch (const Poco::Exception& e) {
            SDK_LOG(Log(), Poco::Message::PRIO_ERROR, kSource, "Settings file %s ignored: %s",
                    properties, e.displayText());
        }
    }
    const std::string moduleDir = DirFor("agent.module_dir", "module");
    SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource,
            "Agent starting: pid %d, install dir %s, modules from %s", static_cast<int>(getpid()),
            install, moduleDir);
    const int loaded = LoadModules(moduleDir);
    if (loaded == 0) {
        SDK_LOG(Log(), Poco::Message::PRIO_WARNING, kSource,
                "No module loaded from %s; the agent runs without modules", moduleDir);
    }
    ApplyPolicyDirectory(true);

    m_control = std::make_unique<ControlServer>(*this, DirFor("agent.run_dir", "run") + "agent.sock");
    std::string error;
    if (!m_control->Start(error)) {
        SDK_LOG(Log(), Poco::Message::PRIO_ERROR, kSource,
                "Control socket not available: %s; `ardent-agent ctl` will not reach this agent",
                error);
        m_control.reset();
    }
    SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource,
            "Agent running with %d module(s); stop with SIGTERM or SIGINT", loaded);

    const long pollMs = config().getInt("agent.policy_poll_ms", 1000);
    int64_t lastPoll = SDK::TimeUtils::GetCurrentTimestampMS();
    timespec tick{0, 200 * 1000 * 1000};
    while (!m_stop.load()) {
        const int sig = sigtimedwait(&set, nullptr, &tick);
        if (sig == SIGINT || sig == SIGTERM || sig == SIGQUIT) {
            SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "Signal %d received: stopping",
                    sig);
            break;
        }
        if (sig == SIGUSR1) {
            SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource,
                    "SIGUSR1 received: starting an immediate scan");
            InvokeAllTasklets(false);
        } else if (sig == SIGHUP) {
            SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource,
                    "SIGHUP received: re-reading the policy directory");
            ApplyPolicyDirectory(true);
        }
        const int64_t now = SDK::TimeUtils::GetCurrentTimestampMS();
        if (now - lastPoll >= pollMs) {
            lastPoll = now;
            ApplyPolicyDirectory(false);
        }
    }

    if (m_control) {
        m_control->Stop();
        m_control.reset();
    }
    // Long loops (a scan in progress) see the cancel and stop early.
    Task::CancelAllLive();
    UnloadModules();
    SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "Agent stopped");
    return 0;
}

}  // namespace Framework
