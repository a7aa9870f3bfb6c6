// Messages per second from N producer threads to one consumer, through
// SDK::LocklessQueue (as a task's inbound queue: capacity 1024, slots cleared
// on dequeue, one consumer taking up to 128 at a time) and through a bounded
// std::mutex + std::deque queue with the same interface, in the same run.
// Each message is a freshly allocated object held by std::shared_ptr, as
// Framework::Task::SendDirectMsg does.

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "sdk/LocklessQueue.h"

namespace {

// Stands in for Framework::Message: polymorphic, a few fields.
class Payload {
public:
    explicit Payload(int seq) : m_seq(seq) {}
    virtual ~Payload() = default;
    int Seq() const { return m_seq; }

private:
    int m_seq;
    std::string m_target = "data_comm_report_task";
};

using Item = std::shared_ptr<Payload>;

constexpr unsigned int kCapacity = 1024;
constexpr int kConsumerBatch = 128;
constexpr int kMessagesPerIteration = 1 << 16;

// Bounded, says "full" instead of blocking, like the lock-free queue.
class MutexQueue {
public:
    explicit MutexQueue(unsigned int capacity) : m_capacity(capacity) {}

    int Enqueue(const Item& item)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_items.size() >= m_capacity) {
            return 0;
        }
        m_items.push_back(item);
        return 1;
    }

    int DequeueBulk(std::vector<Item>& out, int maxCount)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        int n = 0;
        while (n < maxCount && !m_items.empty()) {
            out.push_back(std::move(m_items.front()));
            m_items.pop_front();
            ++n;
        }
        return n;
    }

private:
    std::mutex m_mutex;
    std::deque<Item> m_items;
    unsigned int m_capacity;
};

// As a task's inbound queue: the task's thread is the only consumer.
struct LockFree {
    LockFree() : q(kCapacity, true, false, true) {}
    int Enqueue(const Item& item) { return q.Enqueue(item); }
    int DequeueBulk(std::vector<Item>& out, int maxCount) { return q.DequeueBulk(out, maxCount); }
    SDK::LocklessQueue<Item> q;
};

// The same ring with the consumer side also claiming by compare-and-swap.
struct LockFreeMultiConsumer {
    LockFreeMultiConsumer() : q(kCapacity, true, false, false) {}
    int Enqueue(const Item& item) { return q.Enqueue(item); }
    int DequeueBulk(std::vector<Item>& out, int maxCount) { return q.DequeueBulk(out, maxCount); }
    SDK::LocklessQueue<Item> q;
};

struct Locked {
    Locked() : q(kCapacity) {}
    int Enqueue(const Item& item) { return q.Enqueue(item); }
    int DequeueBulk(std::vector<Item>& out, int maxCount) { return q.DequeueBulk(out, maxCount); }
    MutexQueue q;
};

// One iteration moves kMessagesPerIteration messages from `producers`
// threads to the benchmark thread, which consumes them.
template <typename Queue>
void ProducersToOneConsumer(benchmark::State& state)
{
    const int producers = static_cast<int>(state.range(0));
    const int perProducer = kMessagesPerIteration / producers;
    const int total = perProducer * producers;
    long long fullRetries = 0;
    for (auto _ : state) {
        Queue queue;
        std::atomic<bool> go{false};
        std::atomic<long long> retries{0};
        std::vector<std::thread> threads;
        for (int p = 0; p < producers; ++p) {
            threads.emplace_back([&, p] {
                while (!go.load(std::memory_order_acquire)) {
                    std::this_thread::yield();
                }
                long long full = 0;
                for (int i = 0; i < perProducer; ++i) {
                    Item msg = std::make_shared<Payload>(p * perProducer + i);
                    while (queue.Enqueue(msg) == 0) {
                        ++full;
                        std::this_thread::yield();
                    }
                }
                retries.fetch_add(full);
            });
        }
        std::vector<Item> out;
        out.reserve(kConsumerBatch);
        long long checksum = 0;
        int consumed = 0;
        go.store(true, std::memory_order_release);
        while (consumed < total) {
            out.clear();
            const int got = queue.DequeueBulk(out, kConsumerBatch);
            if (got == 0) {
                std::this_thread::yield();
                continue;
            }
            for (const Item& msg : out) {
                checksum += msg->Seq();
            }
            consumed += got;
        }
        benchmark::DoNotOptimize(checksum);
        for (auto& t : threads) {
            t.join();
        }
        fullRetries += retries.load();
    }
    state.SetItemsProcessed(state.iterations() * total);
    state.counters["full_retries_per_iter"] =
        benchmark::Counter(static_cast<double>(fullRetries) / static_cast<double>(state.iterations()));
}

// No contention: one thread enqueues and dequeues one message.
template <typename Queue>
void Uncontended(benchmark::State& state)
{
    Queue queue;
    std::vector<Item> out;
    out.reserve(1);
    Item msg = std::make_shared<Payload>(1);
    for (auto _ : state) {
        queue.Enqueue(msg);
        out.clear();
        queue.DequeueBulk(out, 1);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations());
}

}  // namespace

// Shared machines are noisy: five repetitions each, reported as mean,
// median and spread; compare medians.
void Repeated(benchmark::internal::Benchmark* b)
{
    b->Repetitions(5)->ReportAggregatesOnly(true);
}

void Contended(benchmark::internal::Benchmark* b)
{
    b->Arg(1)->Arg(2)->Arg(4)->UseRealTime()->Unit(benchmark::kMillisecond)->Apply(Repeated);
}

BENCHMARK_TEMPLATE(ProducersToOneConsumer, LockFree)->Apply(Contended);
BENCHMARK_TEMPLATE(ProducersToOneConsumer, LockFreeMultiConsumer)->Apply(Contended);
BENCHMARK_TEMPLATE(ProducersToOneConsumer, Locked)->Apply(Contended);
BENCHMARK_TEMPLATE(Uncontended, LockFree)->Apply(Repeated);
BENCHMARK_TEMPLATE(Uncontended, Locked)->Apply(Repeated);

BENCHMARK_MAIN();
