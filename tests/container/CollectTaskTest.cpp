// The "container_collect_task" on a real engine: subscriptions arrive as
// ContainerRegisterMessages, container events leave as ContainerMessages to
// capture tasks. (The agent loads libcontainer_module.so in tests/e2e.)

#include <algorithm>

#include <gtest/gtest.h>

#include <Poco/AutoPtr.h>

#include "ContainerCollectTask.h"
#include "FakeHost.h"
#include "container/ContainerMessage.h"
#include "message/AbstructMessage.h"
#include "testsupport/TestSupport.h"

using namespace ContainerTest;
using Container::ContainerCollectTask;
using TestSupport::CaptureTask;
using TestSupport::WaitFor;

namespace {

constexpr long kPollMs = 30;
const char* const kCollector = "container_collect_task";

std::vector<std::shared_ptr<Engine::ContainerMessage>> Events(CaptureTask& task)
{
    return task.MessagesOf<Engine::ContainerMessage>();
}

class CollectTaskTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_collector = new ContainerCollectTask(ContainerCollectTask::Options{m_host.Root(), kPollMs});
        ASSERT_EQ(Engine().RegisterTask(m_collector.get(), nullptr), 0);
    }

    void TearDown() override
    {
        for (const auto& name : Engine().GetTaskNames()) {
            Engine().UnRegisterTask(name);
        }
    }

    Framework::Engine& Engine() { return m_engine.engine(); }

    Poco::AutoPtr<CaptureTask> AddCapture(const std::string& name, unsigned int size = 1024)
    {
        Poco::AutoPtr<CaptureTask> task(new CaptureTask(name, size));
        EXPECT_EQ(Engine().RegisterTask(task.get(), nullptr), 0);
        return task;
    }

    void Subscribe(Framework::Task* task, bool subscribe)
    {
        ASSERT_TRUE(Engine().SendDirectMsg(
            kCollector, new Engine::ContainerRegisterMessage(task, subscribe, false)));
    }

    // Two whole polls after now, and everything they sent has been handled
    // by `task` (a marker sent afterwards arrives after them).
    void SettleTwoPolls(CaptureTask& task)
    {
        const uint64_t polls = m_collector->PollCount();
        ASSERT_TRUE(WaitFor([&] { return m_collector->PollCount() >= polls + 2; }));
        ASSERT_TRUE(Engine().SendDirectMsg(task.GetTaskName(), new Framework::Message("marker")));
        ASSERT_TRUE(WaitFor([&] {
            auto all = task.Messages();
            return !all.empty() && all.back()->GetName() == "marker";
        }));
    }

    FakeHost m_host;
    TestSupport::TestEngine m_engine;
    // After the engine, which sets every logger's channel when it is made;
    // the tasks that log into it are gone before it (TearDown).
    TestSupport::LogCapture m_log{"container_module"};
    Poco::AutoPtr<ContainerCollectTask> m_collector;
};

TEST_F(CollectTaskTest, LateSubscribersGetTheRunningSetAndUnsubscribingStopsEvents)
{
    const std::string web = HexId(2);
    const std::string gone = HexId(3);
    m_host.StartDocker(web, "/web1", 100);
    m_host.StartDocker(gone, "/old", 101);
    auto a = AddCapture("subscriber_a");
    auto b = AddCapture("subscriber_b");
    auto c = AddCapture("subscriber_c");
    Subscribe(a.get(), true);
    ASSERT_TRUE(WaitFor([&] { return Events(*a).size() == 2; }));
    m_host.StopProcess(101);
    ASSERT_TRUE(WaitFor([&] { return Events(*a).size() == 3; }));

    // b comes later: it gets what runs now, not the history.
    Subscribe(b.get(), true);
    ASSERT_TRUE(WaitFor([&] { return Events(*b).size() == 1; }));
    SettleTwoPolls(*b);
    ASSERT_EQ(Events(*b).size(), 1u);
    EXPECT_EQ(Events(*b)[0]->info->id, web);
    EXPECT_TRUE(Events(*b)[0]->info->running);

    // c was never subscribed: its unsubscription, handled before a's, changes nothing.
    Subscribe(c.get(), false);
    Subscribe(a.get(), false);
    ASSERT_TRUE(WaitFor([&] { return m_collector->SubscriberCount() == 1; }));
    const size_t aBefore = Events(*a).size();
    m_host.StopProcess(100);
    ASSERT_TRUE(WaitFor([&] { return Events(*b).size() == 2; }));
    EXPECT_FALSE(Events(*b)[1]->info->running);
    SettleTwoPolls(*a);
    EXPECT_EQ(Events(*a).size(), aBefore);
    EXPECT_TRUE(Events(*c).empty());
}

TEST_F(CollectTaskTest, EventsWaitForRoomAndVanishedSubscribersAreDropped)
{
    for (unsigned i = 0; i < 3; ++i) {
        m_host.StartDocker(HexId(10 + i), "/c" + std::to_string(i), 500 + i);
    }
    // A whole poll after the tree was written has seen all three.
    const uint64_t polls = m_collector->PollCount();
    ASSERT_TRUE(WaitFor([&] { return m_collector->PollCount() >= polls + 2; }));

    // Never registered, so nobody drains its queue of two: the third event
    // must wait, not be lost, and arrive after the first two.
    Poco::AutoPtr<CaptureTask> slow(new CaptureTask("slow_subscriber", 2));
    Subscribe(slow.get(), true);
    ASSERT_TRUE(WaitFor([&] { return slow->QueueDepth() == 2; }));
    EXPECT_EQ(slow->GetEventWaiter().HandlePending(10), 2);
    ASSERT_TRUE(WaitFor([&] { return slow->QueueDepth() == 1; }));
    EXPECT_EQ(slow->GetEventWaiter().HandlePending(10), 1);
    auto got = Events(*slow);
    std::vector<std::string> expected{HexId(10), HexId(11), HexId(12)};
    std::sort(expected.begin(), expected.end());  // the running set goes out in id order
    ASSERT_EQ(got.size(), 3u);
    for (unsigned i = 0; i < 3; ++i) {
        EXPECT_EQ(got[i]->info->id, expected[i]);
    }

    // A subscriber destroyed without unsubscribing: dropped at the next
    // event, never dereferenced.
    EXPECT_EQ(m_collector->SubscriberCount(), 1u);
    slow = nullptr;
    m_host.StopProcess(500);
    ASSERT_TRUE(WaitFor([&] { return m_collector->SubscriberCount() == 0; }));
    EXPECT_EQ(m_log.Count("no longer exists and never unsubscribed", Poco::Message::PRIO_INFORMATION), 1u);
}

}  // namespace
