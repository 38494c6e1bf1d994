// The ordered ring that spreads the scans of one file over threads while the
// output keeps file order.
#include "ordered_ring.h"

#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

#include "utils.h"

namespace ksieve {

namespace {

// The state shared by the threads of one ring.
struct RingQueue {
    RingQueue(const RingSteps& ring_steps, std::size_t size)
        : steps(ring_steps), failures(size), done(size, 0) {}
    const RingSteps& steps;
    std::vector<std::exception_ptr> failures;  // by slot; owned as the slot is
    std::mutex mutex;
    std::condition_variable work_ready;  // an item to claim, or the end
    std::condition_variable work_done;
    std::vector<unsigned char> done;  // by slot; guarded by `mutex`
    std::size_t published = 0;        // guarded by `mutex`
    std::size_t claimed = 0;          // guarded by `mutex`
    bool stop = false;                // guarded by `mutex`
};

// Works on claimed item `sequence` and marks it done; a failure travels with it
// to the writer, which raises it in turn.
void run_claimed(RingQueue& queue, std::size_t worker, std::size_t sequence) {
    const std::size_t slot = sequence % queue.done.size();
    try {
        queue.steps.work(slot, worker);
    } catch (...) {
        queue.failures[slot] = std::current_exception();
    }
    {
        const std::lock_guard<std::mutex> lock(queue.mutex);
        queue.done[slot] = 1;
    }
    queue.work_done.notify_all();
}

void work_loop(RingQueue& queue, std::size_t worker) {
    while (true) {
        std::size_t sequence = 0;
        {
            std::unique_lock<std::mutex> lock(queue.mutex);
            queue.work_ready.wait(
                lock, [&queue] { return queue.stop || queue.claimed < queue.published; });
            if (queue.stop) {
                return;
            }
            sequence = queue.claimed++;
        }
        run_claimed(queue, worker, sequence);
    }
}

// The extra threads of one ring; leaving the scope stops and joins them, on
// failure too, before the queue they work on goes.
class Workers {
  public:
    Workers(RingQueue& queue, std::size_t count) : m_queue(queue) {
        for (std::size_t i = 1; i <= count; ++i) {
            m_threads.emplace_back(work_loop, std::ref(queue), i);
        }
    }
    ~Workers() {
        {
            const std::lock_guard<std::mutex> lock(m_queue.mutex);
            m_queue.stop = true;
        }
        m_queue.work_ready.notify_all();
        for (std::thread& thread : m_threads) {
            thread.join();
        }
    }
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;

  private:
    RingQueue& m_queue;
    std::vector<std::thread> m_threads;
};

void publish(RingQueue& queue, std::size_t sequence) {
    {
        const std::lock_guard<std::mutex> lock(queue.mutex);
        queue.done[sequence % queue.done.size()] = 0;
        ++queue.published;
    }
    queue.work_ready.notify_one();
}

// Waits until item `sequence` is done, working on items nobody has claimed yet
// meanwhile.
void wait_or_help(RingQueue& queue, std::size_t sequence) {
    std::unique_lock<std::mutex> lock(queue.mutex);
    while (queue.done[sequence % queue.done.size()] == 0) {
        if (queue.claimed < queue.published) {
            const std::size_t mine = queue.claimed++;
            lock.unlock();
            run_claimed(queue, 0, mine);
            lock.lock();
            continue;
        }
        queue.work_done.wait(lock);
    }
}

}  // namespace

void run_ordered_ring(std::size_t threads, std::size_t slots, const RingSteps& steps) {
    KS_ASSERT(threads > 0 && slots > 0, "threads > 0 && slots > 0");
    RingQueue queue(steps, slots);
    const Workers workers(queue, threads - 1);
    std::size_t read = 0;
    std::size_t written = 0;
    bool more = true;
    while (true) {
        while (more && read - written < slots) {
            const std::size_t slot = read % slots;
            queue.failures[slot] = nullptr;
            if (!steps.read(slot)) {
                more = false;
                break;
            }
            publish(queue, read++);
        }
        if (written == read) {
            break;
        }
        wait_or_help(queue, written);
        const std::size_t slot = written++ % slots;
        if (queue.failures[slot]) {
            std::rethrow_exception(queue.failures[slot]);
        }
        steps.write(slot);
    }
}

}  // namespace ksieve
