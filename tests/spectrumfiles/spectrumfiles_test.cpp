#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <limits>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "mzml_writer.h"
#include "spectrumfiles.h"
#include "test_support.h"
#include "utils.h"

namespace ksieve {
namespace {

// A scan's MGF blocks and table row written as the pipeline writes them.
void write_mgf_blocks(MgfFile& file, const MS2Spectrum& scan) {
    std::string text, peak_text;
    format_mgf_blocks(text, peak_text, file.m_layout, scan);
    write_mgf_text(file, text);
}
void write_row(CsvFile& table, const MS2Spectrum& scan) {
    std::string row;
    format_csv_row(row, scan);
    write_csv_text(table, row);
}

// Every scan of `text`, read through a real file with `read` until it reports
// the end, and what the reader left out of the file; the end must then hold on
// a second call too, and the file must have counted each scan it kept once.
template <typename File, typename Scan>
std::pair<std::vector<Scan>, DroppedValues> read_counting(const std::string& text,
                                                          bool (*read)(File&, Scan&)) {
    test::TempDir dir;
    test::write_file(dir.file("in.txt"), text);
    File file;
    open_spectrum_file(file.m_head, dir.file("in.txt"), "r");
    std::vector<Scan> scans;
    for (Scan scan; read(file, scan); scan = Scan{}) {
        scans.push_back(scan);
    }
    Scan after_end;
    EXPECT_FALSE(read(file, after_end));
    EXPECT_EQ(file.m_head.m_scan_count, static_cast<int32_t>(scans.size()));
    finish_spectrum_file(file.m_head);
    release_spectrum_file(file.m_head);
    return {scans, file.m_dropped};
}

template <typename File, typename Scan>
std::vector<Scan> read_all(const std::string& text, bool (*read)(File&, Scan&)) {
    return read_counting(text, read).first;
}

// Peaks or precursors as (m/z, intensity or charge) pairs, to compare lists whole.
using Pairs = std::vector<std::pair<double, double>>;
template <typename Item, typename Second>
Pairs pairs(const std::vector<Item>& items, Second Item::*second) {
    Pairs values;
    for (const Item& item : items) {
        values.emplace_back(item.m_mz, item.*second);
    }
    return values;
}

// A scan with no peak is overwritten by the next, which keeps what it set.
TEST(Ms1Reader, AScanWithoutPeaksGivesWayToTheNext) {
    const auto scans =
        read_all("S\t11\t11\nI\tRetTime\t8\nS\t1\t1\n5 1\n2 3\nS\t2\t2\n1 1\n", ReadMs1Scan);
    ASSERT_EQ(scans.size(), 2u);
    EXPECT_EQ(scans[0].m_scan, 1);
    EXPECT_EQ(scans[0].m_retention_time, 8);
    EXPECT_EQ(pairs(scans[0].m_peaks, &Peak::m_intensity), (Pairs{{2, 3}, {5, 1}}));
}

// Survey scans carry the instrument's id too, for the mzML's parent references;
// a scan without the line has none.
TEST(Ms1Reader, TakesTheNativeIdOfEachScan) {
    const auto scans = read_all(
        "S\t1\t1\nI\tNativeID\tcontrollerType=0 controllerNumber=1 scan=1\r\nI\tRetTime\t2\n"
        "5 1\nS\t2\t2\nI\tRetTime\t3\n6 1\n",
        ReadMs1Scan);
    ASSERT_EQ(scans.size(), 2u);
    EXPECT_EQ(scans[0].m_native_id, "controllerType=0 controllerNumber=1 scan=1");
    EXPECT_EQ(scans[0].m_retention_time, 2);
    EXPECT_EQ(scans[1].m_native_id, "");
}

// The same text with Windows line ends, after an over-long comment line.
std::string as_windows_text(const std::string& text) {
    std::string converted = "H\t" + std::string(3000, 'x') + "\r\n";
    for (char c : text) {
        converted += c == '\n' ? std::string("\r\n") : std::string(1, c);
    }
    return converted;
}

// Repeated blocks of a scan fold into it, keeping the first block's activation and
// parent. Info lines are told apart by fixed positions: the long InstrumentType
// line leaves its 'Q' behind in the line buffer, and the short one of scan 6 must
// not see it. Charge 0 is dropped. Line ends, and the later pieces of an over-long
// line (which start with 'x' and are skipped), change nothing.
TEST(Ms2Reader, BlocksFoldAndInfoLinesAreReadAtFixedPositionsWhateverTheLineEnds) {
    const std::string text =
        "S\t5\t5\nI\tActivationType\tHCD\nI\tPrecursorScan\t3\nI\tInstrumentType\tQExactive\n"
        "Z\t2\t1000\n20 1\n10 1\nS\t5\t5\nI\tActivationType\tCID\nI\tPrecursorScan\t9\n"
        "I\tRetTime\t7\nZ\t0\t900\nZ\t3\t1000\n10 1.5\nS\t6\t6\nI\tIn\n30 1\n";
    for (const std::string& input : {text, as_windows_text(text)}) {
        test::CaptureStream errors(std::cerr);
        const auto scans = read_all(input, ReadMs2Scan);
        ASSERT_EQ(scans.size(), 2u);
        EXPECT_EQ(pairs(scans[0].m_peaks, &Peak::m_intensity),
                  (Pairs{{10, 1}, {10, 1.5}, {20, 1}}));
        EXPECT_EQ(pairs(scans[0].m_precursors, &Precursor::m_charge),
                  (Pairs{{(1000 + 1.007276) / 2, 2}, {(1000 + 2 * 1.007276) / 3, 3}}));
        EXPECT_EQ(scans[0].m_activation_type, "HCD");
        EXPECT_EQ(scans[0].m_precursor_scan, 3);
        EXPECT_EQ(scans[0].m_retention_time, 7);
        EXPECT_EQ(scans[0].m_instrument_type, "FT");
        EXPECT_EQ(scans[1].m_instrument_type, "Unknown");
        EXPECT_EQ(errors.text(),
                  "[kSieve] <WARN> - Scan 5 has incorrect precursor infomation, "
                  "skipping this precursor...\n");
    }
}

// Both Centroiding and CompensationVoltage have a C at position 2: only the
// voltage is read, in both readers, and a voltage that is not a finite number
// (which would match no scan's) is no voltage at all. A long voltage line
// leaves digits behind in the line buffer that the short Centroiding line after
// it must not pick up.
TEST(InfoLines, TheCompensationVoltageIsToldApartFromCentroiding) {
    const std::string scans_text =
        "S\t1\t1\nI\tCompensationVoltage\t-47.5\nI\tCentroiding\tas stored\n1 1\n"
        "S\t2\t2\nI\tCentroiding\t-60\n1 1\n"
        "S\t3\t3\nI\tCompensationVoltage\tnan\n1 1\n"
        "S\t4\t4\nI\tCompensationVoltage\t-65\nI\tCentroiding\tCwt\n1 1\n";
    const auto ms1 = read_all(scans_text, ReadMs1Scan);
    const auto ms2 = read_all(scans_text, ReadMs2Scan);
    ASSERT_EQ(ms1.size(), 4u);
    ASSERT_EQ(ms2.size(), 4u);
    const std::vector<std::optional<double>> expected = {-47.5, std::nullopt, std::nullopt, -65.0};
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(ms1[i].m_compensation_voltage, expected[i]) << i;
        EXPECT_EQ(ms2[i].m_compensation_voltage, expected[i]) << i;
    }
}

TEST(MgfReader, ALaterBlockOfTheScanInheritsTheCharge) {
    const std::string text =
        "BEGIN IONS\nTITLE=run.10.10.2.dta\nPEPMASS=500.5 1000\nCHARGE=3-\n200 5\nEND IONS\n"
        "BEGIN IONS\nTITLE=run.10.10.3.dta\nPEPMASS=600.5\n300 9\nEND IONS\n"
        "BEGIN IONS\nTITLE=run.12.12.2.dta\nPEPMASS=700\nCHARGE=2+ and 3+\n60 1\nEND IONS\n";
    const auto scans = read_all(text, ReadMgfScan);
    ASSERT_EQ(scans.size(), 2u);
    EXPECT_EQ(pairs(scans[0].m_precursors, &Precursor::m_charge),
              (Pairs{{500.5, -3}, {600.5, -3}}));
    EXPECT_EQ(pairs(scans[1].m_precursors, &Precursor::m_charge), (Pairs{{700, 2}}));
}

// The MGF blocks of a scan, written into memory.
std::string mgf_text(const MS2Spectrum& scan, const std::string& peak_format) {
    MgfFile file;
    file.m_layout.m_peak_format = peak_format;
    char* data = nullptr;
    std::size_t size = 0;
    file.m_head.m_stream = open_memstream(&data, &size);
    write_mgf_blocks(file, scan);
    std::fclose(file.m_head.m_stream);
    file.m_head.m_stream = nullptr;
    std::string text(data, size);
    std::free(data);
    return text;
}

// The fixed-point formats take a fast path of their own; every format must
// print what printf prints, rounding halves to even included.
TEST(MgfWriter, PeakLinesMatchPrintfForAnyFormat) {
    std::mt19937 random(5);
    std::uniform_real_distribution<double> exponent(-8, 12);
    MS2Spectrum scan;
    scan.m_precursors = {{1.0, 1}};
    for (int i = 0; i < 300; ++i) {
        const double value = std::pow(10.0, exponent(random)) * (i % 3 == 0 ? -1 : 1);
        scan.m_peaks.push_back({value, std::round(value * 8) / 8});
    }
    scan.m_peaks.push_back({std::numeric_limits<double>::infinity(), -0.0});
    scan.m_peaks.push_back({100.12345, 10.5});
    for (const std::string format : {"%.0f %.0f\n", "%.3f %.1f\n", "%.12f %.9f\n", "%.2e|%g\n"}) {
        const std::string text = mgf_text(scan, format);
        std::string expected;
        char line[1024];
        for (const Peak& peak : scan.m_peaks) {
            std::snprintf(line, sizeof line, format.c_str(), peak.m_mz, peak.m_intensity);
            expected += line;
        }
        const std::size_t begin = text.find("PEPMASS=1.000000\n") + 17;
        EXPECT_EQ(text.substr(begin, text.size() - begin - 9), expected) << format;
    }
}

// The table marks an input as done: it takes its final name only when finished,
// and an old table stays until then. A scan without declared precursors shows -1.
TEST(CsvWriter, TheTableTakesItsFinalNameOnlyWhenFinished) {
    test::TempDir dir;
    const std::string path = dir.file("run.csv");
    test::write_file(path, "old table\n");
    CsvFile table;
    open_csv_file(table, path, "w+");
    MS2Spectrum scan;
    scan.m_precursors = {{500.1234567, 2}};
    write_row(table, scan);
    std::fflush(table.m_head.m_stream);
    EXPECT_EQ(test::read_file(path), "old table\n");
    test::CaptureStream out(std::cout);
    finish_csv_file(table);
    EXPECT_FALSE(std::filesystem::exists(path + "_unfinished"));
    const std::string text = test::read_file(path);
    EXPECT_EQ(text.substr(text.find('\n') + 1), ", , 0, -1.000000, -1, 1, 1, 500.123457, 2, \n");

    std::filesystem::remove(path);
    std::filesystem::create_directories(path + "/occupied");  // no file can replace it
    CsvFile blocked;
    open_csv_file(blocked, path, "w+");
    std::string thrown;
    try {
        finish_csv_file(blocked);
    } catch (const std::string& message) {
        thrown = message;
    }
    EXPECT_EQ(thrown, "Cannot rename file: " + path + "_unfinished");
    EXPECT_TRUE(std::filesystem::exists(path + "_unfinished"));
}

// An index entry holds a 32-bit offset. Once a record starts beyond what the
// index can address, the data file is still finished whole and the index is
// left unwritten, with a warning that names it. The limit is lowered here so
// that a few records reach it.
TEST(KsWriter, RecordsBeyondTheIndexLimitLeaveTheIndexUnwritten) {
    test::TempDir dir;
    const std::string path = dir.file("r_HCDFT.ks2");
    KsFile file;
    test::CaptureStream out(std::cout);
    open_ks_file(file, path, "wb+", "r");
    file.m_index_limit = 60;  // header 9 bytes, records of 40: the third starts at 89
    MS2Spectrum scan;
    scan.m_peaks = {{100.0, 5.0}};
    scan.m_precursors = {{500.0, 2}};
    for (scan.m_scan = 1; scan.m_scan <= 3; ++scan.m_scan) {
        write_ks2_record(file, scan);
    }
    test::CaptureStream errors(std::cerr);
    finalize_ks_file(file);
    finish_spectrum_file(file.m_head);
    release_spectrum_file(file.m_head);
    EXPECT_EQ(errors.text(),
              "[kSieve] <WARN> - Index not written, it cannot address records "
              "beyond 2 GiB: " +
                  path + "idx\n");
    EXPECT_FALSE(std::filesystem::exists(path + "idx"));
    const std::string data = test::read_file(path);
    EXPECT_EQ(data.size(), 9u + 3 * 40);
    EXPECT_EQ(data.substr(0, 4), std::string("\3\0\0\0", 4));
}

// The outputs written under a temporary name, opened on the full device as both.
void open_on_full_device(SpectrumFile& head, std::string& unfinished_path) {
    unfinished_path = "/dev/full";
    head.m_path = "/dev/full";
    head.m_mode = "w+";
    head.m_stream = std::fopen("/dev/full", "w+");
}

// Every write, flush and close of an output is checked: a device that refuses
// the bytes fails the file, naming it and the reason.
TEST(OutputWriters, AFullDeviceIsAFailureThatNamesTheFile) {
    MS2Spectrum scan;
    scan.m_peaks.assign(4096, Peak{100.0, 5.0});
    scan.m_precursors = {{500.0, 2}};
    std::vector<std::function<void()>> writers = {
        [] {
            KsFile file;
            open_ks_file(file, "/dev/full", "wb+", "r");
        },
        [&] {
            MgfFile file;
            open_mgf_file(file, "/dev/full", "w+", "r");
            write_mgf_blocks(file, scan);
            finish_spectrum_file(file.m_head);
        },
        [&] {
            CsvFile table;
            open_on_full_device(table.m_head, table.m_unfinished_path);
            write_row(table, scan);
            finish_spectrum_file(table.m_head);
        },
    };
    // The mzML, its bytes written on the sink's own thread.
    writers.push_back([&scan] {
        MzmlFile mzml;
        open_on_full_device(mzml.m_head, mzml.m_unfinished_path);
        start_sink(mzml.m_sink, mzml.m_head.m_stream, mzml.m_unfinished_path, {});
        mzml.m_index = std::tmpfile();
        MzmlSpectrum spectrum;
        spectrum.m_peaks = scan.m_peaks;
        std::string text;
        format_mzml_spectrum(text, spectrum, {}, mzml.m_scratch);
        write_mzml_spectrum(mzml, "scan=1", text);
        finish_mzml_file(mzml);
    });
    test::CaptureStream out(std::cout);
    for (const auto& write : writers) {
        std::string thrown = "<nothing thrown>";
        try {
            write();
        } catch (const WriteFailure& failure) {
            thrown = failure.what();
        }
        EXPECT_EQ(thrown, "Cannot write file: /dev/full: No space left on device");
    }
}

}  // namespace
}  // namespace ksieve

namespace ksieve {
namespace {

std::string failure_of_title(const std::string& text) {
    return test::failure_of<const char*>([&] { read_counting(text, ReadMgfScan); });
}

// Numbers no instrument writes are left out and counted, whatever the reader;
// blanks and tabs both separate the two numbers of a peak line. Lines that do
// not begin with a digit ("nan 1", "-3 1") are no peak lines at all.
TEST(ImplausibleValues, PeaksOutsideTheRangeAreDroppedAndCountedByEveryReader) {
    const std::string peaks =
        "100\t5\n0 1\n-3 1\n100000 1\nnan 1\ninf 1\n200 nan\n300 -inf\n400 2e30\n500 \t1e30\n";
    const Pairs kept{{100, 5}, {500, 1e30}};
    const auto [ms1, ms1_dropped] = read_counting("S\t1\t1\n" + peaks, ReadMs1Scan);
    const auto [ms2, ms2_dropped] = read_counting("S\t1\t1\nZ\t2\t1000\n" + peaks, ReadMs2Scan);
    const auto [mgf, mgf_dropped] = read_counting(
        "BEGIN IONS\nTITLE=a.1.1.2.dta\nPEPMASS=500\n" + peaks + "END IONS\n", ReadMgfScan);
    ASSERT_EQ(ms1.size(), 1u);
    ASSERT_EQ(ms2.size(), 1u);
    ASSERT_EQ(mgf.size(), 1u);
    EXPECT_EQ(pairs(ms1[0].m_peaks, &Peak::m_intensity), kept);
    EXPECT_EQ(pairs(ms2[0].m_peaks, &Peak::m_intensity), kept);
    EXPECT_EQ(pairs(mgf[0].m_peaks, &Peak::m_intensity), kept);
    for (const DroppedValues& dropped : {ms1_dropped, ms2_dropped, mgf_dropped}) {
        EXPECT_EQ(dropped.m_peaks, 5);
        EXPECT_EQ(dropped.m_scans, 0);
    }
}

// A scan whose isolation target, declared precursor or retention time is not
// a number is left out whole; its neighbours are read as ever.
TEST(ImplausibleValues, ScansWithoutFiniteTargetsAreSkipped) {
    const std::string ms2_text =
        "S\t1\t1\nI\tActivationCenter\tnan\nZ\t2\t1000\n10 1\n"
        "S\t2\t2\nI\tActivationCenter\t500\nZ\t2\tinf\n10 1\n"
        "S\t3\t3\nI\tActivationCenter\t500\nZ\t2\t999\n10 1\n"
        "S\t4\t4\nI\tRetTime\tnan\nI\tActivationCenter\t500\nZ\t2\t999\n10 1\n"
        "S\t5\t5\nI\tRetTime\t-inf\nI\tActivationCenter\t500\nZ\t2\t999\n10 1\n";
    const auto [ms2, ms2_dropped] = read_counting(ms2_text, ReadMs2Scan);
    ASSERT_EQ(ms2.size(), 1u);
    EXPECT_EQ(ms2[0].m_scan, 3);
    EXPECT_EQ(ms2_dropped.m_scans, 4);
    const auto [mgf, mgf_dropped] = read_counting(
        "TITLE=a.1.1.2.dta\nPEPMASS=-nan\n10 1\nEND IONS\nTITLE=a.2.2.2.dta\nPEPMASS=500\n10 "
        "1\nEND IONS\n",
        ReadMgfScan);
    ASSERT_EQ(mgf.size(), 1u);
    EXPECT_EQ(mgf[0].m_scan, 2);
    EXPECT_EQ(mgf_dropped.m_scans, 1);
}

// The isotope table: the shipped one reads whole; a table cut short at its end
// keeps its rows; one that holds no number, junk or a value that is not finite
// (which would switch detection off without a word) is refused with its line.
TEST(IsotopeTable, ReadWholeOrRefusedWithItsLine) {
    const std::vector<IpvRow> shipped =
        read_ipv_file(std::string(KSIEVE_SOURCE_DIR) + "/data/IPV.txt");
    ASSERT_EQ(shipped.size(), static_cast<std::size_t>(kIpvRows));
    EXPECT_EQ(shipped[2], (IpvRow{1, 0.000537747, 4.1284e-05, 0, 0}));
    EXPECT_NE(shipped[kIpvRows - 1][0], 0.0);
    test::TempDir dir;
    const std::string path = dir.file("IPV.txt");
    test::write_file(path, "1 0 0 0 0\n0.5 0.5 0 0 0");
    const std::vector<IpvRow> cut = read_ipv_file(path);
    EXPECT_EQ(cut[1], (IpvRow{0.5, 0.5, 0, 0, 0}));
    EXPECT_EQ(cut[2], (IpvRow{}));
    const std::pair<std::string, std::string> refused[] = {
        {"", "line 1: no number"},
        {"\n \n", "line 3: no number"},
        {"\x89PNG\r\n\x1a\n\0\0", "line 1: not a number"},
        {"1 0 0 0 0\n1 0 0 0 0\n1 nan 0 0 0\n", "line 3: not a finite number"},
        {"1 0 0 0 0\n\n1 0.2 0 0 0 inf\n", "line 3: not a finite number"},
        {"1 0 0 0 0\n1 0 0 x 0\n", "line 2: not a number"},
    };
    for (const auto& [text, line] : refused) {
        test::write_file(path, text);
        EXPECT_EQ(test::failure_of<const std::string&>([&] { read_ipv_file(path); }),
                  "Bad IPV Store File, Path: " + path + ", " + line)
            << text;
    }
}

// Titles of other converters: the scan comes from "scan=N", else from the
// block's SCANS= line; a title the grammar reads keeps its number.
TEST(MgfReader, ScanNumbersOfOtherConvertersTitles) {
    struct Case {
        const char* m_blocks;
        std::vector<int32_t> m_scans;
    };
    const Case cases[] = {
        {"TITLE=controllerType=0 controllerNumber=1 scan=17\n10 1\nEND IONS\n"
         "TITLE=controllerType=0 controllerNumber=1 scan=18\n10 1\nEND IONS\n",
         {17, 18}},
        {"BEGIN IONS\nTITLE=Spectrum one\nPEPMASS=500\nSCANS=41\n10 1\nEND IONS\n"
         "BEGIN IONS\nTITLE=Spectrum two\nSCANS=42-43\n10 1\nEND IONS\n",
         {41, 42}},
        {"TITLE=run.7.7.2.dta scan=9\nSCANS=8\n10 1\nEND IONS\n", {7}},
        {"TITLE=run.x.2.dta\nSCANS=8\n10 1\nEND IONS\n", {8}},
        // Neither: the piece reads as scan 0, the default record's own number,
        // so the block folds into it and brings no peaks, as it always did.
        {"TITLE=run.x.2.dta\n10 1\nEND IONS\nSCANS=8\n", {}},
        {"TITLE=run.xscan=4.2.dta\n10 1\nEND IONS\n", {}},
    };
    for (const Case& c : cases) {
        std::vector<int32_t> scans;
        for (const MS2Spectrum& scan : read_counting(c.m_blocks, ReadMgfScan).first) {
            scans.push_back(scan.m_scan);
        }
        EXPECT_EQ(scans, c.m_scans) << c.m_blocks;
    }
    EXPECT_EQ(failure_of_title("TITLE=Spectrum one\n10 1\nEND IONS\n"), kMgfTitleFailure);
}

// With the conventions on, retention time goes out in seconds and the scan
// number follows the title; off, the block is as it always was.
TEST(MgfWriter, ConventionsGiveSecondsAndAScansLine) {
    MS2Spectrum scan;
    scan.m_scan = 12;
    scan.m_retention_time = 1.5;
    scan.m_precursors = {{500.25, 2}};
    scan.m_peaks = {{100, 2}};
    const auto block = [&](bool conventions) {
        test::TempDir dir;
        MgfFile file;
        open_mgf_file(file, dir.file("out.mgf"), "w+", "run");
        file.m_layout.m_conventions = conventions;
        write_mgf_blocks(file, scan);
        release_spectrum_file(file.m_head);
        return test::read_file(dir.file("out.mgf"));
    };
    EXPECT_EQ(block(false),
              "BEGIN IONS\nTITLE=run.12.12.2.0.dta\nCHARGE=2+\nRTINSECONDS=1.5000000\n"
              "PEPMASS=500.250000\n100.00000 2.0\nEND IONS\n");
    EXPECT_EQ(block(true),
              "BEGIN IONS\nTITLE=run.12.12.2.0.dta\nSCANS=12\nCHARGE=2+\nRTINSECONDS=90.0000000\n"
              "PEPMASS=500.250000\n100.00000 2.0\nEND IONS\n");
    // With an intensity measured, the conventions put it behind the m/z; the
    // default layout never does.
    scan.m_precursors[0].m_evidence.m_intensity = 12345.67;
    EXPECT_NE(block(true).find("\nPEPMASS=500.250000 12345.7\n"), std::string::npos);
    EXPECT_NE(block(false).find("\nPEPMASS=500.250000\n"), std::string::npos);
}

// The native id line is new to the format: a pair without it reads exactly as
// before, and with it only the id differs. A repeated block keeps the first id.
TEST(Ms2Reader, TheNativeIdLineChangesNothingElse) {
    const std::string body =
        "I\tActivationType\tHCD\nI\tActivationCenter\t500.5\nI\tPrecursorScan\t3\n"
        "I\tInstrumentType\tFTMS\nI\tRetTime\t2.5\nI\tIonInjectionTime\t20\n"
        "Z\t2\t1000\n10 1\n";
    const std::string old_pair = "S\t5\t5\n" + body + "S\t5\t5\n" + body;
    const std::string new_pair = "S\t5\t5\nI\tNativeID\tcontrollerType=0 scan=5\r\n" + body +
                                 "S\t5\t5\nI\tNativeID\tother\n" + body;
    const auto before = read_all(old_pair, ReadMs2Scan);
    const auto after = read_all(new_pair, ReadMs2Scan);
    ASSERT_EQ(before.size(), 1u);
    ASSERT_EQ(after.size(), 1u);
    EXPECT_EQ(before[0].m_native_id, "");
    EXPECT_EQ(after[0].m_native_id, "controllerType=0 scan=5");
    const auto same = [](const MS2Spectrum& a, const MS2Spectrum& b) {
        return a.m_scan == b.m_scan && a.m_precursor_scan == b.m_precursor_scan &&
               a.m_activation_center == b.m_activation_center &&
               a.m_retention_time == b.m_retention_time &&
               a.m_ion_injection_time == b.m_ion_injection_time &&
               a.m_activation_type == b.m_activation_type &&
               a.m_instrument_type == b.m_instrument_type &&
               pairs(a.m_precursors, &Precursor::m_charge) ==
                   pairs(b.m_precursors, &Precursor::m_charge) &&
               pairs(a.m_peaks, &Peak::m_intensity) == pairs(b.m_peaks, &Peak::m_intensity);
    };
    EXPECT_TRUE(same(before[0], after[0]));
    // The MS1 reader skips the line.
    const auto ms1_before = read_all(std::string("S\t3\t3\nI\tRetTime\t2\n10 1\n"), ReadMs1Scan);
    const auto ms1_after =
        read_all(std::string("S\t3\t3\nI\tNativeID\t7\nI\tRetTime\t2\n10 1\n"), ReadMs1Scan);
    ASSERT_EQ(ms1_after.size(), 1u);
    EXPECT_EQ(ms1_after[0].m_retention_time, ms1_before[0].m_retention_time);
    EXPECT_EQ(pairs(ms1_after[0].m_peaks, &Peak::m_intensity),
              pairs(ms1_before[0].m_peaks, &Peak::m_intensity));
}

// Every row names its precursor by the exact title of its MGF block, and
// nothing taken from the input can break a row.
TEST(EvidenceTable, RowsJoinTheMgfBlocksByTitle) {
    MS2Spectrum scan;
    scan.m_scan = 31;
    scan.m_retention_time = 2.0;
    scan.m_native_id = "a\tb\rc";
    PrecursorEvidence detected;
    detected.m_origin = PrecursorOrigin::kCorrected;
    detected.m_scored = true;
    detected.m_score = 0.5;
    detected.m_same_ion = true;
    detected.m_isotope_shift = 1;
    detected.m_validation = "kept";
    PrecursorEvidence coeluted;
    coeluted.m_origin = PrecursorOrigin::kCoeluted;
    coeluted.m_scored = true;
    scan.m_precursors = {{500.25, 2, detected}, {400.5, -3, coeluted}, {600.0, 2}};
    scan.m_peaks = {{100, 2}};
    std::string mgf;
    std::string peaks;
    format_mgf_blocks(mgf, peaks, MgfLayout{"run", "%.5f %.1f\n", false}, scan);
    std::string rows;
    format_evidence_rows(rows, "run", scan);
    // Fields as a reader of the table cuts them, empty ones kept.
    std::vector<std::vector<std::string>> table;
    std::istringstream lines(rows);
    for (std::string line; std::getline(lines, line);) {
        std::vector<std::string>& fields = table.emplace_back();
        std::istringstream cells(line);
        for (std::string cell; std::getline(cells, cell, '\t');) {
            fields.push_back(cell);
        }
        if (!line.empty() && line.back() == '\t') {
            fields.emplace_back();
        }
    }
    ASSERT_EQ(table.size(), 3u);
    std::size_t from = 0;
    for (std::size_t i = 0; i < table.size(); ++i) {
        ASSERT_EQ(table[i].size(), 13u) << rows;
        from = mgf.find("TITLE=", from);
        ASSERT_NE(from, std::string::npos);
        EXPECT_EQ(mgf.substr(from + 6, mgf.find('\n', from) - from - 6), table[i][3]);
        ++from;
        EXPECT_EQ(table[i][1], "a b c");
        EXPECT_EQ(table[i][4], std::to_string(i + 1));
    }
    EXPECT_EQ(table[0][7], "corrected");
    EXPECT_EQ(table[0][11], "1");
    EXPECT_EQ(table[0][12], "kept");
    EXPECT_EQ(table[1][6], "-3");
    EXPECT_EQ(table[1][7], "coeluted");
    EXPECT_EQ(table[1][11], "");
    EXPECT_EQ(table[2][7], "declared_kept");
    EXPECT_EQ(table[2][8], "");
}

// A path or a marker line comes from the user's disk: quotes, backslashes and
// control bytes stay inside their JSON string, and only well-formed count lines
// of the companion's marker become numbers.
TEST(RunSummary, HostileTextStaysInsideItsString) {
    const std::string json = format_run_summary(
        {{"input", {{"path", "a\"b\\c\nd\x01", false}, {"n", "12", true}}}, {"empty", {}}});
    EXPECT_EQ(json,
              "{\n  \"input\": {\n    \"path\": \"a\\\"b\\\\c\\u000ad\\u0001\",\n"
              "    \"n\": 12\n  },\n  \"empty\": {}\n}\n");
    test::TempDir dir;
    test::write_file(dir.file("run.spexor"), "ms1_read\t24\nms2_read\t-3\nBad Key\t5\n" +
                                                 std::string(400, 'x') +
                                                 "\t7\nms2_written\t118\n"
                                                 "no_tab\n\"q\"\t1\n");
    const std::vector<SummaryValue> account = read_companion_account(dir.file("run.spexor"));
    ASSERT_EQ(account.size(), 2u);
    EXPECT_EQ(account[0].m_key + "=" + account[0].m_text, "ms1_read=24");
    EXPECT_EQ(account[1].m_key + "=" + account[1].m_text, "ms2_written=118");
    EXPECT_TRUE(read_companion_account(dir.file("missing.spexor")).empty());
}

// Each written scan counts once, by the best fate of its declared precursor.
TEST(RunSummary, ScansCountByWhatBecameOfTheDeclaredPrecursor) {
    const auto with = [](std::vector<PrecursorOrigin> origins) {
        MS2Spectrum scan;
        for (const PrecursorOrigin origin : origins) {
            PrecursorEvidence evidence;
            evidence.m_origin = origin;
            scan.m_precursors.emplace_back(500.0, 2, evidence);
        }
        return scan;
    };
    using O = PrecursorOrigin;
    EvidenceCounts counts;
    count_written_scan(counts, with({O::kDetected, O::kDeclaredConfirmed}));
    count_written_scan(counts, with({O::kCorrected, O::kDeclaredKept}));
    count_written_scan(counts, with({O::kDetected, O::kDeclaredKept}));
    count_written_scan(counts, with({O::kDeclaredKept}));
    count_written_scan(counts, with({O::kDetected, O::kCoeluted}));
    EXPECT_EQ(counts.m_scans, 5);
    EXPECT_EQ(counts.m_precursors, 9);
    EXPECT_EQ(counts.m_declared_confirmed, 1);
    EXPECT_EQ(counts.m_declared_corrected, 1);
    EXPECT_EQ(counts.m_declared_kept, 2);
    EXPECT_EQ(counts.m_declared_replaced, 1);
    EXPECT_EQ(counts.m_with_coeluted, 2);
}

}  // namespace
}  // namespace ksieve
