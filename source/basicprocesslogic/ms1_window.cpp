// The MS1 window under its memory ceiling: which peak lists are held, which are
// let go, and reading a let-go list again from the `.ms1` file.
//
// Dense runs hold up to 100,000 peaks in each of the window's 5000 scans; only
// the ten scans around a parent are ever read, so old lists can wait on disk.
#include <cstdio>
#include <string>

#include "basicprocesslogic.h"
#include "detection.h"
#include "spectrumfiles.h"
#include "utils.h"

namespace ksieve {

namespace {

constexpr std::size_t kBytesPerMib = std::size_t{1} << 20;

std::size_t bytes_of(const MS1Spectrum& scan) {
    return scan.m_peaks.capacity() * sizeof(Peak);
}

void let_go(Ms1Window& window, MS1Spectrum& scan) {
    window.m_held_bytes -= bytes_of(scan);
    PeakList().swap(scan.m_peaks);
}

bool can_let_go(const MS1Spectrum& scan) {
    return !scan.m_peaks.empty() && scan.m_source_offset >= 0;
}

MS1Spectrum take_front(Ms1Window& window) {
    window.m_held_bytes -= bytes_of(window.m_store.front());
    MS1Spectrum front = std::move(window.m_store.front());
    window.m_store.pop_front();
    if (window.m_first_held > 0) {
        --window.m_first_held;
    }
    return front;
}

// Lets the oldest lists go until the window is within its ceiling.
void enforce_ceiling(Ms1Window& window) {
    Ms1Store& store = window.m_store;
    while (window.m_held_bytes > window.m_ceiling_bytes && window.m_first_held < store.size()) {
        MS1Spectrum& scan = store[window.m_first_held++];
        if (can_let_go(scan)) {
            let_go(window, scan);
        }
    }
}

// The scan's peaks as the reader gave them the first time: same text, same
// reader, same order.
void read_again(Ms1Window& window, MS1Spectrum& scan) {
    SpectrumFile& head = window.m_reread.m_head;
    if (head.m_stream == nullptr) {
        head.m_path = window.m_path;
        head.m_stream = open_file(window.m_path, "r", "");
    }
    if (fseeko(head.m_stream, static_cast<off_t>(scan.m_source_offset), SEEK_SET) != 0) {
        throw "Cannot relocate to " + std::to_string(scan.m_source_offset) + " in " + window.m_path;
    }
    window.m_reread.m_line[0] = '\0';
    MS1Spectrum again;
    if (!ReadMs1Scan(window.m_reread, again) || again.m_scan != scan.m_scan) {
        throw "Cannot read scan " + std::to_string(scan.m_scan) + " again from " + window.m_path;
    }
    scan.m_peaks = std::move(again.m_peaks);
    window.m_held_bytes += bytes_of(scan);
}

}  // namespace

std::size_t ms1_ceiling_bytes(const UserParameters& params) {
    return static_cast<std::size_t>(params.m_memory_ceiling_mib) * kBytesPerMib;
}

void push_ms1_scan(Ms1Window& window, MS1Spectrum& scan) {
    KS_ASSERT(window.m_store.size() > 0, "ms1Store.size() > 0");
    MS1Spectrum leaving = take_front(window);
    window.m_held_bytes += bytes_of(scan);
    window.m_store.push_back(std::move(scan));
    scan = std::move(leaving);
    enforce_ceiling(window);
}

void pop_ms1_scan(Ms1Window& window) {
    take_front(window);
}

std::pair<std::size_t, std::size_t> hold_ms1_scans(Ms1Window& window, const MS2Spectrum& ms2) {
    const std::optional<SliceRange> range = FindSliceRange(window.m_store, ms2);
    if (!range) {
        return {0, 0};
    }
    for (std::size_t i = range->m_first; i < range->m_end; ++i) {
        MS1Spectrum& scan = window.m_store[i];
        if (scan.m_peaks.empty() && scan.m_source_offset >= 0) {
            read_again(window, scan);
        }
    }
    return {range->m_first, range->m_end};
}

bool first_window_over_ceiling(Ms1Window& window, std::pair<std::size_t, std::size_t> range) {
    if (window.m_told_short) {
        return false;
    }
    std::size_t bytes = 0;
    for (std::size_t i = range.first; i < range.second; ++i) {
        bytes += bytes_of(window.m_store[i]);
    }
    window.m_told_short = bytes > window.m_ceiling_bytes;
    return window.m_told_short;
}

void release_ms1_scans(Ms1Window& window, std::pair<std::size_t, std::size_t> range) {
    for (std::size_t i = range.first; i < range.second && i < window.m_first_held &&
                                      window.m_held_bytes > window.m_ceiling_bytes;
         ++i) {
        MS1Spectrum& scan = window.m_store[i];
        if (can_let_go(scan)) {
            let_go(window, scan);
        }
    }
}

}  // namespace ksieve
