#include <bit>
#include <cstdint>
#include <cstdio>
#include <string>
#include <type_traits>

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
void put(std::FILE* stream, Number value) {
    static_assert(std::is_arithmetic_v<Number>);
    std::fwrite(&value, sizeof value, 1, stream);
}

void put_peaks(std::FILE* stream, const std::vector<Peak>& peaks) {
    put(stream, static_cast<uint32_t>(peaks.size()));
    if (!peaks.empty()) {
        std::fwrite(peaks.data(), sizeof(Peak), peaks.size(), stream);
    }
}

// One index entry: the scan and the record's 32-bit offset in the data file.
// The index is only meaningful for data files below 2 GiB.
void begin_record(KsFile& file, int32_t scan) {
    ++file.m_head.m_scan_count;
    put(file.m_index_stream, scan);
    put(file.m_index_stream, static_cast<int32_t>(ftello(file.m_head.m_stream)));
}

void write_count(KsFile& file) {
    std::FILE* stream = file.m_head.m_stream;
    std::fflush(stream);
    rewind_file(file.m_head.m_path, stream);
    put(stream, static_cast<uint32_t>(file.m_head.m_scan_count));
    std::fflush(stream);
}

}  // namespace

void open_ks_file(KsFile& file, std::string path, std::string mode, std::string title) {
    open_spectrum_file(file.m_head, path, mode);
    file.m_index_stream = open_file(path + "idx", mode, "");
    write_count(file);
    put(file.m_head.m_stream, static_cast<uint32_t>(title.size()));
    std::fwrite(title.data(), 1, title.size(), file.m_head.m_stream);
}

// The tail has the shape of a one-entry precursor list: the count 1, the
// retention time in the m/z field and 1 in the charge field.
void write_ks1_record(KsFile& file, const MS1Spectrum& scan) {
    begin_record(file, scan.m_scan);
    std::FILE* stream = file.m_head.m_stream;
    put(stream, scan.m_scan);
    put_peaks(stream, scan.m_peaks);
    put(stream, uint32_t{1});
    put(stream, scan.m_retention_time);
    put(stream, int32_t{1});
}

void write_ks2_record(KsFile& file, const MS2Spectrum& scan) {
    begin_record(file, scan.m_scan);
    std::FILE* stream = file.m_head.m_stream;
    put(stream, scan.m_scan);
    put_peaks(stream, scan.m_peaks);
    put(stream, static_cast<uint32_t>(scan.m_precursors.size()));
    for (const Precursor& precursor : scan.m_precursors) {
        put(stream, precursor.m_mz);
        put(stream, precursor.m_charge);
    }
}

void finalize_ks_file(KsFile& file) {
    write_count(file);
    if (file.m_index_stream != nullptr) {
        std::fclose(file.m_index_stream);
        file.m_index_stream = nullptr;
    }
}

}  // namespace ksieve
