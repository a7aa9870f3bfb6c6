// Test-only module: one task of each type, messages both ways, a policy
// callback and a tasklet, each step logged so a test can follow it.

#include <atomic>

#include "framework/Export.h"
#include "framework/Module.h"
#include "framework/Task.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"

namespace {

const char* const kSource = "tests/framework/test_module/TestServiceModule";

Poco::Logger* Log()
{
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("test_service_module", false);
}

class PingMessage : public Framework::Message {
public:
    explicit PingMessage(Framework::MailboxRef from) : Framework::Message("ping"), from(from) {}
    Framework::MailboxRef from;
};

class PongMessage : public Framework::Message {
public:
    PongMessage() : Framework::Message("pong") {}
};

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
        if (schedule->ParseCondition(R"({"type":"interval","interval_s":1,"delay_s":0})")) {
            Add(schedule);
        } else {
            delete schedule;
        }
        return true;
    }
};

class ScheduledTask : public Framework::Task {
public:
    ScheduledTask() : Framework::Task("test_scheduled_task", "test_feature", Framework::TaskCondition::TASK_TYPE_SCHEDULED, 64) {}
    int Run() override
    {
        SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "test module: scheduled run %d, policy %s",
                ++m_runs, std::string(GetFeaturePolicy() ? "present" : "absent"));
        return 0;
    }
    int HandleMsg(std::shared_ptr<Framework::Message>& msg) override
    {
        if (auto ping = std::dynamic_pointer_cast<PingMessage>(msg)) {
            SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "test module: ping received by %s", GetTaskName());
            ping->from.Post(std::make_shared<PongMessage>());
        }
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
        SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "test module: resident task running");
        bool sent = false;
        while (!IsCancelling()) {
            if (!sent) {
                sent = SendDirectMsg("test_scheduled_task", new PingMessage(GetMailbox()));
            }
            GetEventWaiter().WaitAndHandleEvent(100, 16);
        }
        SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "test module: resident task stopped");
        return 0;
    }
    int HandleMsg(std::shared_ptr<Framework::Message>& msg) override
    {
        if (std::dynamic_pointer_cast<PongMessage>(msg)) {
            SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "test module: pong received by %s", GetTaskName());
        }
        return 0;
    }
};

class OnDemandTask : public Framework::Task {
public:
    OnDemandTask() : Framework::Task("test_ondemand_task", "test_feature", Framework::TaskCondition::TASK_TYPE_ONDEMAND, 64) {}
    int Run() override
    {
        SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "test module: on-demand run");
        return 0;
    }
};

class TestServiceModule : public Framework::Module {
public:
    TestServiceModule() : Framework::Module("test_service_module") {}
    ~TestServiceModule() override
    {
        if (m_scheduled) m_scheduled->release();
        if (m_resident) m_resident->release();
        if (m_ondemand) m_ondemand->release();
    }

    int Init() override
    {
        RegisterTaskletCallback("test_tasklet",
            new Framework::TaskletCallback<TestServiceModule>(this, &TestServiceModule::Tasklet, true));
        RegisterPolicyCallback("20001",
            new Framework::PolicyCallback<TestServiceModule>(this, &TestServiceModule::OnPolicy));
        SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "test module: Init");
        return Framework::Module::Init();
    }

    int UnInit() override
    {
        const int removed = UnRegisterTask("test_resident_task") + UnRegisterTask("test_scheduled_task");
        SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "test module: UnInit, %d task(s) unregistered", removed);
        return Framework::Module::UnInit();
    }

    Framework::Policy* OnPolicy(const std::string& feature, const std::string& content, Framework::Policy*& current)
    {
        auto* policy = new TestPolicy(feature);
        if (!policy->Parse(content)) {
            delete policy;
            SDK_LOG(Log(), Poco::Message::PRIO_ERROR, kSource, "test module: policy rejected");
            return nullptr;
        }
        if (current != nullptr) {
            current->SetExpired();
        }
        if (m_scheduled == nullptr) {
            m_scheduled = new ScheduledTask();
            m_resident = new ResidentTask();
            m_ondemand = new OnDemandTask();
            RegisterTask(m_scheduled, false);
            RegisterTask(m_resident, false);
        }
        SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "test module: policy accepted for feature %s", feature);
        return policy;
    }

    int Tasklet(const std::string& argument)
    {
        SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "test module: tasklet invoked");
        if (m_ondemand != nullptr) {
            m_ondemand->Run();
        }
        return 0;
    }

private:
    ScheduledTask* m_scheduled = nullptr;
    ResidentTask* m_resident = nullptr;
    OnDemandTask* m_ondemand = nullptr;
};

}  // namespace

extern "C" ARDENT_EXPORT Framework::Module* CreateModule()
{
    return new TestServiceModule();
}
