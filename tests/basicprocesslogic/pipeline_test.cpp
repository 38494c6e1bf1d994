// The per-file pipeline on a small pair, with a detection step supplied by the
// test, so that it pins the pipeline's own handling of what detection returns.
#include <gtest/gtest.h>

#include <cstdio>
#include <iostream>

#include "basicprocesslogic.h"
#include "detection.h"
#include "ks_reader.h"
#include "test_support.h"

namespace ksieve {
namespace {

using Tail = std::vector<std::pair<double, int32_t>>;

TEST(PipelineTest, DetectedPrecursorsReachTheOutputsAndTheWindowRunsPastTheParent) {
    const test::TempDir out;
    UserParameters params;
    params.m_outputpath = out.path().string();
    std::vector<std::pair<int32_t, int32_t>> calls;  // MS2 scan, newest MS1 scan in the store
    const PrecursorDetector detector = [&](const UserParameters&, const Ms1Store& store,
                                           const MS2Spectrum& ms2) -> std::vector<Precursor> {
        EXPECT_EQ(store.size(), kMs1StoreSize);
        calls.emplace_back(ms2.m_scan, store.back().m_scan);
        if (ms2.m_scan == 102) {
            return {{700.1, 2}, {0.0, 3}, {650.2, 4}};  // the middle one is invalid
        }
        return {};
    };
    set_current_file(params, std::string(KSIEVE_TEST_DATA_DIR) + "/basicprocesslogic/pair.ms1");
    test::CaptureStream errors(std::cerr);
    process_ms_files(params, detector);
    // The index streams stay open until the process ends.
    std::fflush(nullptr);
    EXPECT_NE(
        errors.text().find("<WARN> - Scan 102 has incorrect precursor infomation, skipping...\n"),
        std::string::npos)
        << errors.text();

    // PQD is gated out; scan 104 (negative charge) and 105 (no valid precursor)
    // never reach detection. The store runs five FT scans past each parent; parent
    // 5 of scan 102 is IT, so its window passes FT scan 6.
    EXPECT_EQ(calls, (std::vector<std::pair<int32_t, int32_t>>{{101, 9}, {102, 11}}));
    EXPECT_EQ(kstest::read_ks_file(out.file("pair.ks1")).records.size(), 15u);
    const kstest::KsContents cid = kstest::read_ks_file(out.file("pair_CIDIT.ks2"));
    ASSERT_EQ(cid.records.size(), 1u);
    EXPECT_EQ(cid.records[0].tail, (Tail{{700.1, 2}, {650.2, 4}}));
    // No detection result: the declared precursor stays.
    const kstest::KsContents hcd = kstest::read_ks_file(out.file("pair_HCDFT.ks2"));
    ASSERT_EQ(hcd.records.size(), 2u);
    EXPECT_EQ(hcd.records[0].tail, (Tail{{(1000.0 + 1.007276) / 2, 2}}));

    const std::string table = test::read_file(out.file("pair.csv"));
    EXPECT_EQ(table.substr(table.find('\n') + 1),
              "HCD, FT, 101, 500.503638, 2, 1, 1, 500.503638, 2, \n"
              "CID, IT, 102, 500.671517, 3, 2, 1, 700.100000, 2, 2, 650.200000, 4, \n"
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

// What detection saw of each MS2 scan: the peaks of the ten records around its
// parent, and how many other records of the window still held their peaks.
struct Seen {
    std::vector<PeakList> m_around_parent;
    std::size_t m_others_held = 0;
};

std::vector<Seen> run_with_ceiling(int32_t ceiling_mib, const test::TempDir& out) {
    UserParameters params;
    params.m_outputpath = out.path().string();
    params.m_memory_ceiling_mib = ceiling_mib;
    std::vector<Seen> seen;
    const PrecursorDetector detector = [&](const UserParameters&, const Ms1Store& store,
                                           const MS2Spectrum& ms2) -> std::vector<Precursor> {
        Seen now;
        const std::optional<SliceRange> range = FindSliceRange(store, ms2);
        for (std::size_t i = 0; i < store.size(); ++i) {
            if (range && i >= range->m_first && i < range->m_end) {
                now.m_around_parent.push_back(store[i].m_peaks);
            } else if (!store[i].m_peaks.empty()) {
                ++now.m_others_held;
            }
        }
        seen.push_back(now);
        return {{700.1, 2}};
    };
    set_current_file(params, std::string(KSIEVE_TEST_DATA_DIR) + "/basicprocesslogic/pair.ms1");
    test::CaptureStream errors(std::cerr);
    process_ms_files(params, detector);
    std::fflush(nullptr);
    return seen;
}

// At a ceiling of nothing every list is let go as soon as it enters the window
// and read again for the parent's neighbourhood only; detection sees the same
// peaks, and every output keeps its bytes.
TEST(PipelineTest, AnyMemoryCeilingGivesIdenticalResults) {
    const test::TempDir tiny_out, roomy_out;
    const std::vector<Seen> tiny = run_with_ceiling(0, tiny_out);
    const std::vector<Seen> roomy = run_with_ceiling(1024, roomy_out);
    ASSERT_EQ(tiny.size(), roomy.size());
    ASSERT_FALSE(tiny.empty());
    std::size_t reread = 0;
    for (std::size_t i = 0; i < tiny.size(); ++i) {
        EXPECT_EQ(tiny[i].m_around_parent.size(), roomy[i].m_around_parent.size());
        for (const PeakList& peaks : tiny[i].m_around_parent) {
            reread += peaks.empty() ? 0 : 1;
        }
        for (std::size_t k = 0; k < tiny[i].m_around_parent.size(); ++k) {
            EXPECT_EQ(peak_pairs(tiny[i].m_around_parent[k]),
                      peak_pairs(roomy[i].m_around_parent[k]));
        }
        EXPECT_EQ(tiny[i].m_others_held, 0u);
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
