// The per-file pipeline on a small pair, with a detection step supplied by the
// test, so that it pins the pipeline's own handling of what detection returns.
#include <gtest/gtest.h>

#include <cstdio>
#include <iostream>

#include "basicprocesslogic.h"
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
