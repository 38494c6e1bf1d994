// What the reader fuzz targets share: the input as a stream, a quiet log, and
// the properties that every scan a reader returns must have.
#pragma once

#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "logger.h"
#include "spectrumfiles.h"

namespace ksieve::fuzz {

// A broken property is a crash, which is what the fuzzing engine looks for.
#define KS_FUZZ_CHECK(condition)                                                                  \
    do {                                                                                          \
        if (!(condition)) {                                                                       \
            std::fprintf(stderr, "%s:%d: property failed: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                         \
        }                                                                                         \
    } while (false)

// Sends the log to /dev/null once per process. Before its directory is set the
// logger holds every message in memory, so the "WARN" lines of millions of
// inputs would pile up there; a log file linked to /dev/null keeps them nowhere.
inline void silence_log() {
    static const bool silenced = [] {
        char pattern[] = "/tmp/ksieve_fuzz_XXXXXX";
        const char* directory = mkdtemp(pattern);
        KS_FUZZ_CHECK(directory != nullptr);
        const std::string link = std::string(directory) + "/" + g_log_file_name;
        KS_FUZZ_CHECK(symlink("/dev/null", link.c_str()) == 0);
        Logger::instance().set_directory(directory);
        // The open log keeps /dev/null; the directory itself is not needed.
        unlink(link.c_str());
        rmdir(directory);
        return true;
    }();
    (void)silenced;
}

// Points the file at a read-only stream over the input, as opening would.
inline void open_input(SpectrumFile& file, const uint8_t* data, std::size_t size) {
    // The stream only reads, but fmemopen takes a writable buffer.
    file.m_stream = fmemopen(const_cast<uint8_t*>(data), size, "r");
    KS_FUZZ_CHECK(file.m_stream != nullptr);
}

// Peaks in peak order, with any NaN m/z at the back; precursors valid and
// equal to the instrument's snapshot.
inline void check_peak_order(const std::vector<Peak>& peaks) {
    for (std::size_t i = 1; i < peaks.size(); ++i) {
        const Peak& a = peaks[i - 1];
        const Peak& b = peaks[i];
        KS_FUZZ_CHECK(!std::isnan(a.m_mz) || std::isnan(b.m_mz));
        KS_FUZZ_CHECK(!peak_less(b, a));
    }
}

inline void check_ms2_scan(const MS2Spectrum& scan) {
    KS_FUZZ_CHECK(!scan.m_peaks.empty());
    check_peak_order(scan.m_peaks);
    KS_FUZZ_CHECK(scan.m_instrument_precursors.size() == scan.m_precursors.size());
    for (std::size_t i = 0; i < scan.m_precursors.size(); ++i) {
        KS_FUZZ_CHECK(is_valid(scan.m_precursors[i]));
        KS_FUZZ_CHECK(scan.m_precursors[i].m_mz == scan.m_instrument_precursors[i].m_mz);
        KS_FUZZ_CHECK(scan.m_precursors[i].m_charge == scan.m_instrument_precursors[i].m_charge);
    }
}

// Reads scans until the reader reports the end, which must then stay; every
// scan raises the count by one.
template <typename File, typename Scan, typename Check>
void read_to_end(File& file, bool (*read)(File&, Scan&), Check check) {
    for (;;) {
        const int32_t count = file.m_head.m_scan_count;
        Scan scan;
        if (!read(file, scan)) {
            KS_FUZZ_CHECK(file.m_head.m_scan_count == count);
            Scan after_end;
            KS_FUZZ_CHECK(!read(file, after_end));
            return;
        }
        KS_FUZZ_CHECK(file.m_head.m_scan_count == count + 1);
        check(scan);
    }
}

}  // namespace ksieve::fuzz
