#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "sdk/LocklessQueue.h"

using SDK::LocklessQueue;

namespace {

std::vector<int> Range(int from, int to)
{
    std::vector<int> v;
    for (int i = from; i < to; ++i) {
        v.push_back(i);
    }
    return v;
}

std::vector<int> DrainAll(LocklessQueue<int>& q)
{
    std::vector<int> out;
    q.DequeueBulk(out, -1);
    return out;
}

}  // namespace

TEST(LocklessQueue, HoldsMessagesOnlyWhileQueuedAndNeverWhenNotSetUp)
{
    for (auto* q : {new LocklessQueue<std::shared_ptr<int>>(),
                    new LocklessQueue<std::shared_ptr<int>>(0)}) {
        auto item = std::make_shared<int>(1);
        std::vector<std::shared_ptr<int>> items{item, item};
        std::vector<std::shared_ptr<int>> out;
        std::shared_ptr<int> one = item;
        EXPECT_EQ(0, q->Enqueue(item));
        EXPECT_EQ(0, q->EnqueueBulk(items, 2));
        EXPECT_EQ(0, q->Dequeue(one));
        EXPECT_EQ(0, q->DequeueBulk(out, -1));
        EXPECT_EQ(item, one);
        EXPECT_TRUE(out.empty());
        EXPECT_EQ(0u, q->Capacity());
        EXPECT_EQ(4, item.use_count()) << "nothing kept by the queue";
        delete q;
    }

    // A task's queue lets go of a message as it hands it out.
    LocklessQueue<std::shared_ptr<int>> q(4, true);
    auto msg = std::make_shared<int>(1);
    std::weak_ptr<int> watch = msg;
    ASSERT_EQ(1, q.Enqueue(msg));
    EXPECT_EQ(2, msg.use_count());
    msg.reset();
    std::shared_ptr<int> out;
    ASSERT_EQ(1, q.Dequeue(out));
    EXPECT_EQ(1, out.use_count()) << "the slot let go at once";
    out.reset();
    EXPECT_TRUE(watch.expired());
}

// Capacity is what was asked for, the ring the next power of two; bulk
// calls store what fits, in order, and copies split at the ring's end.
TEST(LocklessQueue, FillEmptyBulkAndSplitCopies)
{
    LocklessQueue<int> q(5);
    EXPECT_EQ(8u, q.RingSize());
    EXPECT_EQ(1u, LocklessQueue<int>(1).RingSize());
    int out = -7;
    EXPECT_EQ(0, q.Dequeue(out));
    EXPECT_EQ(-7, out) << "untouched when empty";
    ASSERT_EQ(5, q.EnqueueBulk(Range(0, 5), 5));
    EXPECT_EQ(0, q.Enqueue(99)) << "full at capacity, not at ring size";
    ASSERT_EQ(1, q.Dequeue(out));
    EXPECT_EQ(0, out);
    EXPECT_EQ(1, q.Enqueue(5));
    EXPECT_EQ(Range(1, 6), DrainAll(q)) << "the refused 99 was not stored";

    LocklessQueue<int> r(8);
    ASSERT_EQ(5, r.EnqueueBulk(Range(0, 5), 5));
    // Five offered, room for three: the first three are stored, in order.
    EXPECT_EQ(3, r.EnqueueBulk(Range(100, 105), 1)) << "count is ignored: the vector is offered";
    EXPECT_EQ(0, r.EnqueueBulk(Range(200, 201), 1));
    std::vector<int> got{-1};
    EXPECT_EQ(2, r.DequeueBulk(got, 2));
    EXPECT_EQ((std::vector<int>{-1, 0, 1}), got) << "appended to what was there";
    EXPECT_EQ((std::vector<int>{2, 3, 4, 100, 101, 102}), DrainAll(r));

    // Eight in and out: back at slot 0. Move to slot 6, then write five
    // items: slots 6, 7, 0, 1, 2.
    ASSERT_EQ(6, r.EnqueueBulk(Range(0, 6), 6));
    ASSERT_EQ(Range(0, 6), DrainAll(r));
    ASSERT_EQ(5, r.EnqueueBulk(Range(10, 15), 5));
    std::vector<int> part;
    ASSERT_EQ(3, r.DequeueBulk(part, 3));  // 6, 7, 0: a split read
    EXPECT_EQ(Range(10, 13), part);
    ASSERT_EQ(5, r.EnqueueBulk(Range(15, 20), 5));  // slots 3..7: exactly to the end
    ASSERT_EQ(1, r.Enqueue(20));                    // slot 0 again
    EXPECT_EQ(Range(13, 21), DrainAll(r));
}

TEST(LocklessQueue, PositionsWrapPast32Bits)
{
    for (unsigned int start : {0xFFFFFFFFu - 2, 0xFFFFFFF0u, 0x7FFFFFFEu}) {
        LocklessQueue<int> q(4, start, true);
        int next = 0;
        int expected = 0;
        for (int round = 0; round < 40; ++round) {
            std::vector<int> batch = Range(next, next + 3);
            const int stored = q.EnqueueBulk(batch, 3);
            next += stored;
            EXPECT_LE(q.Size(), 4u);
            std::vector<int> out;
            q.DequeueBulk(out, round % 3 + 1);
            for (int v : out) {
                ASSERT_EQ(expected++, v) << "start " << start << " round " << round;
            }
        }
        for (int v : DrainAll(q)) {
            ASSERT_EQ(expected++, v);
        }
        EXPECT_EQ(next, expected);
        EXPECT_GT(next, 40) << "the positions went past the wrap";
        // Full and empty are still recognised after the wrap.
        EXPECT_EQ(4, q.EnqueueBulk(Range(0, 6), 6));
        EXPECT_EQ(0, q.Enqueue(1));
        EXPECT_EQ(4u, DrainAll(q).size());
        int out = 0;
        EXPECT_EQ(0, q.Dequeue(out));
    }
}

// Every item is consumed exactly once, whatever the interleaving.
void RunStress(int producers, int consumers, bool singleProducer, bool singleConsumer)
{
    constexpr int kPerProducer = 20000;
    LocklessQueue<std::shared_ptr<int>> q(64, true, singleProducer, singleConsumer);
    const int total = producers * kPerProducer;
    std::vector<std::atomic<int>> seen(total);
    std::atomic<int> consumed{0};
    std::atomic<bool> orderBroken{false};

    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&, p] {
            int i = 0;
            while (i < kPerProducer) {
                if (i % 7 == 0) {
                    // A bulk of up to 5, partly stored when the ring is nearly full.
                    std::vector<std::shared_ptr<int>> batch;
                    for (int k = i; k < std::min(i + 5, kPerProducer); ++k) {
                        batch.push_back(std::make_shared<int>(p * kPerProducer + k));
                    }
                    i += q.EnqueueBulk(batch, static_cast<int>(batch.size()));
                } else if (q.Enqueue(std::make_shared<int>(p * kPerProducer + i)) == 1) {
                    ++i;
                } else {
                    std::this_thread::yield();
                }
            }
        });
    }
    for (int c = 0; c < consumers; ++c) {
        threads.emplace_back([&, c] {
            std::vector<int> lastOfProducer(producers, -1);
            std::vector<std::shared_ptr<int>> out;
            while (consumed.load() < total) {
                out.clear();
                int got = 0;
                if (c % 2 == 0) {
                    got = q.DequeueBulk(out, 16);
                } else {
                    std::shared_ptr<int> one;
                    got = q.Dequeue(one);
                    if (got == 1) {
                        out.push_back(one);
                    }
                }
                if (got == 0) {
                    std::this_thread::yield();
                    continue;
                }
                for (const auto& item : out) {
                    const int v = *item;
                    seen[v].fetch_add(1);
                    // Items of one producer leave in the order they went in.
                    const int producer = v / kPerProducer;
                    if (v <= lastOfProducer[producer]) {
                        orderBroken = true;
                    }
                    lastOfProducer[producer] = v;
                }
                consumed.fetch_add(got);
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(total, consumed.load());
    int lost = 0;
    int duplicated = 0;
    for (auto& s : seen) {
        lost += s.load() == 0;
        duplicated += s.load() > 1;
    }
    EXPECT_EQ(0, lost);
    EXPECT_EQ(0, duplicated);
    EXPECT_FALSE(orderBroken.load());
    EXPECT_EQ(0u, q.Size());
}

TEST(LocklessQueue, StressEveryMixOfProducersAndConsumers)
{
    struct Case {
        int producers;
        int consumers;
    };
    for (const Case& c : {Case{4, 3}, Case{3, 1}, Case{1, 3}, Case{1, 1}}) {
        SCOPED_TRACE(std::to_string(c.producers) + " producers, " + std::to_string(c.consumers) +
                     " consumers");
        RunStress(c.producers, c.consumers, c.producers == 1, c.consumers == 1);
    }
}
