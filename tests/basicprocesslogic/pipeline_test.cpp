// The per-file pipeline runs on a small pair, with every KS file read back from its
// bytes. The detection step is supplied by the test, so it pins the pipeline's
// own handling of what detection returns, whatever detection finds.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <set>

#include "basicprocesslogic.h"
#include "ks_reader.h"
#include "test_support.h"

namespace ksieve {
namespace {

namespace fs = std::filesystem;
using Peaks = std::vector<std::pair<double, double>>;
using Tail = std::vector<std::pair<double, int32_t>>;

const std::string kData = std::string(KSIEVE_TEST_DATA_DIR) + "/basicprocesslogic";

std::set<std::string> names_in(const fs::path& directory) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory)) {
        names.insert(entry.path().filename().string());
    }
    return names;
}

// Count, title, and an index that names every record at its true offset.
kstest::KsContents read_checked(const std::string& path) {
    const kstest::KsContents ks = kstest::read_ks_file(path);
    EXPECT_EQ(ks.title, "pair");
    EXPECT_EQ(ks.count, ks.records.size()) << path;
    const auto index = kstest::read_ks_index(path + "idx");
    EXPECT_EQ(index.size(), ks.records.size()) << path;
    for (size_t i = 0; i < index.size() && i < ks.records.size(); ++i) {
        EXPECT_EQ(index[i].first, ks.records[i].scan) << path << " entry " << i;
        EXPECT_EQ(index[i].second, ks.records[i].offset) << path << " entry " << i;
    }
    return ks;
}

struct DetectorCall {
    int32_t scan;
    size_t store_size;
    int32_t newest_scan;
};

TEST(PipelineTest, PairProducesAllOutputsFromDetectionAndDeclaredPrecursors) {
    const test::TempDir out;
    UserParameters params;
    params.m_outputpath = out.path().string();
    std::vector<DetectorCall> calls;
    const PrecursorDetector detector = [&](const UserParameters&, const Ms1Store& store,
                                           const MS2Spectrum& ms2) -> std::vector<Precursor> {
        calls.push_back({ms2.m_scan, store.size(), store.back().m_scan});
        if (ms2.m_scan == 102) {
            return {{700.1, 2}, {0.0, 3}, {650.2, 4}};  // the middle one is invalid
        }
        return {};
    };
    set_current_file(params, kData + "/pair.ms1");
    std::string warnings;
    {
        test::CaptureStream errors(std::cerr);
        process_ms_files(params, detector);
        warnings = errors.text();
    }
    // The index streams stay open until the process ends; flush them so that
    // the files on disk are complete before they are read back.
    std::fflush(nullptr);
    // The one invalid entry that detection returned is dropped with its own line.
    EXPECT_NE(warnings.find("<WARN> - Scan 102 has incorrect precursor infomation, skipping...\n"),
              std::string::npos)
        << warnings;

    // PQD is gated out; scan 104 (negative charge) and 105 (no valid precursor)
    // never reach detection. The window runs five FT scans past each parent.
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].scan, 101);
    EXPECT_EQ(calls[0].newest_scan, 9);
    EXPECT_EQ(calls[1].scan, 102);
    EXPECT_EQ(calls[1].newest_scan, 11);  // parent 5 is IT: the window passes FT scan 6
    EXPECT_EQ(calls[1].store_size, kMs1StoreSize);

    EXPECT_EQ(names_in(out.path()),
              (std::set<std::string>{"pair.csv", "pair.ks1", "pair.ks1idx", "pair_CIDIT.ks2",
                                     "pair_CIDIT.ks2idx", "pair_HCDFT.ks2", "pair_HCDFT.ks2idx",
                                     "pair_CIDIT.mgf", "pair_HCDFT.mgf"}));

    // Every MS1 scan reaches KS1, the IT one and those no MS2 scan needed included.
    const auto ks1 = read_checked(out.file("pair.ks1"));
    ASSERT_EQ(ks1.records.size(), 15u);
    EXPECT_EQ(ks1.records[0].offset, 8 + 4);
    for (int32_t s = 1; s <= 15; ++s) {
        const kstest::KsRecord& record = ks1.records[static_cast<size_t>(s - 1)];
        EXPECT_EQ(record.scan, s);
        EXPECT_EQ(record.peaks, (Peaks{{400 + s + 0.25, 100.0 * s}, {800 + s + 0.5, 10.0 * s}}));
        EXPECT_EQ(record.tail, (Tail{{0.25 * s, 1}}));
    }

    const auto hcd = read_checked(out.file("pair_HCDFT.ks2"));
    ASSERT_EQ(hcd.records.size(), 2u);
    EXPECT_EQ(hcd.records[0].scan, 101);
    EXPECT_EQ(hcd.records[0].peaks, (Peaks{{150.1, 20}, {250.2, 30}}));
    ASSERT_EQ(hcd.records[0].tail.size(), 1u);
    EXPECT_DOUBLE_EQ(hcd.records[0].tail[0].first, 500.503638);
    EXPECT_EQ(hcd.records[0].tail[0].second, 2);
    EXPECT_EQ(hcd.records[1].scan, 104);
    EXPECT_EQ(hcd.records[1].tail, (Tail{{610.25, -2}}));

    const auto cid = read_checked(out.file("pair_CIDIT.ks2"));
    ASSERT_EQ(cid.records.size(), 1u);
    EXPECT_EQ(cid.records[0].tail, (Tail{{700.1, 2}, {650.2, 4}}));

    // The table lists the same precursors in the same order as the KS2 record.
    const std::string table = test::read_file(out.file("pair.csv"));
    EXPECT_EQ(table.substr(table.find('\n') + 1),
              "HCD, FT, 101, 500.503638, 2, 1, 1, 500.503638, 2, \n"
              "CID, IT, 102, 500.671517, 3, 2, 1, 700.100000, 2, 2, 650.200000, 4, \n"
              "HCD, FT, 104, 610.250000, -2, 1, 1, 610.250000, -2, \n");
}

}  // namespace
}  // namespace ksieve
