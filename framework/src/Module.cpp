#include "framework/Module.h"

#include "framework/Engine.h"

namespace Framework {

Module::Module(const std::string& name) : m_name(name) {}

Module::~Module() = default;

int Module::Init()
{
    return 0;
}

int Module::UnInit()
{
    if (Engine* engine = Engine::GetInstance()) {
        engine->UnRegisterTasksOf(this);
    }
    m_tasklets.clear();
    m_policies.clear();
    m_policyFeatures.clear();
    return 0;
}

Policy* Module::RefreshPolicy(const std::string& policyId, const std::string& featureName,
                              const std::string& content, Policy*& currentPolicy)
{
    AbstractPolicyCallback* callback = GetPolicyCallback(policyId);
    if (callback == nullptr) {
        return nullptr;
    }
    return callback->invoke(featureName, content, currentPolicy);
}

void Module::RegisterTaskletCallback(const std::string& id, AbstractTaskletCallback* callback)
{
    if (callback != nullptr) {
        m_tasklets[id].reset(callback);
    }
}

void Module::UnRegisterTaskletCallback(const std::string& id)
{
    m_tasklets.erase(id);
}

void Module::RegisterPolicyCallback(const std::string& id, AbstractPolicyCallback* callback,
                                    const std::string& feature)
{
    if (callback != nullptr) {
        m_policies[id].reset(callback);
        m_policyFeatures[id] = feature;
    }
}

void Module::UnRegisterPolicyCallback(const std::string& id)
{
    m_policies.erase(id);
    m_policyFeatures.erase(id);
}

std::string Module::GetPolicyFeature(const std::string& id) const
{
    auto it = m_policyFeatures.find(id);
    return it == m_policyFeatures.end() ? std::string() : it->second;
}

void Module::CheckPolicy(const std::string& policyId, const std::string& content, PolicyCheck& check)
{
    (void)policyId;
    (void)content;
    (void)check;
}

AbstractTaskletCallback* Module::GetTaskletCallback(const std::string& id) const
{
    auto it = m_tasklets.find(id);
    return it == m_tasklets.end() ? nullptr : it->second.get();
}

AbstractPolicyCallback* Module::GetPolicyCallback(const std::string& id) const
{
    auto it = m_policies.find(id);
    return it == m_policies.end() ? nullptr : it->second.get();
}

std::vector<std::string> Module::GetTaskletIds() const
{
    std::vector<std::string> ids;
    for (auto& entry : m_tasklets) {
        ids.push_back(entry.first);
    }
    return ids;
}

std::vector<std::string> Module::GetPolicyIds() const
{
    std::vector<std::string> ids;
    for (auto& entry : m_policies) {
        ids.push_back(entry.first);
    }
    return ids;
}

Task* Module::FindTask(const std::string& taskName)
{
    Engine* engine = Engine::GetInstance();
    return engine == nullptr ? nullptr : engine->FindTask(taskName);
}

int Module::RegisterTask(Task* task, bool startNow)
{
    (void)startNow;  // registered tasks always start according to their type
    Engine* engine = Engine::GetInstance();
    return engine == nullptr ? -1 : engine->RegisterTask(task, this);
}

int Module::UnRegisterTask(const std::string& taskName)
{
    Engine* engine = Engine::GetInstance();
    return engine == nullptr ? 0 : engine->UnRegisterTask(taskName);
}

}  // namespace Framework
