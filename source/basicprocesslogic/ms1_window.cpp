// The MS1 window under its memory ceiling: which peak lists are held, which are
// let go, and reading a let-go list again from the `.ms1` file.
//
// Dense runs hold up to 100,000 peaks in each of the window's 5000 scans; only
// the ten scans around a parent are ever read, so old lists can wait on disk.
#include <algorithm>
#include <cstdio>
#include <string>

#include "detection.h"
#include "ms1_window.h"
#include "spectrumfiles.h"
#include "utils.h"

namespace ksieve {

namespace {

constexpr std::size_t kBytesPerMib = std::size_t{1} << 20;

std::size_t bytes_of(const MS1Spectrum& scan) {
    return scan.m_peaks.capacity() * sizeof(Peak);
}

bool can_let_go(const MS1Spectrum& scan) {
    return !scan.m_peaks.empty() && scan.m_source_offset >= 0;
}

}  // namespace

std::size_t ms1_ceiling_bytes(const UserParameters& params) {
    return static_cast<std::size_t>(params.m_memory_ceiling_mib) * kBytesPerMib;
}

void Ms1Window::add_held(const MS1Spectrum& scan) {
    m_held_bytes += bytes_of(scan);
    m_counts.m_most_held_bytes = std::max(m_counts.m_most_held_bytes, m_held_bytes);
}

void Ms1Window::let_go(MS1Spectrum& scan) {
    m_held_bytes -= bytes_of(scan);
    PeakList().swap(scan.m_peaks);
}

MS1Spectrum Ms1Window::take_front() {
    m_held_bytes -= bytes_of(m_store.front());
    MS1Spectrum front = std::move(m_store.front());
    m_store.pop_front();
    if (m_first_held > 0) {
        --m_first_held;
    }
    return front;
}

// Lets the oldest lists go until the window is within its ceiling.
void Ms1Window::enforce_ceiling() {
    while (m_held_bytes > m_ceiling_bytes && m_first_held < m_store.size()) {
        MS1Spectrum& scan = m_store[m_first_held++];
        if (can_let_go(scan)) {
            let_go(scan);
        }
    }
}

// The scan's peaks as the reader gave them the first time: same text, same
// reader, same order.
void Ms1Window::read_again(MS1Spectrum& scan) {
    SpectrumFile& head = m_reread.m_head;
    if (head.m_stream == nullptr) {
        head.m_path = m_path;
        head.m_stream = open_file(m_path, "r", "");
    }
    if (fseeko(head.m_stream, static_cast<off_t>(scan.m_source_offset), SEEK_SET) != 0) {
        throw "Cannot relocate to " + std::to_string(scan.m_source_offset) + " in " + m_path;
    }
    m_reread.m_line[0] = '\0';
    MS1Spectrum again;
    if (!ReadMs1Scan(m_reread, again) || again.m_scan != scan.m_scan) {
        throw "Cannot read scan " + std::to_string(scan.m_scan) + " again from " + m_path;
    }
    scan.m_peaks = std::move(again.m_peaks);
    ++m_counts.m_rereads;
    add_held(scan);
}

void Ms1Window::push(MS1Spectrum& scan) {
    KS_ASSERT(m_store.size() > 0, "ms1Store.size() > 0");
    MS1Spectrum leaving = take_front();
    add_held(scan);
    m_store.push_back(std::move(scan));
    scan = std::move(leaving);
    enforce_ceiling();
}

void Ms1Window::pop() {
    take_front();
}

std::pair<std::size_t, std::size_t> Ms1Window::hold(const MS2Spectrum& ms2) {
    const std::optional<SliceRange> range = FindSliceRange(m_store, ms2);
    if (!range) {
        return {0, 0};
    }
    for (std::size_t i = range->m_first; i < range->m_end; ++i) {
        MS1Spectrum& scan = m_store[i];
        if (scan.m_peaks.empty() && scan.m_source_offset >= 0) {
            read_again(scan);
        }
    }
    return {range->m_first, range->m_end};
}

bool Ms1Window::first_window_over_ceiling(std::pair<std::size_t, std::size_t> range) {
    if (m_told_short) {
        return false;
    }
    std::size_t bytes = 0;
    for (std::size_t i = range.first; i < range.second; ++i) {
        bytes += bytes_of(m_store[i]);
    }
    m_told_short = bytes > m_ceiling_bytes;
    return m_told_short;
}

void Ms1Window::release(std::pair<std::size_t, std::size_t> range) {
    for (std::size_t i = range.first;
         i < range.second && i < m_first_held && m_held_bytes > m_ceiling_bytes; ++i) {
        MS1Spectrum& scan = m_store[i];
        if (can_let_go(scan)) {
            let_go(scan);
        }
    }
}

}  // namespace ksieve
