#include "framework/Policy.h"

#include "framework/Engine.h"

namespace Framework {

std::string PolicyCheck::ErrorText() const
{
    std::string text;
    for (const auto& error : errors) {
        text += (text.empty() ? "" : "; ") + error;
    }
    return text;
}

bool Policy::PolicyChanged(const std::string& hash, const std::string& version)
{
    return m_hash != hash || m_version != version;
}

CompositePolicy::~CompositePolicy() = default;

void CompositePolicy::Add(Policy* child)
{
    if (child != nullptr) {
        m_children.emplace_back(child);  // adopts the creation reference
    }
}

void FeaturePolicy::Dispatch(Policy* parent)
{
    (void)parent;
    Engine* engine = Engine::GetInstance();
    if (engine == nullptr) {
        return;
    }
    for (auto& task : engine->GetRegisteredTasks()) {
        if (task->GetFeatureName() == GetName()) {
            task->SetFeaturePolicy(this);
        }
    }
    std::list<Poco::AutoPtr<Policy>> children = GetChildren();
    for (auto& child : children) {
        child->Dispatch(this);
    }
}

bool TaskPolicy::ParseCondition(const std::string& text)
{
    return m_condition.Parse(text);
}

bool TaskPolicy::ParseCondition(const std::string& text, std::string& why)
{
    return m_condition.Parse(text, why);
}

void TaskPolicy::Dispatch(Policy* parent)
{
    (void)parent;
    Engine* engine = Engine::GetInstance();
    if (engine == nullptr) {
        return;
    }
    for (auto& task : engine->GetRegisteredTasks()) {
        if (task->GetTaskName() == GetName()) {
            task->SetCondition(m_condition);
        }
    }
}

}  // namespace Framework
