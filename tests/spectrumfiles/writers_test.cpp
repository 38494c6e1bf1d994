#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "spectrumfiles.h"
#include "test_support.h"

namespace ksieve {
namespace {

// Little-endian fields assembled from the file's bytes one by one, whatever the
// host order, so the check does not share the writer's view of memory.
class LittleEndianReader {
  public:
    explicit LittleEndianReader(const std::string& path) : m_bytes(test::read_file(path)) {}
    uint64_t take(std::size_t size) {
        EXPECT_LE(m_position + size, m_bytes.size()) << "read past the end";
        uint64_t value = 0;
        for (std::size_t i = 0; i < size && m_position < m_bytes.size(); ++i) {
            value |= uint64_t{static_cast<unsigned char>(m_bytes[m_position++])} << (8 * i);
        }
        return value;
    }
    int32_t i32() { return static_cast<int32_t>(take(4)); }
    uint64_t f64_bits() { return take(8); }  // bits, so NaN and -0.0 compare as written
    std::size_t m_position = 0;
    std::string m_bytes;
};

uint64_t bits(double value) {
    return std::bit_cast<uint64_t>(value);
}

std::vector<Peak> random_peaks(std::mt19937& random) {
    std::uniform_real_distribution<double> value(-1e6, 1e6);
    std::vector<Peak> peaks(random() % 40);
    for (Peak& peak : peaks) {
        peak = {value(random), value(random)};
    }
    if (!peaks.empty()) {
        peaks[0] = {-0.0, std::numeric_limits<double>::quiet_NaN()};
    }
    return peaks;
}

// Scan, peak count and peaks; each index entry points to where its record starts.
void expect_record_head(LittleEndianReader& data, LittleEndianReader& index, int32_t scan,
                        const std::vector<Peak>& peaks) {
    EXPECT_EQ(index.i32(), scan);
    EXPECT_EQ(index.i32(), static_cast<int32_t>(data.m_position));
    EXPECT_EQ(data.i32(), scan);
    ASSERT_EQ(data.take(4), peaks.size());
    for (const Peak& peak : peaks) {
        EXPECT_EQ(data.f64_bits(), bits(peak.m_mz));
        EXPECT_EQ(data.f64_bits(), bits(peak.m_intensity));
    }
}

TEST(KsWriter, RecordsAndIndexReadBackByteForByte) {
    test::TempDir dir;
    std::mt19937 random(11);
    KsFile ks1;
    KsFile ks2;
    open_ks_file(ks1, dir.file("r.ks1"), "wb+", "run_01");
    open_ks_file(ks2, dir.file("r.ks2"), "wb+", "");
    std::vector<MS1Spectrum> ms1(20);
    std::vector<MS2Spectrum> ms2(20);
    for (int32_t i = 0; i < 20; ++i) {
        // The first record has no peak: 24 bytes.
        ms1[i] = {1000 + i, i * 0.25, 1.0, "FT", i == 0 ? PeakList{} : random_peaks(random)};
        ms2[i].m_scan = -i;
        ms2[i].m_peaks = random_peaks(random);
        ms2[i].m_precursors.resize(random() % 4, {i + 0.5, -2});
        write_ks1_record(ks1, ms1[i]);
        write_ks2_record(ks2, ms2[i]);
    }
    finalize_ks_file(ks1);
    finalize_ks_file(ks2);
    // Finalising leaves both index files complete while the process runs on.
    LittleEndianReader data1(dir.file("r.ks1")), index1(dir.file("r.ks1idx"));
    LittleEndianReader data2(dir.file("r.ks2")), index2(dir.file("r.ks2idx"));
    EXPECT_EQ(data1.take(8), 20u | (6ull << 32));
    EXPECT_EQ(data1.m_bytes.substr(8, 6), "run_01");
    data1.m_position = 14;
    for (const MS1Spectrum& scan : ms1) {
        expect_record_head(data1, index1, scan.m_scan, scan.m_peaks);
        EXPECT_EQ(data1.i32(), 1);
        EXPECT_EQ(data1.f64_bits(), bits(scan.m_retention_time));
        EXPECT_EQ(data1.i32(), 1);
    }
    EXPECT_EQ(data2.take(8), 20u);
    for (const MS2Spectrum& scan : ms2) {
        expect_record_head(data2, index2, scan.m_scan, scan.m_peaks);
        ASSERT_EQ(data2.take(4), scan.m_precursors.size());
        for (const Precursor& precursor : scan.m_precursors) {
            EXPECT_EQ(data2.f64_bits(), bits(precursor.m_mz));
            EXPECT_EQ(data2.i32(), precursor.m_charge);
        }
    }
    for (const LittleEndianReader* file : {&data1, &index1, &data2, &index2}) {
        EXPECT_EQ(file->m_position, file->m_bytes.size());
    }
    for (KsFile* file : {&ks1, &ks2}) {
        finish_spectrum_file(file->m_head);
        release_spectrum_file(file->m_head);
    }
}

MS2Spectrum typed_scan(int32_t scan, const std::string& activation, const std::string& instrument) {
    MS2Spectrum spectrum;
    spectrum.m_scan = scan;
    spectrum.m_activation_type = activation;
    spectrum.m_instrument_type = instrument;
    spectrum.m_precursors = {{500.0, 2}};
    return spectrum;
}

TEST(FileSets, OneMemberPerActivationAndInstrumentKey) {
    test::TempDir dir;
    KsFileSet ks{4, dir.file("run_.ks2"), "wb+", "run", {}};
    MgfFileSet mgf{4, dir.file("run_.mgf"), "w+", "run", {}};
    for (const MS2Spectrum& scan :
         {typed_scan(1, "HCD", "FT"), typed_scan(2, "CID", "IT"), typed_scan(3, "HCD", "FT")}) {
        write_ks2_record(file_for(ks, scan), scan);
        write_mgf_blocks(file_for(mgf, scan), scan);
    }
    close_file_set(ks);
    close_file_set(mgf);
    EXPECT_TRUE(ks.m_files.empty() && mgf.m_files.empty());
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names,
              (std::vector<std::string>{"run_CIDIT.ks2", "run_CIDIT.ks2idx", "run_CIDIT.mgf",
                                        "run_HCDFT.ks2", "run_HCDFT.ks2idx", "run_HCDFT.mgf"}));
    EXPECT_EQ(LittleEndianReader(dir.file("run_HCDFT.ks2")).take(4), 2u);
    EXPECT_EQ(LittleEndianReader(dir.file("run_CIDIT.ks2")).take(4), 1u);
    EXPECT_EQ(std::filesystem::file_size(dir.file("run_HCDFT.ks2idx")), 16u);
    // A set that never had a scan leaves nothing behind.
    KsFileSet unused{4, dir.file("other_.ks2"), "wb+", "other", {}};
    close_file_set(unused);
    EXPECT_FALSE(std::filesystem::exists(dir.file("other_.ks2")));
}

// What a writer puts into a stream, captured in memory.
template <typename File, typename Scan>
std::string written_text(void (*write)(File&, const Scan&), File& file, const Scan& scan) {
    char* data = nullptr;
    std::size_t size = 0;
    file.m_head.m_stream = open_memstream(&data, &size);
    write(file, scan);
    std::fclose(file.m_head.m_stream);
    file.m_head.m_stream = nullptr;
    std::string text(data, size);
    std::free(data);
    return text;
}

TEST(MgfWriter, OneBlockPerPrecursorWithTheInstalledDigits) {
    MgfFile file;
    file.m_title = "run";
    MS2Spectrum scan;
    scan.m_scan = 4021;
    scan.m_retention_time = 12.5;
    scan.m_precursors = {{500.123456789, 2}, {300.5, -3}};
    scan.m_peaks = {{100.12345, 10.5}, {200, 3}};
    set_peak_format("%.3f %.0f\n");
    const std::string peaks = "100.123 10\n200.000 3\n";  // 10.5 rounds to even, as printf does
    EXPECT_EQ(written_text(write_mgf_blocks, file, scan),
              "BEGIN IONS\nTITLE=run.4021.4021.2.0.dta\nCHARGE=2+\nRTINSECONDS=12.5000000\n"
              "PEPMASS=500.123457\n" +
                  peaks +
                  "END IONS\nBEGIN IONS\nTITLE=run.4021.4021.-3.1.dta\nCHARGE=3-\n"
                  "RTINSECONDS=12.5000000\nPEPMASS=300.500000\n" +
                  peaks + "END IONS\n");
    scan.m_peaks.clear();
    scan.m_precursors.resize(1);
    EXPECT_EQ(written_text(write_mgf_blocks, file, scan),
              "BEGIN IONS\nTITLE=run.4021.4021.2.0.dta\nCHARGE=2+\nRTINSECONDS=12.5000000\n"
              "PEPMASS=500.123457\nEND IONS\n");
    set_peak_format("%.5f %.1f\n");
}

TEST(MgfWriter, PeakLinesMatchPrintfForAnyFormat) {
    std::mt19937 random(5);
    std::uniform_real_distribution<double> exponent(-8, 12);
    MgfFile file;
    MS2Spectrum scan;
    scan.m_precursors = {{1.0, 1}};
    for (int i = 0; i < 300; ++i) {
        const double value = std::pow(10.0, exponent(random)) * (i % 3 == 0 ? -1 : 1);
        scan.m_peaks.push_back({value, std::round(value * 8) / 8});
    }
    scan.m_peaks.push_back({std::numeric_limits<double>::infinity(), -0.0});
    const std::string formats[] = {"%.0f %.0f\n", "%.5f %.1f\n", "%.12f %.9f\n", "%.2e|%g\n"};
    for (const std::string& format : formats) {
        set_peak_format(format);
        const std::string text = written_text(write_mgf_blocks, file, scan);
        std::string expected;
        char line[1024];
        for (const Peak& peak : scan.m_peaks) {
            std::snprintf(line, sizeof line, format.c_str(), peak.m_mz, peak.m_intensity);
            expected += line;
        }
        const std::size_t begin = text.find("PEPMASS=1.000000\n") + 17;
        EXPECT_EQ(text.substr(begin, text.size() - begin - 9), expected) << format;
    }
    set_peak_format("%.5f %.1f\n");
}

TEST(CsvWriter, RowsListDeclaredThenDeterminedPrecursors) {
    CsvFile table;
    MS2Spectrum scan = typed_scan(4021, "HCD", "FT");
    scan.m_instrument_precursors = {{500.1234567, 2}};
    scan.m_precursors = {{500.1234567, 2}, {250.5, -3}};
    EXPECT_EQ(written_text(write_csv_row, table, scan),
              "HCD, FT, 4021, 500.123457, 2, 2, 1, 500.123457, 2, 2, 250.500000, -3, \n");
    scan.m_instrument_precursors.clear();
    scan.m_precursors.resize(1);
    EXPECT_EQ(written_text(write_csv_row, table, scan),
              "HCD, FT, 4021, -1.000000, -1, 1, 1, 500.123457, 2, \n");
    EXPECT_EQ(table.m_head.m_scan_count, 2);
}

}  // namespace
}  // namespace ksieve
