// The ordered ring: items read one at a time on the calling thread, worked on by
// any of a fixed number of threads, and written on the calling thread in the
// order they were read.
//
// Items live in a ring of slots that the caller owns; sequence number n lives in
// slot n % slots. A slot belongs to the calling thread until it is handed over,
// to one thread from its claim until it is marked done, and to the calling
// thread again from then on; the hand-overs go through the ring's mutex. The
// calling thread reads up to a full ring ahead, and while it waits for the
// oldest item it works on items nobody has claimed yet, so its core is not idle.
#pragma once

#include <cstddef>
#include <functional>

namespace ksieve {

struct RingSteps {
    // Fills `slot` with the next item; false at the end of the input. Runs on
    // the calling thread only.
    std::function<bool(std::size_t slot)> read;
    // Works on the item in `slot`. Runs on any thread, `worker` (below the
    // thread count; 0 is the calling thread) naming the thread's own scratch;
    // it must touch nothing but the slot, that scratch and read-only data.
    std::function<void(std::size_t slot, std::size_t worker)> work;
    // Takes the finished item in `slot`, in read order, on the calling thread.
    std::function<void(std::size_t slot)> write;
};

// Runs `steps` over every item on `threads` threads (the caller and threads - 1
// more, at least 1) with a ring of `slots` slots (at least 1). With one slot each
// item is read, worked on and written before the next is read.
//
// What `work` throws travels with its item and is raised here in place of
// writing it, after every item before it was written; what `read` or `write`
// throws is raised at once. Either way every extra thread has stopped and been
// joined before the exception leaves.
void run_ordered_ring(std::size_t threads, std::size_t slots, const RingSteps& steps);

}  // namespace ksieve
