// Tasks on real threads: the three types, schedules, message handling,
// delivery failures and the policy lifetime under concurrent replacement.

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "framework/Engine.h"
#include "framework/Task.h"
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
        if (type4Loop) {
            while (!IsCancelling()) {
                GetEventWaiter().WaitAndHandleEvent(1000, 16);
            }
        } else if (sleepMs > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(sleepMs));
        }
        --concurrent;
        return 0;
    }
    std::atomic<int> runs{0};
    std::atomic<int> concurrent{0};
    std::atomic<int> maxConcurrent{0};
    std::atomic<bool> type4Loop{false};
    int sleepMs = 0;
    std::thread::id runner;
    std::thread::id initThread;
    std::atomic<int> inits{0};
    std::atomic<int> uninits{0};
};

// A message that records its own destruction and can throw when handled.
class ProbeMessage : public Framework::Message {
public:
    ProbeMessage(std::atomic<int>* destroyed, std::atomic<int>* handled, bool throws)
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

}  // namespace

TEST(Task, EachTypeRunsAsItsTypeSays)
{
    TestSupport::TestEngine env;
    auto& engine = env.engine();
    Poco::AutoPtr<CountingTask> resident(new CountingTask("resident", TaskCondition::TASK_TYPE_RESIDENT));
    resident->type4Loop = true;
    Poco::AutoPtr<CountingTask> ondemand(new CountingTask("ondemand", TaskCondition::TASK_TYPE_ONDEMAND));
    Poco::AutoPtr<CountingTask> scheduled(new CountingTask("scheduled", TaskCondition::TASK_TYPE_SCHEDULED));

    ASSERT_EQ(engine.RegisterTask(resident.get(), nullptr), 0);
    ASSERT_EQ(engine.RegisterTask(ondemand.get(), nullptr), 0);
    ASSERT_EQ(engine.RegisterTask(scheduled.get(), nullptr), 0);
    EXPECT_EQ(engine.RegisterTask(resident.get(), nullptr), -1) << "a name is registered once";

    ASSERT_TRUE(WaitFor([&] { return resident->runs.load() == 1; }));
    EXPECT_NE(resident->runner, std::this_thread::get_id());
    EXPECT_EQ(resident->inits.load(), 1);
    EXPECT_EQ(resident->initThread, resident->runner) << "Init runs on the task's own thread";
    EXPECT_EQ(ondemand->inits.load(), 1);

    // Without a schedule a scheduled task waits; with one it fires.
    TaskCondition every1s(TaskCondition::TASK_TYPE_SCHEDULED);
    ASSERT_TRUE(every1s.Parse(R"({"type":"interval","interval_s":1,"delay_s":0})"));
    EXPECT_EQ(scheduled->runs.load(), 0);
    scheduled->SetCondition(every1s);
    EXPECT_TRUE(WaitFor([&] { return scheduled->runs.load() >= 2; }, 5000));

    // Cancelling a resident task blocked in a 1 s wait ends it promptly.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(engine.UnRegisterTask("resident"), 1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
    EXPECT_EQ(resident->GetState(), Poco::Task::TASK_FINISHED);
    EXPECT_EQ(engine.UnRegisterTask("resident"), 0);
    EXPECT_EQ(resident->uninits.load(), 1);

    EXPECT_EQ(engine.UnRegisterTask("scheduled"), 1);
    EXPECT_EQ(engine.UnRegisterTask("ondemand"), 1);
    EXPECT_EQ(ondemand->runs.load(), 0) << "the framework never runs an on-demand task";
    EXPECT_EQ(ondemand->uninits.load(), 1);

    // The same object can be registered again after it was stopped.
    resident->runs = 0;
    ASSERT_EQ(engine.RegisterTask(resident.get(), nullptr), 0);
    EXPECT_TRUE(WaitFor([&] { return resident->runs.load() == 1; }));
    EXPECT_EQ(engine.UnRegisterTask("resident"), 1);
}

TEST(Task, ScheduledRunsNeverOverlap)
{
    TestSupport::TestEngine env;
    Poco::AutoPtr<CountingTask> slow(new CountingTask("slow", TaskCondition::TASK_TYPE_SCHEDULED));
    slow->sleepMs = 1500;  // longer than the interval: fires coalesce
    TaskCondition every1s(TaskCondition::TASK_TYPE_SCHEDULED);
    ASSERT_TRUE(every1s.Parse(R"({"type":"interval","interval_s":1})"));
    slow->SetCondition(every1s);
    ASSERT_EQ(env.engine().RegisterTask(slow.get(), nullptr), 0);
    ASSERT_TRUE(WaitFor([&] { return slow->runs.load() >= 2; }, 8000));
    env.engine().UnRegisterTask("slow");
    EXPECT_EQ(slow->maxConcurrent.load(), 1);
}

TEST(Task, WaitAndHandleEventHandlesAtMostMaxEventsAndSurvivesThrowingHandlers)
{
    Poco::AutoPtr<CountingTask> task(new CountingTask("queue", TaskCondition::TASK_TYPE_ONDEMAND, 16));
    std::atomic<int> destroyed{0};
    std::atomic<int> handled{0};
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
}

TEST(Task, UndeliverableMessagesAreFreedAndReported)
{
    TestSupport::TestEngine env;
    std::atomic<int> destroyed{0};
    std::atomic<int> handled{0};
    Poco::AutoPtr<CountingTask> sender(new CountingTask("sender", TaskCondition::TASK_TYPE_ONDEMAND));
    EXPECT_FALSE(sender->SendDirectMsg("no_such_task", new ProbeMessage(&destroyed, &handled, false)));
    EXPECT_EQ(destroyed.load(), 1);

    // A full queue refuses and frees.
    Poco::AutoPtr<CountingTask> small(new CountingTask("small", TaskCondition::TASK_TYPE_ONDEMAND, 2));
    ASSERT_EQ(env.engine().RegisterTask(small.get(), nullptr), 0);
    EXPECT_TRUE(sender->SendDirectMsg("small", new ProbeMessage(&destroyed, &handled, false)));
    EXPECT_TRUE(sender->SendDirectMsg("small", new ProbeMessage(&destroyed, &handled, false)));
    EXPECT_FALSE(sender->SendDirectMsg("small", new ProbeMessage(&destroyed, &handled, false)));
    EXPECT_EQ(destroyed.load(), 2);
    EXPECT_EQ(small->DroppedMessages(), 1u);

    // Delivery by pointer refuses a task object that is gone.
    auto* gone = new CountingTask("gone", TaskCondition::TASK_TYPE_ONDEMAND);
    gone->release();
    EXPECT_FALSE(sender->SendMsgToTask(gone, new ProbeMessage(&destroyed, &handled, false)));
    EXPECT_EQ(destroyed.load(), 3);
    env.engine().UnRegisterTask("small");
}

TEST(Task, ConsumerTableAddsOnceAndRemoves)
{
    Poco::AutoPtr<CountingTask> producer(new CountingTask("producer", TaskCondition::TASK_TYPE_ONDEMAND));
    Poco::AutoPtr<CountingTask> a(new CountingTask("a", TaskCondition::TASK_TYPE_ONDEMAND));
    Poco::AutoPtr<CountingTask> b(new CountingTask("b", TaskCondition::TASK_TYPE_ONDEMAND));
    EXPECT_EQ(producer->AddConsumer(0, "", a.get()), 1);
    EXPECT_EQ(producer->AddConsumer(0, "", a.get()), 1);
    EXPECT_EQ(producer->AddConsumer(0, "", b.get()), 2);
    EXPECT_EQ(producer->AddConsumer(4, "", a.get()), 1);
    EXPECT_EQ(producer->GetConsumers(0).size(), 2u);
    EXPECT_EQ(producer->DelConsumer(0, "", a.get()), 1);
    EXPECT_EQ(producer->DelConsumer(0, "", a.get()), 0);
    ASSERT_EQ(producer->GetConsumers(0).size(), 1u);
    EXPECT_EQ(producer->GetConsumers(0)[0], b.get());
    EXPECT_EQ(producer->GetConsumers(4).size(), 1u);
}

TEST(Task, ManyProducersOneConsumerLoseNothing)
{
    TestSupport::TestEngine env;
    Poco::AutoPtr<TestSupport::CaptureTask> sink(new TestSupport::CaptureTask("sink", 1024));
    ASSERT_EQ(env.engine().RegisterTask(sink.get(), nullptr), 0);
    const int kThreads = 4;
    const int kEach = 2000;
    std::vector<std::thread> producers;
    std::atomic<int> sent{0};
    for (int t = 0; t < kThreads; ++t) {
        producers.emplace_back([&] {
            for (int i = 0; i < kEach; ++i) {
                // Retry on a full queue, as a service would.
                while (!env.engine().SendDirectMsg("sink", new Framework::Message("m"))) {
                    std::this_thread::yield();
                }
                ++sent;
            }
        });
    }
    for (auto& p : producers) {
        p.join();
    }
    EXPECT_TRUE(sink->WaitForCount(kThreads * kEach, 20000));
    EXPECT_EQ(sink->Count(), static_cast<size_t>(kThreads * kEach));
    env.engine().UnRegisterTask("sink");
}

TEST(Task, ReplacedPolicyStaysAliveWhileTheTaskReadsIt)
{
    TestSupport::TestEngine env;
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
