// Test-only module: a scheduled and a resident task, a policy callback and a
// tasklet, each step logged so a test can follow it through the real agent.

#include "framework/Export.h"
#include "framework/Module.h"
#include "framework/Task.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"

namespace {

const char* const kSource = "tests/framework/test_module/TestServiceModule";

void Say(const std::string& text)
{
    SDK_LOG(SDK::LoggerUtils::GetInstance()->GetModuleLogger("test_service_module", false),
            Poco::Message::PRIO_INFORMATION, kSource, "test module: %s", text);
}

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
    int Run() override
    {
        Say("scheduled run " + std::to_string(++m_runs) + ", policy " + (GetFeaturePolicy() ? "present" : "absent"));
        return 0;
    }

private:
    int m_runs = 0;
};

class ResidentTask : public Framework::Task {
public:
    ResidentTask() : Framework::Task("test_resident_task", "test_feature", Framework::TaskCondition::TASK_TYPE_RESIDENT, 64) {}
    int Run() override
    {
        Say("resident task running");
        while (!IsCancelling()) {
            GetEventWaiter().WaitAndHandleEvent(60000, 16);
        }
        Say("resident task stopped");
        return 0;
    }
};

class TestServiceModule : public Framework::Module {
public:
    TestServiceModule() : Framework::Module("test_service_module") {}

    int Init() override
    {
        RegisterTaskletCallback("test_tasklet",
            new Framework::TaskletCallback<TestServiceModule>(this, &TestServiceModule::Tasklet, true));
        RegisterPolicyCallback("20001",
            new Framework::PolicyCallback<TestServiceModule>(this, &TestServiceModule::OnPolicy));
        Say("Init");
        return Framework::Module::Init();
    }

    int UnInit() override
    {
        const int removed = UnRegisterTask("test_resident_task") + UnRegisterTask("test_scheduled_task");
        Say("UnInit, " + std::to_string(removed) + " task(s) unregistered");
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
            m_resident = new ResidentTask();
            RegisterTask(m_scheduled.get(), false);
            RegisterTask(m_resident.get(), false);
        }
        Say("policy accepted for feature " + feature);
        return policy;
    }

    int Tasklet(const std::string&)
    {
        Say("tasklet invoked");
        return 0;
    }

private:
    Poco::AutoPtr<ScheduledTask> m_scheduled;
    Poco::AutoPtr<ResidentTask> m_resident;
};

}  // namespace

extern "C" ARDENT_EXPORT Framework::Module* CreateModule()
{
    return new TestServiceModule();
}
