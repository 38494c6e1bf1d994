// A bounded hand-over between two threads: the caller's thread produces items
// (parsing the file) while a second thread consumes them (decoding, converting,
// formatting, writing). Slots are reused, so the buffers inside items keep
// their capacity; each thread sleeps on a condition while it must wait, and
// the two wake each other only per batch of items, not per item.
//
// `put` hands over the item's contents (the caller gets an old item back whose
// buffers it may reuse). A failure of the consumer is raised by the next `put`
// and by `finish`, which waits for every item to be consumed. Destroying an
// unfinished pipe stops its thread after the items already handed over.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace ksieve::spexor {

template <typename Item>
class Pipe {
  public:
    explicit Pipe(std::function<void(Item&)> consume)
        : m_consume(std::move(consume)), m_slots(kSlots), m_thread([this] { run(); }) {}

    ~Pipe() { close(); }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    void put(Item& item) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_count < kSlots || m_failure; });
        if (m_failure) {
            std::rethrow_exception(m_failure);
        }
        std::swap(m_slots[(m_first + m_count) % kSlots], item);
        if (++m_count == kBatch) {
            lock.unlock();
            m_changed.notify_all();
        }
    }

    void finish() {
        close();
        if (m_failure) {
            std::rethrow_exception(m_failure);
        }
    }

  private:
    static constexpr std::size_t kSlots = 64;
    static constexpr std::size_t kBatch = 16;

    void close() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_closed = true;
        }
        m_changed.notify_all();
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }

    void run() {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (!m_failure) {
            if (m_count == 0) {
                m_changed.wait(lock, [this] { return m_count >= kBatch || m_closed; });
                if (m_count == 0) {
                    return;
                }
            }
            Item& item = m_slots[m_first];
            lock.unlock();
            // The producer never touches a filled slot, so it is used unlocked.
            std::exception_ptr failure;
            try {
                m_consume(item);
            } catch (...) {
                failure = std::current_exception();
            }
            lock.lock();
            m_failure = failure;
            m_first = (m_first + 1) % kSlots;
            if (--m_count == kSlots / 2 || m_failure) {
                m_changed.notify_all();  // a producer waiting on full slots goes on
            }
        }
    }

    std::function<void(Item&)> m_consume;
    std::vector<Item> m_slots;
    std::size_t m_first = 0;
    std::size_t m_count = 0;
    bool m_closed = false;
    std::exception_ptr m_failure;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::thread m_thread;  // last: starts once everything above exists
};

}  // namespace ksieve::spexor
