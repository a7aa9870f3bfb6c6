// Tasks on real threads: the three types, schedules, message handling,
// delivery through mailboxes and topics, and the policy lifetime under
// concurrent replacement.

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "framework/Engine.h"
#include "framework/Topics.h"
#include "testsupport/TestSupport.h"

using Framework::TaskCondition;
using TestSupport::WaitFor;

namespace {

class CountingTask : public Framework::Task {
public:
    CountingTask(const std::string& name, TaskCondition::TaskType type, unsigned int size = 64)
        : Framework::Task(name, "test_feature", type, size) {}
    int Init() override
    {
        initThread = std::this_thread::get_id();
        ++inits;
        return Framework::Task::Init();
    }
    int UnInit() override
    {
        ++uninits;
        return Framework::Task::UnInit();
    }
    int Run() override
    {
        runner = std::this_thread::get_id();
        const int now = ++concurrent;
        maxConcurrent = std::max(maxConcurrent.load(), now);
        ++runs;
        // A resident loop waits long: only the cancel's wake-up ends it soon.
        while (loop && !IsCancelling()) {
            GetEventWaiter().WaitAndHandleEvent(60000, 16);
        }
        if (sleepMs > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(sleepMs));
        }
        --concurrent;
        return 0;
    }
    std::atomic<int> runs{0};
    std::atomic<int> concurrent{0};
    std::atomic<int> maxConcurrent{0};
    bool loop = false;
    int sleepMs = 0;
    std::thread::id runner;
    std::thread::id initThread;
    std::atomic<int> inits{0};
    std::atomic<int> uninits{0};
};

// A message that records its own destruction and can throw when handled.
class ProbeMessage : public Framework::Message {
public:
    ProbeMessage(std::atomic<int>* destroyed, std::atomic<int>* handled, bool throws = false)
        : Framework::Message("probe"), m_destroyed(destroyed), m_handled(handled), m_throws(throws) {}
    ~ProbeMessage() override { ++*m_destroyed; }
    int MessageHandle(void*) override
    {
        if (m_throws) {
            throw std::runtime_error("handler failure");
        }
        ++*m_handled;
        return 0;
    }

private:
    std::atomic<int>* m_destroyed;
    std::atomic<int>* m_handled;
    bool m_throws;
};

class NamedPolicy : public Framework::FeaturePolicy {
public:
    NamedPolicy(const std::string& feature, std::atomic<int>* destroyed)
        : Framework::FeaturePolicy(feature), m_destroyed(destroyed), payload(4096, 'p') {}
    ~NamedPolicy() override { ++*m_destroyed; }
    bool Parse(const std::string&) override { return true; }
    std::atomic<int>* m_destroyed;
    std::string payload;
};

TaskCondition Every(int intervalS)
{
    TaskCondition condition(TaskCondition::TASK_TYPE_SCHEDULED);
    EXPECT_TRUE(condition.Parse(R"({"type":"interval","interval_s":)" + std::to_string(intervalS) +
                                R"(,"delay_s":0})"));
    return condition;
}

}  // namespace

TEST(Task, EachTypeRunsAsItsTypeSaysAndAReplacedPolicyOutlivesItsReaders)
{
    TestSupport::TestEngine env;
    auto& engine = env.engine();
    Poco::AutoPtr<CountingTask> resident(new CountingTask("resident", TaskCondition::TASK_TYPE_RESIDENT));
    resident->loop = true;
    Poco::AutoPtr<CountingTask> ondemand(new CountingTask("ondemand", TaskCondition::TASK_TYPE_ONDEMAND));
    Poco::AutoPtr<CountingTask> scheduled(new CountingTask("scheduled", TaskCondition::TASK_TYPE_SCHEDULED));

    ASSERT_EQ(engine.RegisterTask(resident.get(), nullptr), 0);
    ASSERT_EQ(engine.RegisterTask(ondemand.get(), nullptr), 0);
    ASSERT_EQ(engine.RegisterTask(scheduled.get(), nullptr), 0);
    EXPECT_EQ(engine.RegisterTask(resident.get(), nullptr), -1) << "a name is registered once";

    ASSERT_TRUE(WaitFor([&] { return resident->runs.load() == 1; }));
    EXPECT_NE(resident->runner, std::this_thread::get_id());
    EXPECT_EQ(resident->initThread, resident->runner) << "Init runs on the task's own thread";
    EXPECT_EQ(ondemand->inits.load(), 1);

    // Without a schedule a scheduled task waits; with one it fires, and a
    // run longer than the interval makes fires coalesce, never overlap.
    EXPECT_EQ(scheduled->runs.load(), 0);
    scheduled->sleepMs = 1500;
    scheduled->SetCondition(Every(1));
    EXPECT_TRUE(WaitFor([&] { return scheduled->runs.load() >= 2; }, 10000));

    // The cancel wakes a resident task out of its 60 s wait.
    EXPECT_EQ(engine.UnRegisterTask("resident"), 1);
    EXPECT_EQ(resident->GetState(), Poco::Task::TASK_FINISHED);
    EXPECT_EQ(resident->uninits.load(), 1);
    EXPECT_EQ(engine.UnRegisterTask("resident"), 0);

    EXPECT_EQ(engine.UnRegisterTask("scheduled"), 1);
    EXPECT_EQ(scheduled->maxConcurrent.load(), 1);
    EXPECT_EQ(engine.UnRegisterTask("ondemand"), 1);
    EXPECT_EQ(ondemand->runs.load(), 0) << "the framework never runs an on-demand task";
    EXPECT_EQ(ondemand->uninits.load(), 1);
    // A stopped task registered again: the end-to-end policy test disables and enables.

    // A held schedule never fires: the registry holds it from registration on.
    engine.Tasks().HoldSchedules(true);
    Poco::AutoPtr<CountingTask> held(new CountingTask("held", TaskCondition::TASK_TYPE_SCHEDULED));
    held->SetCondition(Every(1));
    ASSERT_EQ(engine.RegisterTask(held.get(), nullptr), 0);
    EXPECT_TRUE(WaitFor([&] { return held->GetState() == Poco::Task::TASK_RUNNING; }));
    EXPECT_EQ(held->NextFireMs(), -1);
    EXPECT_EQ(engine.UnRegisterTask("held"), 1);
    EXPECT_EQ(held->runs.load(), 0);

    // A policy replaced under a running task stays alive while it reads it.
    std::atomic<int> destroyed{0};
    std::atomic<long> reads{0};
    class Reader : public Framework::Task {
    public:
        explicit Reader(std::atomic<long>* reads)
            : Framework::Task("reader", "test_feature", TaskCondition::TASK_TYPE_RESIDENT, 64), m_reads(reads) {}
        int Run() override
        {
            while (!IsCancelling()) {
                if (auto* p = dynamic_cast<NamedPolicy*>(GetFeaturePolicy())) {
                    // Hold the raw pointer across several reads, as a scan does.
                    size_t sum = 0;
                    for (int i = 0; i < 50; ++i) {
                        sum += p->payload.size() + p->GetName().size();
                    }
                    if (sum > 0) {
                        ++*m_reads;
                    }
                }
                GetEventWaiter().WaitAndHandleEvent(0, 4);
            }
            return 0;
        }
        std::atomic<long>* m_reads;
    };
    Poco::AutoPtr<Reader> reader(new Reader(&reads));
    ASSERT_EQ(env.engine().RegisterTask(reader.get(), nullptr), 0);
    const int kPolicies = 300;
    for (int i = 0; i < kPolicies; ++i) {
        Poco::AutoPtr<NamedPolicy> policy(new NamedPolicy("test_feature", &destroyed));
        policy->Dispatch(nullptr);  // the engine's reference goes with `policy`
    }
    EXPECT_TRUE(WaitFor([&] { return reads.load() > 100; }));
    env.engine().UnRegisterTask("reader");
    reader.reset();
    EXPECT_EQ(destroyed.load(), kPolicies) << "every policy is freed once nobody holds it";
}

TEST(Mailbox, MessagesAreHandledAtMostMaxAtATimeUndeliverableOnesFreedCountedAndWarnedAboutNoneLost)
{
    std::atomic<int> destroyed{0};
    std::atomic<int> handled{0};
    Poco::AutoPtr<CountingTask> task(new CountingTask("queue", TaskCondition::TASK_TYPE_ONDEMAND, 16));
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(task->EnqueueMsg(std::make_shared<ProbeMessage>(&destroyed, &handled, i == 1)), 1);
    }
    EXPECT_EQ(task->GetEventWaiter().WaitAndHandleEvent(0, 3), 3);
    EXPECT_EQ(handled.load(), 2) << "the second message threw; the third was still handled";
    EXPECT_EQ(task->QueueDepth(), 7u);
    EXPECT_EQ(destroyed.load(), 3) << "handled messages are freed";
    EXPECT_EQ(task->GetEventWaiter().WaitAndHandleEvent(0, 100), 7);
    EXPECT_EQ(task->GetEventWaiter().WaitAndHandleEvent(20, 100), 0);
    EXPECT_EQ(destroyed.load(), 10);

    destroyed = 0;
    TestSupport::TestEngine env;
    TestSupport::LogCapture log("framework");
    Poco::AutoPtr<CountingTask> sender(new CountingTask("sender", TaskCondition::TASK_TYPE_ONDEMAND));
    EXPECT_FALSE(sender->SendDirectMsg("no_such_task", new ProbeMessage(&destroyed, &handled)));
    EXPECT_EQ(destroyed.load(), 1);

    // A full queue refuses, frees and counts; the warning is rate-limited.
    Poco::AutoPtr<CountingTask> small(new CountingTask("small", TaskCondition::TASK_TYPE_ONDEMAND, 2));
    ASSERT_EQ(env.engine().RegisterTask(small.get(), nullptr), 0);
    EXPECT_TRUE(sender->SendDirectMsg("small", new ProbeMessage(&destroyed, &handled)));
    EXPECT_TRUE(sender->SendDirectMsg("small", new ProbeMessage(&destroyed, &handled)));
    EXPECT_FALSE(sender->SendDirectMsg("small", new ProbeMessage(&destroyed, &handled)));
    EXPECT_FALSE(small->GetMailbox().Post(std::make_shared<ProbeMessage>(&destroyed, &handled)));
    EXPECT_EQ(destroyed.load(), 3);
    EXPECT_EQ(small->DroppedMessages(), 2u);
    EXPECT_EQ(log.Count("Message for task small dropped: its queue is full"), 1u)
        << "one warning per window";
    env.engine().UnRegisterTask("small");

    // A handle outlives its task and then refuses, without touching it.
    Framework::MailboxRef handle;
    {
        Poco::AutoPtr<CountingTask> gone(new CountingTask("gone", TaskCondition::TASK_TYPE_ONDEMAND));
        handle = gone->GetMailbox();
        EXPECT_TRUE(handle.Alive());
    }
    EXPECT_FALSE(handle.Alive());
    EXPECT_FALSE(handle.Empty());
    EXPECT_FALSE(handle.Post(std::make_shared<ProbeMessage>(&destroyed, &handled)));
    EXPECT_EQ(destroyed.load(), 4);

    // Many producers, one consumer: nothing lost.
    Poco::AutoPtr<TestSupport::CaptureTask> sink(new TestSupport::CaptureTask("sink", 1024));
    ASSERT_EQ(env.engine().RegisterTask(sink.get(), nullptr), 0);
    const int kThreads = 4;
    const int kEach = 2000;
    std::vector<std::thread> producers;
    for (int t = 0; t < kThreads; ++t) {
        producers.emplace_back([&] {
            for (int i = 0; i < kEach; ++i) {
                // Retry on a full queue, as a service would.
                while (!env.engine().SendDirectMsg("sink", new Framework::Message("m"))) {
                    std::this_thread::yield();
                }
            }
        });
    }
    for (auto& p : producers) {
        p.join();
    }
    EXPECT_TRUE(sink->WaitForCount(kThreads * kEach, 30000));
    EXPECT_EQ(sink->Count(), static_cast<size_t>(kThreads * kEach));
    env.engine().UnRegisterTask("sink");
}

TEST(Mailbox, ConsumerTablesAndTopicsHoldHandles)
{
    Poco::AutoPtr<CountingTask> producer(new CountingTask("producer", TaskCondition::TASK_TYPE_ONDEMAND));
    Poco::AutoPtr<CountingTask> a(new CountingTask("a", TaskCondition::TASK_TYPE_ONDEMAND));
    Poco::AutoPtr<CountingTask> b(new CountingTask("b", TaskCondition::TASK_TYPE_ONDEMAND));
    EXPECT_EQ(producer->AddConsumer(0, "", a.get()), 1);
    EXPECT_EQ(producer->AddConsumer(0, "", a->GetMailbox()), 1) << "a task and its handle are one consumer";
    EXPECT_EQ(producer->AddConsumer(0, "", b.get()), 2);
    EXPECT_EQ(producer->AddConsumer(4, "", a.get()), 1);
    EXPECT_EQ(producer->DelConsumer(0, "", a.get()), 1);
    EXPECT_EQ(producer->DelConsumer(0, "", a.get()), 0);
    ASSERT_EQ(producer->GetConsumers(0).size(), 1u);
    EXPECT_TRUE(producer->GetConsumers(0)[0] == b->GetMailbox());

    // A consumer that went away stays a harmless entry until removed by handle.
    const Framework::MailboxRef bHandle = b->GetMailbox();
    b.reset();
    ASSERT_EQ(producer->GetConsumers(0).size(), 1u);
    EXPECT_FALSE(producer->GetConsumers(0)[0].Post(std::make_shared<Framework::Message>("m")));
    EXPECT_EQ(producer->DelConsumer(0, "", bHandle), 1);

    // Topics reach every live subscriber once and forget the gone ones.
    const std::string topic = "test.topic";
    Framework::Topics::Subscribe(topic, a->GetMailbox());
    Framework::Topics::Subscribe(topic, a->GetMailbox());
    {
        Poco::AutoPtr<CountingTask> brief(new CountingTask("brief", TaskCondition::TASK_TYPE_ONDEMAND));
        Framework::Topics::Subscribe(topic, brief->GetMailbox());
        EXPECT_EQ(Framework::Topics::Post(topic, std::make_shared<Framework::Message>("m")), 2);
    }
    EXPECT_EQ(Framework::Topics::Post(topic, std::make_shared<Framework::Message>("m")), 1);
    EXPECT_EQ(a->QueueDepth(), 2u);
    Framework::Topics::Unsubscribe(topic, a->GetMailbox());
    EXPECT_EQ(Framework::Topics::Post(topic, std::make_shared<Framework::Message>("m")), 0);
}
