#include <bit>
#include <cstdint>
#include <cstdio>
#include <string>
#include <type_traits>

#include "logger.h"
#include "spectrumfiles.h"
#include "utils.h"

namespace ksieve {

namespace {

// KS files are little-endian with no padding. Fields are written from memory
// as they stand, which gives those bytes on this byte order only.
static_assert(std::endian::native == std::endian::little, "KS output assumes a little-endian host");
// A peak list goes out in one piece: m/z and intensity, 8 bytes each, with no
// gap between peaks.
static_assert(sizeof(Peak) == 2 * sizeof(double) && std::is_standard_layout_v<Peak>);

template <typename Number>
void put(std::FILE* stream, const std::string& path, Number value) {
    static_assert(std::is_arithmetic_v<Number>);
    check_written(std::fwrite(&value, sizeof value, 1, stream) == 1, path);
}

void put_peaks(std::FILE* stream, const std::string& path, const std::vector<Peak>& peaks) {
    put(stream, path, static_cast<uint32_t>(peaks.size()));
    if (!peaks.empty()) {
        check_written(std::fwrite(peaks.data(), sizeof(Peak), peaks.size(), stream) == peaks.size(),
                      path);
    }
}

// One index entry: the scan and the record's 32-bit offset in the data file.
// A record that starts beyond the limit cannot be addressed, and the index is
// given up for good: a partial index would lie about the file.
void begin_record(KsFile& file, int32_t scan) {
    ++file.m_head.m_scan_count;
    const off_t offset = ftello(file.m_head.m_stream);
    check_written(offset >= 0, file.m_head.m_path);
    file.m_index_given_up = file.m_index_given_up || offset > file.m_index_limit;
    if (!file.m_index_given_up) {
        put(file.m_index_stream, file.m_index_path, scan);
        put(file.m_index_stream, file.m_index_path, static_cast<int32_t>(offset));
    }
}

void write_count(KsFile& file) {
    std::FILE* stream = file.m_head.m_stream;
    const std::string& path = file.m_head.m_path;
    check_written(std::fflush(stream) == 0, path);
    rewind_file(path, stream);
    put(stream, path, static_cast<uint32_t>(file.m_head.m_scan_count));
    check_written(std::fflush(stream) == 0, path);
}

void close_index(KsFile& file) {
    const bool closed = std::fclose(file.m_index_stream) == 0;
    file.m_index_stream = nullptr;
    if (file.m_index_given_up) {
        discard_file(file.m_index_path);
        log("WARN",
            "Index not written, it cannot address records beyond 2 GiB: " + file.m_index_path);
        return;
    }
    check_written(closed, file.m_index_path);
}

}  // namespace

KsFile::~KsFile() {
    if (m_index_stream != nullptr) {
        std::fclose(m_index_stream);
    }
}

void open_ks_file(KsFile& file, std::string path, std::string mode, std::string title) {
    open_spectrum_file(file.m_head, path, mode);
    file.m_index_path = path + "idx";
    file.m_index_stream = open_file(file.m_index_path, mode, "");
    write_count(file);
    put(file.m_head.m_stream, path, static_cast<uint32_t>(title.size()));
    check_written(std::fwrite(title.data(), 1, title.size(), file.m_head.m_stream) == title.size(),
                  path);
}

// The tail has the shape of a one-entry precursor list: the count 1, the
// retention time in the m/z field and 1 in the charge field.
void write_ks1_record(KsFile& file, const MS1Spectrum& scan) {
    begin_record(file, scan.m_scan);
    std::FILE* stream = file.m_head.m_stream;
    const std::string& path = file.m_head.m_path;
    put(stream, path, scan.m_scan);
    put_peaks(stream, path, scan.m_peaks);
    put(stream, path, uint32_t{1});
    put(stream, path, scan.m_retention_time);
    put(stream, path, int32_t{1});
}

namespace {

template <typename Number>
void append(std::string& bytes, Number value) {
    static_assert(std::is_arithmetic_v<Number>);
    bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
}

}  // namespace

void format_ks2_record(std::string& bytes, const MS2Spectrum& scan) {
    bytes.clear();
    append(bytes, scan.m_scan);
    append(bytes, static_cast<uint32_t>(scan.m_peaks.size()));
    bytes.append(reinterpret_cast<const char*>(scan.m_peaks.data()),
                 scan.m_peaks.size() * sizeof(Peak));
    append(bytes, static_cast<uint32_t>(scan.m_precursors.size()));
    for (const Precursor& precursor : scan.m_precursors) {
        append(bytes, precursor.m_mz);
        append(bytes, precursor.m_charge);
    }
}

void write_ks_record_bytes(KsFile& file, int32_t scan, const std::string& bytes) {
    begin_record(file, scan);
    check_written(std::fwrite(bytes.data(), 1, bytes.size(), file.m_head.m_stream) == bytes.size(),
                  file.m_head.m_path);
}

void write_ks2_record(KsFile& file, const MS2Spectrum& scan) {
    std::string bytes;
    format_ks2_record(bytes, scan);
    write_ks_record_bytes(file, scan.m_scan, bytes);
}

void finalize_ks_file(KsFile& file) {
    write_count(file);
    if (file.m_index_stream != nullptr) {
        close_index(file);
    }
}

}  // namespace ksieve
