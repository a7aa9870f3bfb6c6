#include "framework/ModuleLoader.h"

#include <algorithm>

#include <Poco/DirectoryIterator.h>

#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"

namespace Framework {

namespace {

const char* const kSource = "framework/src/ModuleLoader";

Poco::Logger* Log()
{
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("framework", false);
}

bool IsModuleFile(const std::string& name)
{
    return name.size() > 13 && name.compare(0, 3, "lib") == 0 &&
           name.compare(name.size() - 10, 10, "_module.so") == 0;
}

}  // namespace

int ModuleLoader::LoadDirectory(const std::string& dir)
{
    std::vector<std::string> files;
    try {
        for (Poco::DirectoryIterator it(dir), end; it != end; ++it) {
            if (IsModuleFile(it.name())) {
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
        loaded += Load(file) ? 1 : 0;
    }
    return loaded;
}

bool ModuleLoader::Load(const std::string& path)
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
    Loaded entry;
    entry.library = std::move(library);
    entry.module = module;
    entry.path = path;
    return InitModule(std::move(entry));
}

bool ModuleLoader::Add(Module* module)
{
    if (module == nullptr) {
        return false;
    }
    Loaded entry;
    entry.module = module;
    entry.path = "(built in)";
    return InitModule(std::move(entry));
}

bool ModuleLoader::InitModule(Loaded entry)
{
    Module* module = entry.module;
    {
        Poco::FastMutex::ScopedLock lock(m_mutex);
        m_modules.push_back(std::move(entry));
    }
    Poco::Mutex::ScopedLock control(m_control);
    const int rc = module->Init();
    SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "Loaded module %s (Init returned %d)",
            std::string(module->name()), rc);
    return true;
}

std::vector<std::string> ModuleLoader::Names()
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    std::vector<std::string> names;
    for (auto& m : m_modules) {
        names.push_back(m.module->name());
    }
    return names;
}

std::vector<std::pair<std::string, std::vector<std::string>>> ModuleLoader::PolicyIdsByModule()
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    std::vector<std::pair<std::string, std::vector<std::string>>> out;
    for (auto& m : m_modules) {
        std::vector<std::string> ids = m.module->GetPolicyIds();
        if (!ids.empty()) {
            out.emplace_back(m.module->name(), std::move(ids));
        }
    }
    return out;
}

Module* ModuleLoader::ForPolicy(const std::string& policyId)
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    for (auto& m : m_modules) {
        if (m.module->GetPolicyCallback(policyId) != nullptr) {
            return m.module;
        }
    }
    return nullptr;
}

AbstractTaskletCallback* ModuleLoader::TaskletCallback(const std::string& id)
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    for (auto& m : m_modules) {
        if (AbstractTaskletCallback* callback = m.module->GetTaskletCallback(id)) {
            return callback;
        }
    }
    return nullptr;
}

std::vector<std::string> ModuleLoader::TaskletIds()
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    std::vector<std::string> ids;
    for (auto& m : m_modules) {
        for (auto& id : m.module->GetTaskletIds()) {
            ids.push_back(id);
        }
    }
    return ids;
}

std::vector<ModuleLoader::Loaded> ModuleLoader::TakeAll()
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    std::vector<Loaded> modules;
    modules.swap(m_modules);
    return modules;
}

void ModuleLoader::Destroy(std::vector<Loaded>& modules)
{
    for (auto it = modules.rbegin(); it != modules.rend(); ++it) {
        delete it->module;
        it->module = nullptr;
    }
    Poco::FastMutex::ScopedLock lock(m_mutex);
    for (auto& m : modules) {
        if (m.library) {
            m_kept.push_back(std::move(m.library));
        }
    }
    modules.clear();
}

}  // namespace Framework
