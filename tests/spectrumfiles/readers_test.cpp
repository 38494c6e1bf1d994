#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "spectrumfiles.h"
#include "test_support.h"

namespace ksieve {
namespace {

// Every scan of `text`, read through a real file with `read` until it reports
// the end; the end must then hold on a second call too.
template <typename File, typename Scan>
std::vector<Scan> read_all(const std::string& text, bool (*read)(File&, Scan&),
                           int32_t* count = nullptr) {
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
    if (count != nullptr) {
        *count = file.m_head.m_scan_count;
    }
    finish_spectrum_file(file.m_head);
    release_spectrum_file(file.m_head);
    return scans;
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

TEST(Ms1Reader, ScansEndAtTheNextSLineOrTheEndOfTheFile) {
    const std::string text =
        "H\tCreationDate\tnow\nS\t7\t7\nI\tRetTime\t1.25\nI\tIonInjectionTime\t3.5\n"
        "I\tInstrumentType\tFTMS\n300.5 10\n100.25 7\n100.25 2\nS\t9\t9\n"
        "I\tInstrumentType\tITMS\n50 1\nS\t11\t11\nI\tRetTime\t8\nS\t12\t12\n60 1\n";
    int32_t count = 0;
    const auto scans = read_all(text, ReadMs1Scan, &count);
    ASSERT_EQ(scans.size(), 3u);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(scans[0].m_scan, 7);
    EXPECT_EQ(scans[0].m_retention_time, 1.25);
    EXPECT_EQ(scans[0].m_ion_injection_time, 3.5);
    EXPECT_EQ(scans[0].m_instrument_type, "FT");
    EXPECT_EQ(pairs(scans[0].m_peaks, &Peak::m_intensity),
              (Pairs{{100.25, 2}, {100.25, 7}, {300.5, 10}}));
    EXPECT_EQ(scans[1].m_instrument_type, "IT");
    // A scan with no peak is overwritten by the next, which keeps what it set.
    EXPECT_EQ(scans[2].m_scan, 12);
    EXPECT_EQ(scans[2].m_retention_time, 8);
    EXPECT_TRUE(read_all("S\t1\t1\nI\tRetTime\t2\n", ReadMs1Scan).empty());
}

TEST(Ms1Reader, AnyPeakListComesOutInPeakOrder) {
    std::mt19937 random(7);
    std::uniform_int_distribution<int> value(0, 40);
    std::string text = "S\t1\t1\n";
    std::vector<Peak> written;
    for (int i = 0; i < 500; ++i) {
        written.push_back({value(random) * 0.5, static_cast<double>(value(random))});
        text += std::to_string(written.back().m_mz) + " " +
                std::to_string(written.back().m_intensity) + "\n";
    }
    const auto scans = read_all(text, ReadMs1Scan);
    std::sort(written.begin(), written.end(), peak_less);
    ASSERT_EQ(scans.size(), 1u);
    EXPECT_EQ(pairs(scans[0].m_peaks, &Peak::m_intensity), pairs(written, &Peak::m_intensity));
}

TEST(Ms2Reader, InfoLinesAreToldApartByFixedPositions) {
    // The long InstrumentType line leaves its 'Q' behind in the line buffer; the
    // short one of scan 6 must not see it.
    const std::string text =
        "S\t5\t5\nI\tActivationType\tHCD \t\r\nI\tActivationCenter\t500.25\n"
        "I\tPrecursorScan\t4\nI\tIgnoredKeyword\t9\nI\tInstrumentType\tQExactive\n100 1\n"
        "S\t6\t6\nI\tIn\n100 1\nS\t7\t7\nI\tInstrumentType\tOrbitrap\n100 1\n";
    const auto scans = read_all(text, ReadMs2Scan);
    ASSERT_EQ(scans.size(), 3u);
    EXPECT_EQ(scans[0].m_activation_type, "HCD");
    EXPECT_EQ(scans[0].m_activation_center, 500.25);
    EXPECT_EQ(scans[0].m_precursor_scan, 4);
    EXPECT_EQ(scans[0].m_instrument_type, "FT");
    EXPECT_EQ(scans[1].m_instrument_type, "Unknown");
    EXPECT_EQ(scans[2].m_instrument_type, "Unknown");
}

TEST(Ms2Reader, ChargeLinesFollowTheMassAndCentreRules) {
    const std::string text =
        "S\t1\t1\nZ\t2\t0\nI\tActivationCenter\t400.5\nZ\t2\t0\nZ\t3\t1500.5\nZ\t0\t900\n"
        "Z\t-2\t0\n10 1\n";
    test::CaptureStream errors(std::cerr);
    const auto scans = read_all(text, ReadMs2Scan);
    ASSERT_EQ(scans.size(), 1u);
    // Mass 0 stands for the centre read so far.
    const Pairs kept = {{400.5, 2}, {(1500.5 + 2 * 1.007276) / 3, 3}, {400.5, -2}};
    EXPECT_EQ(pairs(scans[0].m_precursors, &Precursor::m_charge), kept);
    EXPECT_EQ(pairs(scans[0].m_instrument_precursors, &Precursor::m_charge), kept);
    // The centre before its line (m/z 0) and charge 0 are both dropped.
    const std::string warning =
        "[kSieve] <WARN> - Scan 1 has incorrect precursor infomation, skipping this precursor...\n";
    EXPECT_EQ(errors.text(), warning + warning);
}

// Windows line ends and an over-long comment line, whose later pieces start
// with 'x' and are skipped, change nothing.
std::string as_windows_text(const std::string& text) {
    std::string converted = "H\t" + std::string(3000, 'x') + "\r\n";
    for (char c : text) {
        converted += c == '\n' ? std::string("\r\n") : std::string(1, c);
    }
    return converted;
}

TEST(Ms2Reader, RepeatedBlocksFoldIntoOneScanWhateverTheLineEnds) {
    const std::string text =
        "S\t5\t5\nI\tActivationType\tHCD\nI\tPrecursorScan\t3\nZ\t2\t1000\n20 1\n10 1\n"
        "S\t5\t5\nI\tActivationType\tCID\nI\tPrecursorScan\t9\nI\tRetTime\t7\nZ\t3\t1000\n10 1.5\n"
        "S\t6\t6\nI\tActivationType\tETD\n30 1\n";
    for (const std::string& input : {text, as_windows_text(text)}) {
        const auto scans = read_all(input, ReadMs2Scan);
        ASSERT_EQ(scans.size(), 2u);
        EXPECT_EQ(pairs(scans[0].m_peaks, &Peak::m_intensity),
                  (Pairs{{10, 1}, {10, 1.5}, {20, 1}}));
        EXPECT_EQ(pairs(scans[0].m_precursors, &Precursor::m_charge),
                  (Pairs{{(1000 + 1.007276) / 2, 2}, {(1000 + 2 * 1.007276) / 3, 3}}));
        EXPECT_EQ(scans[0].m_activation_type, "HCD");
        EXPECT_EQ(scans[0].m_precursor_scan, 3);
        EXPECT_EQ(scans[0].m_retention_time, 7);
        EXPECT_EQ(scans[1].m_activation_type, "ETD");
    }
    // Scan number 0 equals the default record's: its activation is not taken.
    const auto zero = read_all("S\t0\t0\nI\tActivationType\tHCD\n10 1\n", ReadMs2Scan);
    ASSERT_EQ(zero.size(), 1u);
    EXPECT_EQ(zero[0].m_activation_type, "");
}

TEST(MgfReader, BlocksOfOneScanFoldWithTheirCharges) {
    const std::string text =
        "BEGIN IONS\nTITLE=run.10.10.2.dta\nPEPMASS=500.5 1000\nCHARGE=3-\n200 5\n100 4\nEND IONS\n"
        "BEGIN IONS\nTITLE=run.10.10.3.dta\nPEPMASS=600.5\n300 9\nEND IONS\n"
        "BEGIN IONS\nTITLE=run.11.11.2.dta\nCHARGE=2+ and 3+\n50 1\nEND IONS\n"
        "BEGIN IONS\nTITLE=run.12.12.2.dta\nPEPMASS=700\n60 1\nEND IONS\n";
    test::CaptureStream errors(std::cerr);
    int32_t count = 0;
    const auto scans = read_all(text, ReadMgfScan, &count);
    ASSERT_EQ(scans.size(), 3u);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(scans[0].m_scan, 10);
    EXPECT_EQ(pairs(scans[0].m_peaks, &Peak::m_intensity), (Pairs{{100, 4}, {200, 5}}));
    // The second block inherits the charge, not the default.
    EXPECT_EQ(pairs(scans[0].m_precursors, &Precursor::m_charge),
              (Pairs{{500.5, -3}, {600.5, -3}}));
    // Scan 11 has no PEPMASS: its precursor is dropped, the spectrum stays.
    EXPECT_TRUE(scans[1].m_precursors.empty());
    EXPECT_EQ(errors.text(),
              "[kSieve] <WARN> - Scan 11 has incorrect precursor infomation, "
              "skipping this precursor...\n");
    EXPECT_EQ(pairs(scans[2].m_precursors, &Precursor::m_charge), (Pairs{{700, 2}}));
}

TEST(MgfReader, TitlesWithoutASecondPieceFailWithTheTitleMessage) {
    const char* thrown = nullptr;
    try {
        read_all("TITLE=nodots\n1 1\n", ReadMgfScan);
    } catch (const char* message) {
        thrown = message;
    }
    ASSERT_NE(thrown, nullptr);
    EXPECT_STREQ(thrown, kMgfTitleFailure);
    EXPECT_TRUE(read_all("TITLE=a.7.7.2.dta\nEND IONS\n", ReadMgfScan).empty());
}

}  // namespace
}  // namespace ksieve
