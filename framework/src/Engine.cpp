#include "framework/Engine.h"

#include <atomic>

#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"
#include "sdk/PathUtils.h"
#include "sdk/TimeUtils.h"

namespace Framework {

namespace {

const char* const kSource = "framework/src/Engine";
std::atomic<Engine*> g_engine{nullptr};

std::string WithSlash(std::string dir)
{
    if (dir.empty() || dir.back() != '/') {
        dir += '/';
    }
    return dir;
}

}  // namespace

Detail::LogChannelKeeper::LogChannelKeeper()
{
    Poco::Logger& root = Poco::Logger::root();
    channel = root.getChannel();
    level = root.getLevel();
}

Engine::Engine()
    : m_modules(m_controlMutex),
      m_policies(m_modules, m_tasks.OnDemand(), m_controlMutex,
                 [this] { return DirFor("agent.policy_dir", "policy"); }),
      m_tasklets(m_modules, m_tasks.OnDemand(), m_controlMutex),
      m_startMs(SDK::TimeUtils::GetCurrentTimestampMS())
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
    UnloadModules();
    // Tasks registered without a module stop while the engine is reachable.
    m_tasks.UnRegisterAll();
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

void Engine::UnloadModules()
{
    std::vector<ModuleLoader::Loaded> modules = m_modules.TakeAll();
    if (modules.empty()) {
        return;
    }
    m_tasklets.WaitAll();
    Poco::Mutex::ScopedLock control(m_controlMutex);
    // First stop everything, then free: a queued message or a policy may
    // belong to another module's code.
    for (auto it = modules.rbegin(); it != modules.rend(); ++it) {
        it->module->UnInit();
        m_tasks.UnRegisterOwnedBy(it->module);
        SDK_LOG(SDK::LoggerUtils::GetInstance()->GetModuleLogger("framework", false),
                Poco::Message::PRIO_INFORMATION, kSource, "Module %s uninitialised",
                std::string(it->module->name()));
    }
    m_tasks.UnRegisterAll();
    m_policies.Clear();
    m_modules.Destroy(modules);
}

}  // namespace Framework
