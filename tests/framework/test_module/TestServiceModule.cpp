// Test-only module: a policy callback that registers a scheduled task, so a
// test can follow a policy from the policy directory to the task.

#include "framework/Export.h"
#include "framework/Module.h"
#include "framework/Task.h"

namespace {

class TestPolicy : public Framework::FeaturePolicy {
public:
    explicit TestPolicy(const std::string& name) : Framework::FeaturePolicy(name) {}
    bool Parse(const std::string& content) override
    {
        // "reject" anywhere in the document makes the callback refuse it.
        if (content.find("reject") != std::string::npos) {
            return false;
        }
        auto* schedule = new Framework::TaskPolicy("test_scheduled_task");
        schedule->ParseCondition(R"({"type":"interval","interval_s":1,"delay_s":0})");
        Add(schedule);
        return true;
    }
};

class ScheduledTask : public Framework::Task {
public:
    ScheduledTask() : Framework::Task("test_scheduled_task", "test_feature", Framework::TaskCondition::TASK_TYPE_SCHEDULED, 64) {}
    int Run() override { return 0; }
};

class TestServiceModule : public Framework::Module {
public:
    TestServiceModule() : Framework::Module("test_service_module") {}

    int Init() override
    {
        RegisterPolicyCallback("20001",
            new Framework::PolicyCallback<TestServiceModule>(this, &TestServiceModule::OnPolicy));
        return Framework::Module::Init();
    }

    int UnInit() override
    {
        UnRegisterTask("test_scheduled_task");
        return Framework::Module::UnInit();
    }

    Framework::Policy* OnPolicy(const std::string& feature, const std::string& content, Framework::Policy*& current)
    {
        auto* policy = new TestPolicy(feature);
        if (!policy->Parse(content)) {
            delete policy;
            return nullptr;
        }
        if (current != nullptr) {
            current->SetExpired();
        }
        if (!m_scheduled) {
            m_scheduled = new ScheduledTask();
            RegisterTask(m_scheduled.get(), false);
        }
        return policy;
    }

private:
    Poco::AutoPtr<ScheduledTask> m_scheduled;
};

}  // namespace

extern "C" ARDENT_EXPORT Framework::Module* CreateModule()
{
    return new TestServiceModule();
}
