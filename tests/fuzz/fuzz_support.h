// What the reader fuzz targets share: the input as a stream, a quiet log, and
// the properties that every scan a reader returns must have.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "logger.h"
#include "spectrumfiles.h"
#include "utils.h"

namespace ksieve::fuzz {

// A broken property is a crash, which is what the fuzzing engine looks for.
#define KS_FUZZ_CHECK(condition) KS_ASSERT(condition, #condition)

// Until its directory is set the logger holds every message in memory, where the
// "WARN" lines of millions of inputs would pile up; a log linked to /dev/null
// keeps them nowhere.
inline bool silence_log() {
    char pattern[] = "/tmp/ksieve_fuzz_XXXXXX";
    const char* directory = mkdtemp(pattern);
    KS_FUZZ_CHECK(directory != nullptr);
    const std::string link = std::string(directory) + "/" + g_log_file_name;
    KS_FUZZ_CHECK(symlink("/dev/null", link.c_str()) == 0);
    Logger::instance().set_directory(directory);
    unlink(link.c_str());  // the open log keeps /dev/null
    rmdir(directory);
    return true;
}

// Peaks present and in peak order, any NaN m/z at the back.
inline void check_peaks(const std::vector<Peak>& peaks) {
    KS_FUZZ_CHECK(!peaks.empty());
    for (std::size_t i = 1; i < peaks.size(); ++i) {
        KS_FUZZ_CHECK(!std::isnan(peaks[i - 1].m_mz) || std::isnan(peaks[i].m_mz));
        KS_FUZZ_CHECK(!peak_less(peaks[i], peaks[i - 1]));
    }
}

// Precursors valid and equal to the instrument's snapshot.
inline void check_ms2_scan(const MS2Spectrum& scan) {
    check_peaks(scan.m_peaks);
    const auto& precursors = scan.m_precursors;
    KS_FUZZ_CHECK(std::all_of(precursors.begin(), precursors.end(), is_valid));
    KS_FUZZ_CHECK(std::equal(
        precursors.begin(), precursors.end(), scan.m_instrument_precursors.begin(),
        scan.m_instrument_precursors.end(),
        [](const auto& a, const auto& b) { return a.m_mz == b.m_mz && a.m_charge == b.m_charge; }));
}

// Reads the input as `File` until the reader reports the end, which must then
// stay; every scan raises the count by one and passes `check`.
template <typename File, typename Scan, typename Check>
void read_to_end(const uint8_t* data, std::size_t size, bool (*read)(File&, Scan&), Check check) {
    [[maybe_unused]] static const bool silenced = silence_log();
    File file;
    // fmemopen takes a writable buffer, but the stream only reads it.
    file.m_head.m_stream = fmemopen(const_cast<uint8_t*>(data), size, "r");
    KS_FUZZ_CHECK(file.m_head.m_stream != nullptr);
    for (int32_t count = file.m_head.m_scan_count;; ++count) {
        Scan scan;
        if (!read(file, scan)) {
            Scan after_end;
            KS_FUZZ_CHECK(file.m_head.m_scan_count == count && !read(file, after_end));
            return;
        }
        KS_FUZZ_CHECK(file.m_head.m_scan_count == count + 1);
        check(scan);
    }
}

}  // namespace ksieve::fuzz
