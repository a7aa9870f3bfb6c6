#pragma once
// Bounded multi-producer / multi-consumer ring without locks.
//
// Producers claim slots by compare-and-swap on writeReserve, copy, then publish
// in claim order through writeCommit; consumers mirror that with readReserve and
// readCommit. Positions are free-running 32-bit counters: every distance is an
// unsigned difference, so the ring keeps working when they wrap past 2^32.
// The queue never blocks on empty or full: it returns 0 at once.

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define SDK_QUEUE_PAUSE() _mm_pause()
#elif defined(__aarch64__)
#define SDK_QUEUE_PAUSE() asm volatile("yield" ::: "memory")
#else
#define SDK_QUEUE_PAUSE() do { } while (0)
#endif

namespace SDK {

// A claimer that was preempted between its claim and its commit holds up
// everyone behind it. After this many pause hints a waiter also yields its
// core, so that on a machine with more threads than cores the stalled thread
// gets to run instead of the waiters burning whole time slices.
constexpr unsigned int kLocklessQueueSpinsBeforeYield = 1024;

inline void LocklessQueueBackoff(unsigned int& spins)
{
    SDK_QUEUE_PAUSE();
    if (++spins >= kLocklessQueueSpinsBeforeYield) {
        std::this_thread::yield();
    }
}

template <typename T>
class LocklessQueue {
public:
    // A queue that was never set up: every operation returns 0.
    LocklessQueue() = default;

    // capacity = size; ringSize = the smallest power of two >= size.
    // size 0 leaves the queue not set up.
    explicit LocklessQueue(unsigned int size, bool clearOnDequeue = true,
                           bool singleProducer = false, bool singleConsumer = false)
        : singleProducer(singleProducer), singleConsumer(singleConsumer),
          clearOnDequeue(clearOnDequeue)
    {
        if (size == 0 || size > (1u << 31)) {
            return;
        }
        unsigned int ring_size = 1;
        while (ring_size < size) {
            ring_size <<= 1;
        }
        ringSize = ring_size;
        mask = ring_size - 1;
        capacity = size;
        ring = new T[ringSize];
    }

    // Starts all four positions at `start` (tests use it to cross the 2^32 wrap).
    LocklessQueue(unsigned int size, unsigned int start, bool clearOnDequeue)
        : LocklessQueue(size, clearOnDequeue)
    {
        writeReserve.store(start, std::memory_order_relaxed);
        writeCommit.store(start, std::memory_order_relaxed);
        readReserve.store(start, std::memory_order_relaxed);
        readCommit.store(start, std::memory_order_relaxed);
    }

    LocklessQueue(const LocklessQueue&) = delete;
    LocklessQueue& operator=(const LocklessQueue&) = delete;

    virtual ~LocklessQueue()
    {
        if (ring != nullptr) {
            for (unsigned int i = ringSize; i > 0; --i) {
                ring[i - 1] = T();
            }
            delete[] ring;
            ring = nullptr;
        }
    }

    virtual int Enqueue(const T& item)
    {
        if (ring == nullptr) {
            return 0;
        }
        // reserve + push_back rather than vector(1, item): GCC 12 at -O3 gives
        // a false -Wfree-nonheap-object for the latter once this is inlined.
        std::vector<T> one;
        one.reserve(1);
        one.push_back(item);
        return EnqueueBulk(one, 1);
    }

    // Offers the whole vector; `count` is kept for the interface and not used.
    virtual int EnqueueBulk(const std::vector<T>& items, int count)
    {
        (void)count;
        if (ring == nullptr) {
            return 0;
        }
        const unsigned int wanted = static_cast<unsigned int>(items.size());
        unsigned int start = 0;
        unsigned int n = 0;
        for (;;) {
            // Acquire: the readCommit read below is then at least as new as the
            // one the claimer of `start` saw, so free_slots cannot wrap around.
            start = writeReserve.load(std::memory_order_acquire);
            const unsigned int free_slots =
                readCommit.load(std::memory_order_acquire) + capacity - start;
            if (free_slots > capacity) {
                continue;  // torn snapshot; read again
            }
            n = std::min(wanted, free_slots);
            if (n == 0) {
                return 0;
            }
            if (singleProducer) {
                writeReserve.store(start + n, std::memory_order_relaxed);
                break;
            }
            if (writeReserve.compare_exchange_weak(start, start + n, std::memory_order_seq_cst)) {
                break;
            }
        }
        _EnqueueElements(start, items, n);
        if (!singleProducer) {
            unsigned int spins = 0;
            while (writeCommit.load(std::memory_order_acquire) != start) {
                LocklessQueueBackoff(spins);
            }
        }
        writeCommit.store(start + n, std::memory_order_release);
        return static_cast<int>(n);
    }

    virtual int Dequeue(T& out)
    {
        if (ring == nullptr) {
            return 0;
        }
        std::vector<T> tmp;
        const int taken = DequeueBulk(tmp, 1);
        if (taken == 1) {
            out = tmp[0];
        }
        return taken;
    }

    // maxCount is compared as unsigned: a negative value takes all there is.
    virtual int DequeueBulk(std::vector<T>& out, int maxCount)
    {
        if (ring == nullptr) {
            return 0;
        }
        unsigned int start = 0;
        unsigned int n = 0;
        for (;;) {
            // Acquire, as in EnqueueBulk: writeCommit is read after readReserve,
            // so `available` cannot wrap around and hand out unpublished slots.
            start = readReserve.load(std::memory_order_acquire);
            const unsigned int available = writeCommit.load(std::memory_order_acquire) - start;
            if (available > capacity) {
                continue;  // torn snapshot; read again
            }
            n = std::min(static_cast<unsigned int>(maxCount), available);
            if (n == 0) {
                return 0;
            }
            if (singleConsumer) {
                readReserve.store(start + n, std::memory_order_relaxed);
                break;
            }
            if (readReserve.compare_exchange_weak(start, start + n, std::memory_order_seq_cst)) {
                break;
            }
        }
        _DequeueElements(start, out, n);
        if (!singleConsumer) {
            unsigned int spins = 0;
            while (readCommit.load(std::memory_order_acquire) != start) {
                LocklessQueueBackoff(spins);
            }
        }
        readCommit.store(start + n, std::memory_order_release);
        return static_cast<int>(n);
    }

    // Elements published and not yet claimed by a consumer (a snapshot).
    unsigned int Size() const
    {
        // readReserve first: it never passes writeCommit, so the difference
        // cannot wrap around however far consumers advance in between.
        const unsigned int read = readReserve.load(std::memory_order_acquire);
        const unsigned int written = writeCommit.load(std::memory_order_acquire);
        return std::min(written - read, capacity);
    }
    unsigned int Capacity() const { return capacity; }
    unsigned int RingSize() const { return ringSize; }

    void _EnqueueElements(unsigned int start, const std::vector<T>& items, unsigned int n)
    {
        const unsigned int pos = start & mask;
        if (pos + n < ringSize) {
            for (unsigned int i = 0; i < n; ++i) {
                ring[pos + i] = items[i];
            }
            return;
        }
        const unsigned int first = ringSize - pos;
        for (unsigned int i = 0; i < first; ++i) {
            ring[pos + i] = items[i];
        }
        for (unsigned int i = first; i < n; ++i) {
            ring[i - first] = items[i];
        }
    }

    void _DequeueElements(unsigned int start, std::vector<T>& out, unsigned int n)
    {
        const unsigned int pos = start & mask;
        const unsigned int first = (pos + n < ringSize) ? n : ringSize - pos;
        for (unsigned int i = 0; i < first; ++i) {
            TakeSlot(pos + i, out);
        }
        for (unsigned int i = first; i < n; ++i) {
            TakeSlot(i - first, out);
        }
    }

private:
    void TakeSlot(unsigned int slot, std::vector<T>& out)
    {
        out.push_back(ring[slot]);
        if (clearOnDequeue) {
            ring[slot] = T();
        }
    }

    std::atomic<uint32_t> writeReserve{0};
    std::atomic<uint32_t> writeCommit{0};
    std::atomic<uint32_t> readReserve{0};
    std::atomic<uint32_t> readCommit{0};
    bool singleProducer = false;
    bool singleConsumer = false;
    uint32_t ringSize = 0;
    uint32_t mask = 0;
    uint32_t capacity = 0;
    bool clearOnDequeue = true;
    T* ring = nullptr;
};

}  // namespace SDK
