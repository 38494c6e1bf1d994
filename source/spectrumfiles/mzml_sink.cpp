// The mzML's bytes on their way to the file: gathered a mebibyte at a time, then
// hashed for the closing checksum and written, in order, on a thread of their
// own while the pipeline goes on.
#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "mzml_writer.h"
#include "utils.h"

namespace ksieve {

namespace {

// Spectra of a few kilobytes each go out in writes of a mebibyte.
constexpr std::size_t kChunkBytes = std::size_t{1} << 20;
// Chunks handed over and not yet written: enough to ride out a slow write and
// the input pair's digests before the first write (some 80 ms for 80 MB, while
// the pipeline makes about 8 MiB), few enough that memory stays flat.
constexpr std::size_t kChunksInFlight = 8;

// Puts the prelude's text over the placeholders that lie in `chunk`, the
// file's bytes from sink.m_written on.
void patch(MzmlSink& sink, std::string& chunk) {
    const int64_t start = sink.m_written;
    const int64_t end = start + static_cast<int64_t>(chunk.size());
    for (const auto& [offset, text] : sink.m_prelude.m_patches) {
        const int64_t from = std::max(offset, start);
        const int64_t to = std::min(offset + static_cast<int64_t>(text.size()), end);
        if (from < to) {
            chunk.replace(
                static_cast<std::size_t>(from - start), static_cast<std::size_t>(to - from), text,
                static_cast<std::size_t>(from - offset), static_cast<std::size_t>(to - from));
        }
    }
}

void hash_and_write(MzmlSink& sink, std::string& chunk) {
    patch(sink, chunk);
    sink.m_written += static_cast<int64_t>(chunk.size());
    if (sink.m_hashing) {
        sink.m_sha1.update(reinterpret_cast<const unsigned char*>(chunk.data()), chunk.size());
    }
    check_written(std::fwrite(chunk.data(), 1, chunk.size(), sink.m_stream) == chunk.size(),
                  sink.m_path);
}

}  // namespace

struct MzmlSinkThread {
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<std::string> m_full;  // handed over, the front being written
    std::vector<std::string> m_free;
    std::exception_ptr m_error;  // the first failed write; later chunks are dropped
    bool m_stop = false;
    std::function<MzmlPrelude()> m_prelude;  // run before the first chunk
    std::thread m_thread;
};

namespace {

void take_prelude(MzmlSink& sink, const std::function<MzmlPrelude()>& prelude) {
    if (prelude) {
        sink.m_prelude = prelude();
    }
    sink.m_hashing = sink.m_prelude.m_expected >= 0;
}

void write_handed_over(MzmlSink& sink) {
    MzmlSinkThread& worker = *sink.m_thread;
    try {
        take_prelude(sink, worker.m_prelude);
    } catch (...) {
        const std::lock_guard lock(worker.m_mutex);
        worker.m_error = std::current_exception();
    }
    std::unique_lock lock(worker.m_mutex);
    while (true) {
        worker.m_changed.wait(lock, [&] { return worker.m_stop || !worker.m_full.empty(); });
        if (worker.m_stop) {
            return;
        }
        // The front stays put while unlocked: the deque only grows at its back.
        std::string& chunk = worker.m_full.front();
        const bool failed = worker.m_error != nullptr;
        lock.unlock();
        std::exception_ptr error;
        if (!failed) {
            try {
                hash_and_write(sink, chunk);
            } catch (...) {
                error = std::current_exception();
            }
        }
        lock.lock();
        if (error) {
            worker.m_error = error;
        }
        chunk.clear();
        worker.m_free.push_back(std::move(chunk));
        worker.m_full.pop_front();
        worker.m_changed.notify_all();
    }
}

void throw_failure(MzmlSinkThread& worker) {
    if (worker.m_error) {
        std::rethrow_exception(worker.m_error);
    }
}

// Passes the gathered bytes on; waits while too many are on their way and
// raises the failure of any written before.
void hand_over(MzmlSink& sink) {
    MzmlSinkThread& worker = *sink.m_thread;
    std::unique_lock lock(worker.m_mutex);
    worker.m_changed.wait(lock, [&] { return worker.m_full.size() < kChunksInFlight; });
    throw_failure(worker);
    worker.m_full.push_back(std::move(sink.m_gathering));
    sink.m_gathering.clear();
    if (!worker.m_free.empty()) {
        sink.m_gathering = std::move(worker.m_free.back());
        worker.m_free.pop_back();
    }
    worker.m_changed.notify_all();
}

}  // namespace

MzmlSink::MzmlSink() = default;

MzmlSink::~MzmlSink() {
    if (!m_thread) {
        return;
    }
    {
        const std::lock_guard lock(m_thread->m_mutex);
        m_thread->m_stop = true;
        m_thread->m_changed.notify_all();
    }
    m_thread->m_thread.join();
}

void start_sink(MzmlSink& sink, std::FILE* stream, const std::string& path,
                std::function<MzmlPrelude()> prelude) {
    sink.m_stream = stream;
    sink.m_path = path;
    sink.m_gathering.reserve(kChunkBytes);
    sink.m_thread = std::make_unique<MzmlSinkThread>();
    sink.m_thread->m_prelude = std::move(prelude);
    sink.m_thread->m_thread = std::thread(write_handed_over, std::ref(sink));
}

void sink_write(MzmlSink& sink, const char* data, std::size_t size) {
    sink.m_gathering.append(data, size);
    if (sink.m_gathering.size() >= kChunkBytes) {
        hand_over(sink);
    }
}

void drain_sink(MzmlSink& sink) {
    if (!sink.m_gathering.empty()) {
        hand_over(sink);
    }
    MzmlSinkThread& worker = *sink.m_thread;
    {
        std::unique_lock lock(worker.m_mutex);
        worker.m_changed.wait(lock, [&] { return worker.m_full.empty(); });
        throw_failure(worker);
    }
    check_written(std::fflush(sink.m_stream) == 0, sink.m_path);
}

std::string sink_digest(MzmlSink& sink) {
    drain_sink(sink);
    sink.m_hashing = false;
    return sink.m_sha1.hex_digest();
}

}  // namespace ksieve
