// The ordered ring on its own: whatever the thread count and ring size, every
// item is worked on once, by a thread of the ring, and written in read order;
// a failing item stops the writing exactly where it stands.
#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ordered_ring.h"

namespace ksieve {
namespace {

struct Item {
    std::size_t number = 0;
    std::size_t result = 0;
};

struct RingRun {
    std::vector<std::size_t> written;  // item numbers, in the order written
    std::vector<std::size_t> results;  // what work made of each, in that order
    std::vector<int> worked;           // times each item was worked on
    std::size_t worst_worker = 0;      // highest worker index seen
    std::string thrown;
};

// `count` items; work turns item n into n * n + 1 (items of odd number yield
// first, so that later items overtake earlier ones) and fails on `failing`.
RingRun run_items(std::size_t threads, std::size_t slots, std::size_t count,
                  std::size_t failing = SIZE_MAX) {
    RingRun run;
    std::vector<Item> ring(slots);
    std::vector<std::atomic<int>> worked(count);
    std::atomic<std::size_t> worst{0};
    std::size_t next = 0;
    const RingSteps steps{
        [&](std::size_t slot) {
            if (next == count) {
                return false;
            }
            ring[slot] = Item{next++, 0};
            return true;
        },
        [&](std::size_t slot, std::size_t worker) {
            Item& item = ring[slot];
            ++worked[item.number];
            std::size_t seen = worst.load();
            while (worker > seen && !worst.compare_exchange_weak(seen, worker)) {
            }
            if (item.number % 2 == 1) {
                std::this_thread::yield();
            }
            if (item.number == failing) {
                throw std::runtime_error("item " + std::to_string(item.number) + " failed");
            }
            item.result = item.number * item.number + 1;
        },
        [&](std::size_t slot) {
            run.written.push_back(ring[slot].number);
            run.results.push_back(ring[slot].result);
        }};
    try {
        run_ordered_ring(threads, slots, steps);
    } catch (const std::runtime_error& error) {
        run.thrown = error.what();
    }
    for (const std::atomic<int>& times : worked) {
        run.worked.push_back(times.load());
    }
    run.worst_worker = worst.load();
    return run;
}

TEST(OrderedRing, EveryItemOnceInReadOrderForAnyThreadsAndRing) {
    constexpr std::size_t kCount = 500;
    for (const std::size_t threads : {1u, 2u, 3u, 8u}) {
        for (const std::size_t slots : {1u, 2u, 7u, 64u}) {
            const RingRun run = run_items(threads, slots, kCount);
            std::vector<std::size_t> numbers, squares;
            for (std::size_t n = 0; n < kCount; ++n) {
                numbers.push_back(n);
                squares.push_back(n * n + 1);
            }
            EXPECT_EQ(run.written, numbers) << threads << " threads, " << slots << " slots";
            EXPECT_EQ(run.results, squares) << threads << " threads, " << slots << " slots";
            EXPECT_EQ(run.worked, std::vector<int>(kCount, 1));
            EXPECT_LT(run.worst_worker, threads);
            EXPECT_EQ(run.thrown, "");
        }
    }
}

TEST(OrderedRing, NoItemsWritesNothing) {
    for (const std::size_t threads : {1u, 4u}) {
        const RingRun run = run_items(threads, 8, 0);
        EXPECT_TRUE(run.written.empty());
        EXPECT_EQ(run.thrown, "");
    }
}

// The failure is raised in the failing item's turn: everything before it is
// written, nothing from it on, on one thread as on many.
TEST(OrderedRing, AFailingItemEndsTheWritingInItsTurn) {
    for (const std::size_t threads : {1u, 3u}) {
        for (const std::size_t slots : {1u, 16u}) {
            const RingRun run = run_items(threads, slots, 100, 37);
            EXPECT_EQ(run.thrown, "item 37 failed") << threads << " threads, " << slots;
            ASSERT_EQ(run.written.size(), 37u) << threads << " threads, " << slots;
            EXPECT_EQ(run.written.back(), 36u);
            EXPECT_EQ(run.worked[37], 1);
        }
    }
}

// A reader that fails leaves through the ring once its threads have stopped,
// with what was read before it written.
TEST(OrderedRing, AFailingReadIsRaisedAfterTheThreadsStop) {
    for (const std::size_t threads : {1u, 4u}) {
        std::vector<std::size_t> ring(4), written;
        std::size_t next = 0;
        const RingSteps steps{[&](std::size_t slot) {
                                  if (next == 10) {
                                      throw std::runtime_error("cannot read item 10");
                                  }
                                  ring[slot] = next++;
                                  return true;
                              },
                              [&](std::size_t slot, std::size_t) { ring[slot] += 1000; },
                              [&](std::size_t slot) { written.push_back(ring[slot]); }};
        EXPECT_THROW(run_ordered_ring(threads, ring.size(), steps), std::runtime_error);
        ASSERT_LE(written.size(), 10u);
        for (std::size_t i = 0; i < written.size(); ++i) {
            EXPECT_EQ(written[i], 1000 + i);
        }
    }
}

}  // namespace
}  // namespace ksieve
