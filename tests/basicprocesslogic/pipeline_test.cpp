// The per-file pipeline on a small pair, with a detection step supplied by the
// test, so that it pins the pipeline's own handling of what detection returns.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>

#include "basicprocesslogic.h"
#include "detection.h"
#include "ks_reader.h"
#include "test_support.h"

namespace ksieve {
namespace {

using Tail = std::vector<std::pair<double, int32_t>>;

// The scan each slice came from (its first peak has 100 times the scan number
// as intensity), 0 for an empty slice.
std::vector<int32_t> slice_scans(const Ms1Slices& raw) {
    std::vector<int32_t> scans;
    for (const PeakList& slice : raw) {
        scans.push_back(slice.empty() ? 0 : static_cast<int32_t>(slice.front().m_intensity / 100));
    }
    return scans;
}

TEST(PipelineTest, DetectedPrecursorsReachTheOutputsAndTheWindowRunsPastTheParent) {
    const test::TempDir out;
    UserParameters params;
    params.m_outputpath = out.path().string();
    params.m_search_window = 1000.0;  // every peak of a slice's scan
    params.m_threads = 1;
    std::vector<std::pair<int32_t, std::vector<int32_t>>> calls;  // MS2 scan, slice scans
    const PrecursorDetector detector = [&](const Ms1Slices& raw, const MS2Spectrum& ms2,
                                           DetectionScratch&) -> std::vector<Precursor> {
        calls.emplace_back(ms2.m_scan, slice_scans(raw));
        if (ms2.m_scan == 101) {
            return {{700.1, 2}, {0.0, 3}, {650.2, 4}};  // the middle one is invalid
        }
        return {};
    };
    const FileContext file = file_context(
        params, std::string(KSIEVE_TEST_DATA_DIR) + "/basicprocesslogic/pair.ms1", "ms1", nullptr);
    test::CaptureStream errors(std::cerr);
    test::CaptureStream output(std::cout);
    process_ms_files(params, file, detector);
    // The index streams stay open until the process ends.
    std::fflush(nullptr);
    EXPECT_NE(
        errors.text().find("<WARN> - Scan 101 has incorrect precursor infomation, skipping...\n"),
        std::string::npos)
        << errors.text();
    EXPECT_NE(output.text().find("<INFO> - Cannot found the precurosr scan of MS2: 5\n"),
              std::string::npos)
        << output.text();

    // PQD is gated out; scan 104 (negative charge) and 105 (no valid precursor)
    // never reach detection, nor does 102, whose parent 5 is IT and so not in
    // the window. The window runs five FT scans past the parent 3 of scan 101
    // (IT scan 5 not counted), and its front holds records without peaks.
    EXPECT_EQ(calls, (std::vector<std::pair<int32_t, std::vector<int32_t>>>{
                         {101, {0, 0, 1, 2, 3, 4, 6, 7, 8, 9}}}));
    EXPECT_EQ(kstest::read_ks_file(out.file("pair.ks1")).records.size(), 15u);
    // No detection: the declared precursors stay.
    const kstest::KsContents cid = kstest::read_ks_file(out.file("pair_CIDIT.ks2"));
    ASSERT_EQ(cid.records.size(), 1u);
    EXPECT_EQ(cid.records[0].tail.size(), 2u);
    const kstest::KsContents hcd = kstest::read_ks_file(out.file("pair_HCDFT.ks2"));
    ASSERT_EQ(hcd.records.size(), 2u);
    EXPECT_EQ(hcd.records[0].tail, (Tail{{700.1, 2}, {650.2, 4}}));

    const std::string table = test::read_file(out.file("pair.csv"));
    EXPECT_EQ(table.substr(table.find('\n') + 1),
              "HCD, FT, 101, 500.503638, 2, 2, 1, 700.100000, 2, 2, 650.200000, 4, \n"
              "CID, IT, 102, 500.671517, 3, 2, 1, 500.671517, 3, 2, 600.503638, 2, \n"
              "HCD, FT, 104, 610.250000, -2, 1, 1, 610.250000, -2, \n");
}

}  // namespace
}  // namespace ksieve

namespace ksieve {
namespace {

std::vector<std::pair<double, double>> peak_pairs(const PeakList& peaks) {
    std::vector<std::pair<double, double>> pairs;
    for (const Peak& peak : peaks) {
        pairs.emplace_back(peak.m_mz, peak.m_intensity);
    }
    return pairs;
}

// The slices that detection saw of each MS2 scan.
// Its standard error goes to `errors_text` when given.
std::vector<Ms1Slices> run_with_ceiling(int32_t ceiling_mib, const test::TempDir& out,
                                        std::string* errors_text = nullptr) {
    UserParameters params;
    params.m_outputpath = out.path().string();
    params.m_memory_ceiling_mib = ceiling_mib;
    params.m_search_window = 1000.0;
    params.m_threads = 1;
    std::vector<Ms1Slices> seen;
    const PrecursorDetector detector = [&](const Ms1Slices& raw, const MS2Spectrum&,
                                           DetectionScratch&) -> std::vector<Precursor> {
        seen.push_back(raw);
        return {{700.1, 2}};
    };
    const FileContext file = file_context(
        params, std::string(KSIEVE_TEST_DATA_DIR) + "/basicprocesslogic/pair.ms1", "ms1", nullptr);
    test::CaptureStream errors(std::cerr);
    test::CaptureStream output(std::cout);
    process_ms_files(params, file, detector);
    std::fflush(nullptr);
    if (errors_text != nullptr) {
        *errors_text = errors.text();
    }
    return seen;
}

// At a ceiling of nothing every list is let go as soon as it enters the window
// and read again for the parent's neighbourhood only; detection sees the same
// peaks, and every output keeps its bytes.
// The ceiling that cannot hold a scan's window is told once per file, as it
// costs time (every scan reads its slices again); one that can is not.
TEST(PipelineTest, AnyMemoryCeilingGivesIdenticalResults) {
    const test::TempDir tiny_out, roomy_out;
    std::string tiny_errors, roomy_errors;
    const std::vector<Ms1Slices> tiny = run_with_ceiling(0, tiny_out, &tiny_errors);
    const std::vector<Ms1Slices> roomy = run_with_ceiling(1024, roomy_out, &roomy_errors);
    const std::string warning = "<WARN> - The memory ceiling of 0 MiB cannot hold the MS1 window";
    const std::size_t first = tiny_errors.find(warning);
    EXPECT_NE(first, std::string::npos) << tiny_errors;
    EXPECT_EQ(tiny_errors.find(warning, first + 1), std::string::npos) << tiny_errors;
    EXPECT_EQ(roomy_errors.find("memory ceiling"), std::string::npos) << roomy_errors;
    ASSERT_EQ(tiny.size(), roomy.size());
    ASSERT_FALSE(tiny.empty());
    std::size_t reread = 0;
    for (std::size_t i = 0; i < tiny.size(); ++i) {
        ASSERT_EQ(tiny[i].size(), roomy[i].size());
        for (std::size_t k = 0; k < tiny[i].size(); ++k) {
            reread += tiny[i][k].empty() ? 0 : 1;
            EXPECT_EQ(peak_pairs(tiny[i][k]), peak_pairs(roomy[i][k]));
        }
    }
    EXPECT_GT(reread, 0u);
    for (const char* name : {"pair.ks1", "pair.ks1idx", "pair.csv", "pair_HCDFT.ks2",
                             "pair_CIDIT.ks2", "pair_HCDFT.mgf", "pair_CIDIT.mgf"}) {
        EXPECT_EQ(test::read_file(tiny_out.file(name)), test::read_file(roomy_out.file(name)))
            << name;
    }
}

}  // namespace
}  // namespace ksieve

namespace ksieve {
namespace {

// A failure on a worker thread reaches the caller as it was thrown, after the
// scans before it are written and every worker has stopped; the table keeps its
// unfinished name, so the next run does the input again.
TEST(PipelineTest, AFailureOnAWorkerEndsTheFileAsItWouldOnOneThread) {
    for (const int32_t threads : {1, 3}) {
        const test::TempDir out;
        UserParameters params;
        params.m_outputpath = out.path().string();
        params.m_search_window = 1000.0;
        params.m_threads = threads;
        const PrecursorDetector detector = [](const Ms1Slices&, const MS2Spectrum& ms2,
                                              DetectionScratch&) -> std::vector<Precursor> {
            if (ms2.m_scan == 101) {
                throw std::runtime_error("detector gave up on 101");
            }
            return {};
        };
        const FileContext file =
            file_context(params, std::string(KSIEVE_TEST_DATA_DIR) + "/basicprocesslogic/pair.ms1",
                         "ms1", nullptr);
        test::CaptureStream errors(std::cerr);
        test::CaptureStream output(std::cout);
        std::string thrown = "<nothing thrown>";
        try {
            process_ms_files(params, file, detector);
        } catch (const std::runtime_error& error) {
            thrown = error.what();
        }
        std::fflush(nullptr);
        EXPECT_EQ(thrown, "detector gave up on 101") << threads;
        EXPECT_TRUE(std::filesystem::exists(out.file("pair.csv_unfinished"))) << threads;
        EXPECT_FALSE(std::filesystem::exists(out.file("pair.csv"))) << threads;
    }
}

}  // namespace
}  // namespace ksieve

namespace ksieve {
namespace {

// A FAIMS run of two compensation voltages taken in turn: odd survey scans at
// -45 V, even ones at -65 V. MS2 scan 100 has a parent at -45 V and says so;
// 101 says nothing, and its parent is at -65 V; 102 says -65 V, but its parent is
// at -45 V, and the parent's voltage is the one its ions passed at.
void write_faims_pair(const test::TempDir& dir) {
    std::string ms1;
    for (int scan = 1; scan <= 30; ++scan) {
        ms1 += "S\t" + std::to_string(scan) + "\t" + std::to_string(scan) +
               "\nI\tInstrumentType\tFTMS\nI\tCentroiding\tas stored\nI\tCompensationVoltage\t" +
               (scan % 2 == 1 ? "-45" : "-65") + "\n500.0 " + std::to_string(100 * scan) +
               "\n501.0 1\n";
    }
    test::write_file(dir.file("faims.ms1"), ms1);
    std::string ms2;
    const std::pair<int, const char*> scans[] = {{11, "-45"}, {12, nullptr}, {13, "-65"}};
    int number = 99;
    for (const auto& [parent, voltage] : scans) {
        ++number;
        ms2 +=
            "S\t" + std::to_string(number) + "\t" + std::to_string(number) +
            "\t500.0\nI\tActivationType\tHCD\nI\tActivationCenter\t500.0\nI\tPrecursorScan\t" +
            std::to_string(parent) + "\nI\tInstrumentType\tFTMS\n" +
            (voltage != nullptr ? std::string("I\tCompensationVoltage\t") + voltage + "\n" : "") +
            "Z\t2\t999.0\n200 1\n";
    }
    test::write_file(dir.file("faims.ms2"), ms2);
}

std::vector<std::vector<int32_t>> faims_slice_scans(bool by_voltage, int32_t ceiling_mib) {
    const test::TempDir dir;
    write_faims_pair(dir);
    UserParameters params;
    params.m_outputpath = dir.path().string();
    params.m_search_window = 1000.0;
    params.m_threads = 1;
    params.m_faims_windows = by_voltage;
    params.m_memory_ceiling_mib = ceiling_mib;
    std::vector<std::vector<int32_t>> seen;
    const PrecursorDetector detector = [&](const Ms1Slices& raw, const MS2Spectrum&,
                                           DetectionScratch&) -> std::vector<Precursor> {
        seen.push_back(slice_scans(raw));
        return {};
    };
    test::CaptureStream errors(std::cerr);
    test::CaptureStream output(std::cout);
    process_ms_files(params, file_context(params, dir.file("faims.ms1"), "ms1", nullptr), detector);
    std::fflush(nullptr);
    return seen;
}

TEST(PipelineTest, EachMs2ScanIsJudgedAgainstTheSurveyScansOfItsParentsVoltage) {
    using Scans = std::vector<std::vector<int32_t>>;
    const Scans by_voltage = {{3, 5, 7, 9, 11, 13, 15, 17, 19, 21},
                              {4, 6, 8, 10, 12, 14, 16, 18, 20, 22},
                              {5, 7, 9, 11, 13, 15, 17, 19, 21, 23}};
    EXPECT_EQ(faims_slice_scans(true, 1024), by_voltage);
    // Each voltage's window lets its lists go and reads them again on its own.
    EXPECT_EQ(faims_slice_scans(true, 0), by_voltage);
    EXPECT_EQ(faims_slice_scans(false, 1024), (Scans{{7, 8, 9, 10, 11, 12, 13, 14, 15, 16},
                                                     {8, 9, 10, 11, 12, 13, 14, 15, 16, 17},
                                                     {9, 10, 11, 12, 13, 14, 15, 16, 17, 18}}));
}

// A run whose first twelve survey scans come before any MS2 scan, with MS2
// scans that name no parent (the pipeline then reads no MS1 for them) and
// survey scans left after the last MS2 scan.
void write_uneven_pair(const test::TempDir& dir) {
    std::string ms1;
    for (int scan : {1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12, 15, 17, 18, 19, 20, 21,
                     22, 23, 24, 25, 26, 27, 28, 29, 30, 32, 33, 34, 35, 36, 37, 38, 39, 40}) {
        ms1 += "S\t" + std::to_string(scan) + "\t" + std::to_string(scan) +
               "\nI\tInstrumentType\tFTMS\n500.0 " + std::to_string(100 * scan) + "\n";
    }
    test::write_file(dir.file("uneven.ms1"), ms1);
    std::string ms2;
    for (const auto& [scan, parent] : {std::pair{13, 2}, {14, 0}, {16, 15}, {31, 0}}) {
        ms2 += "S\t" + std::to_string(scan) + "\t" + std::to_string(scan) +
               "\t500.0\nI\tActivationType\tHCD\nI\tActivationCenter\t500.0\n" +
               (parent > 0 ? "I\tPrecursorScan\t" + std::to_string(parent) + "\n" : "") +
               "I\tInstrumentType\tFTMS\nZ\t2\t999.0\n200 1\n";
    }
    test::write_file(dir.file("uneven.ms2"), ms2);
}

// The spectrum ids of the mzML, in file order.
std::vector<std::string> mzml_ids(const std::string& text) {
    std::vector<std::string> ids;
    for (std::size_t at = text.find("<spectrum index="); at != std::string::npos;
         at = text.find("<spectrum index=", at + 1)) {
        const std::size_t start = text.find("id=\"", at) + 4;
        ids.push_back(text.substr(start, text.find('"', start) - start));
    }
    return ids;
}

// The MS1 scans are taken as the pipeline reads them, and read by the mzML's
// own stream where the pipeline has not read that far or could not keep them
// waiting: each survey scan must still come exactly once, before the first MS2
// scan numbered above it, at any thread count and memory ceiling. With more than
// one thread a helper thread encodes the survey scans: the file must not tell.
TEST(PipelineTest, MzmlHoldsEverySurveyScanOnceBeforeTheMs2ScansAfterIt) {
    std::string first_spectra;
    std::vector<std::string> expected;
    for (int scan = 1; scan <= 40; ++scan) {
        expected.push_back("scan=" + std::to_string(scan));
    }
    for (const int32_t threads : {1, 2}) {
        for (const int32_t ceiling_mib : {1024, 0}) {
            const test::TempDir dir;
            write_uneven_pair(dir);
            UserParameters params;
            params.m_outputpath = dir.path().string();
            params.m_threads = threads;
            params.m_memory_ceiling_mib = ceiling_mib;
            params.m_output_mzml = true;
            const PrecursorDetector detector = [](const Ms1Slices&, const MS2Spectrum&,
                                                  DetectionScratch&) -> std::vector<Precursor> {
                return {};
            };
            test::CaptureStream errors(std::cerr);
            test::CaptureStream output(std::cout);
            process_ms_files(params, file_context(params, dir.file("uneven.ms1"), "ms1", nullptr),
                             detector);
            std::fflush(nullptr);
            const std::string file = test::read_file(dir.file("uneven.ksieve.mzML"));
            EXPECT_EQ(mzml_ids(file), expected)
                << threads << " threads, ceiling " << ceiling_mib << " MiB";
            // The header names the temporary directory; the spectra must
            // agree byte for byte.
            const std::size_t start = file.find("<spectrumList");
            const std::string spectra = file.substr(start, file.find("<indexList") - start);
            if (first_spectra.empty()) {
                first_spectra = spectra;
            }
            EXPECT_EQ(spectra, first_spectra)
                << threads << " threads, ceiling " << ceiling_mib << " MiB";
        }
    }
}

}  // namespace
}  // namespace ksieve

namespace ksieve {
namespace {

// A plain run of `survey` FT scans of five peaks each, and an MS2 scan on every
// 40th survey scan from the 20th.
void write_long_pair(const test::TempDir& dir, int survey) {
    std::string ms1, ms2;
    for (int scan = 1; scan <= survey; ++scan) {
        ms1 += "S\t" + std::to_string(scan) + "\t" + std::to_string(scan) +
               "\nI\tInstrumentType\tFTMS\n";
        for (int peak = 0; peak < 5; ++peak) {
            ms1 += std::to_string(500 + peak) + ".0 " + std::to_string(100 * scan + peak) + "\n";
        }
    }
    for (int parent = 20; parent < survey - 10; parent += 40) {
        ms2 += "S\t" + std::to_string(1000 + parent) + "\t" + std::to_string(1000 + parent) +
               "\t500.0\nI\tActivationType\tHCD\nI\tActivationCenter\t500.0\nI\tPrecursorScan\t" +
               std::to_string(parent) + "\nI\tInstrumentType\tFTMS\nZ\t2\t999.0\n200 1\n";
    }
    test::write_file(dir.file("long.ms1"), ms1);
    test::write_file(dir.file("long.ms2"), ms2);
}

// What the windows did on the long run at `ceiling_mib` (the default without).
Ms1WindowCounts long_run_counts(std::optional<int32_t> ceiling_mib) {
    const test::TempDir dir;
    write_long_pair(dir, 300);
    UserParameters params;
    params.m_outputpath = dir.path().string();
    params.m_threads = 1;
    if (ceiling_mib) {
        params.m_memory_ceiling_mib = *ceiling_mib;
    }
    const PrecursorDetector detector = [](const Ms1Slices&, const MS2Spectrum&,
                                          DetectionScratch&) -> std::vector<Precursor> {
        return {};
    };
    test::CaptureStream errors(std::cerr);
    test::CaptureStream output(std::cout);
    const Ms1WindowCounts counts = process_ms_files(
        params, file_context(params, dir.file("long.ms1"), "ms1", nullptr), detector);
    std::fflush(nullptr);
    return counts;
}

// At a ceiling of nothing each parent's neighbourhood is read again and only it
// is held, however long the run; at the default ceiling a run this small is
// held whole and nothing is read twice.
TEST(PipelineTest, TheCeilingDecidesWhatIsHeldAndWhatIsReadAgain) {
    const Ms1WindowCounts tiny = long_run_counts(0);
    const Ms1WindowCounts roomy = long_run_counts(std::nullopt);
    // Seven parents, each with up to ten survey scans read again.
    EXPECT_GE(tiny.m_rereads, 7 * 5);
    EXPECT_LE(tiny.m_rereads, 7 * 11);
    // Five peaks fill a list of capacity 8; a neighbourhood is at most 11
    // lists, with one more scan on its way in.
    EXPECT_LE(tiny.m_most_held_bytes, 12 * 8 * sizeof(Peak));
    EXPECT_GT(tiny.m_most_held_bytes, 0u);
    EXPECT_EQ(roomy.m_rereads, 0);
    EXPECT_GE(roomy.m_most_held_bytes, 300 * 5 * sizeof(Peak));
}

}  // namespace
}  // namespace ksieve
