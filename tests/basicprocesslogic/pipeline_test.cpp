// The per-file flows run on small inputs, with every KS file read back from its
// bytes. The detection step is supplied by the test, so these cases pin the
// pipeline's own handling of what detection returns, whatever detection finds.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
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

class PipelineTest : public ::testing::Test {
  protected:
    void SetUp() override { m_params.m_outputpath = m_out.path().string(); }

    // The index streams stay open until the process ends; flush them so that
    // the files on disk are complete before they are read back.
    std::string out(const std::string& name) const {
        std::fflush(nullptr);
        return m_out.file(name);
    }
    std::set<std::string> output_names() const {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(m_out.path())) {
            names.insert(entry.path().filename().string());
        }
        return names;
    }
    std::vector<std::string> lines_of(const std::string& name) const {
        std::ifstream in(out(name));
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);) {
            lines.push_back(line);
        }
        return lines;
    }
    // Count, title, and an index that names every record at its true offset.
    kstest::KsContents read_checked(const std::string& name, const std::string& title) const {
        const kstest::KsContents ks = kstest::read_ks_file(out(name));
        EXPECT_EQ(ks.title, title);
        EXPECT_EQ(ks.count, ks.records.size()) << name;
        const auto index = kstest::read_ks_index(out(name + "idx"));
        EXPECT_EQ(index.size(), ks.records.size()) << name;
        for (size_t i = 0; i < index.size() && i < ks.records.size(); ++i) {
            EXPECT_EQ(index[i].first, ks.records[i].scan) << name << " entry " << i;
            EXPECT_EQ(index[i].second, ks.records[i].offset) << name << " entry " << i;
        }
        return ks;
    }

    test::TempDir m_out;
    UserParameters m_params;
};

struct DetectorCall {
    int32_t scan;
    size_t store_size;
    int32_t newest_scan;
};

TEST_F(PipelineTest, PairProducesAllOutputsFromDetectionAndDeclaredPrecursors) {
    std::vector<DetectorCall> calls;
    const PrecursorDetector detector = [&](const UserParameters&, const Ms1Store& store,
                                           const MS2Spectrum& ms2) -> std::vector<Precursor> {
        calls.push_back({ms2.m_scan, store.size(), store.back().m_scan});
        if (ms2.m_scan == 102) {
            return {{700.1, 2}, {0.0, 3}, {650.2, 4}};  // the middle one is invalid
        }
        return {};
    };
    set_current_file(m_params, kData + "/pair.ms1");
    process_ms_files(m_params, detector);

    // PQD is gated out; scan 104 (negative charge) and 105 (no valid precursor)
    // never reach detection. The window runs five FT scans past each parent.
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].scan, 101);
    EXPECT_EQ(calls[0].newest_scan, 9);
    EXPECT_EQ(calls[1].scan, 102);
    EXPECT_EQ(calls[1].newest_scan, 11);  // parent 5 is IT: the window passes FT scan 6
    EXPECT_EQ(calls[1].store_size, kMs1StoreSize);

    EXPECT_EQ(output_names(),
              (std::set<std::string>{"pair.csv", "pair.ks1", "pair.ks1idx", "pair_CIDIT.ks2",
                                     "pair_CIDIT.ks2idx", "pair_HCDFT.ks2", "pair_HCDFT.ks2idx",
                                     "pair_CIDIT.mgf", "pair_HCDFT.mgf"}));

    // Every MS1 scan reaches KS1, the IT one and those no MS2 scan needed included.
    const auto ks1 = read_checked("pair.ks1", "pair");
    ASSERT_EQ(ks1.records.size(), 15u);
    EXPECT_EQ(ks1.records[0].offset, 8 + 4);
    for (int32_t s = 1; s <= 15; ++s) {
        const kstest::KsRecord& record = ks1.records[static_cast<size_t>(s - 1)];
        EXPECT_EQ(record.scan, s);
        EXPECT_EQ(record.peaks, (Peaks{{400 + s + 0.25, 100.0 * s}, {800 + s + 0.5, 10.0 * s}}));
        EXPECT_EQ(record.tail, (Tail{{0.25 * s, 1}}));
    }

    const auto hcd = read_checked("pair_HCDFT.ks2", "pair");
    ASSERT_EQ(hcd.records.size(), 2u);
    EXPECT_EQ(hcd.records[0].scan, 101);
    EXPECT_EQ(hcd.records[0].peaks, (Peaks{{150.1, 20}, {250.2, 30}}));
    ASSERT_EQ(hcd.records[0].tail.size(), 1u);
    EXPECT_DOUBLE_EQ(hcd.records[0].tail[0].first, 500.503638);
    EXPECT_EQ(hcd.records[0].tail[0].second, 2);
    EXPECT_EQ(hcd.records[1].scan, 104);
    EXPECT_EQ(hcd.records[1].tail, (Tail{{610.25, -2}}));

    const auto cid = read_checked("pair_CIDIT.ks2", "pair");
    ASSERT_EQ(cid.records.size(), 1u);
    EXPECT_EQ(cid.records[0].tail, (Tail{{700.1, 2}, {650.2, 4}}));

    // The table lists the same precursors in the same order as the KS2 record.
    const auto table = lines_of("pair.csv");
    ASSERT_EQ(table.size(), 4u);
    EXPECT_EQ(table[1], "HCD, FT, 101, 500.503638, 2, 1, 1, 500.503638, 2, ");
    EXPECT_EQ(table[2], "CID, IT, 102, 500.671517, 3, 2, 1, 700.100000, 2, 2, 650.200000, 4, ");
    EXPECT_EQ(table[3], "HCD, FT, 104, 610.250000, -2, 1, 1, 610.250000, -2, ");
}

TEST_F(PipelineTest, FinishedTableSkipsTheFileUntilRewriteIsAsked) {
    int detector_calls = 0;
    const PrecursorDetector detector = [&](const UserParameters&, const Ms1Store&,
                                           const MS2Spectrum&) -> std::vector<Precursor> {
        ++detector_calls;
        return {};
    };
    m_params.m_output_ks = false;
    m_params.m_output_mgf = false;
    set_current_file(m_params, kData + "/pair.ms1");
    process_ms_files(m_params, detector);
    EXPECT_EQ(output_names(), std::set<std::string>{"pair.csv"});
    EXPECT_EQ(detector_calls, 2);

    std::ofstream(out("pair.csv")) << "finished earlier\n";
    process_ms_files(m_params, detector);
    EXPECT_EQ(lines_of("pair.csv"), std::vector<std::string>{"finished earlier"});
    EXPECT_EQ(detector_calls, 2);

    m_params.m_rewrite_files = true;
    process_ms_files(m_params, detector);
    EXPECT_EQ(lines_of("pair.csv").size(), 4u);
    EXPECT_EQ(detector_calls, 4);
}

TEST_F(PipelineTest, MgfInputBecomesOneKs2WithFoldedPrecursors) {
    set_current_file(m_params, kData + "/spectra.mgf");
    process_mgf_file(m_params);
    EXPECT_EQ(output_names(), (std::set<std::string>{"spectra.ks2", "spectra.ks2idx"}));
    const auto ks2 = read_checked("spectra.ks2", "spectra");
    ASSERT_EQ(ks2.records.size(), 2u);
    EXPECT_EQ(ks2.records[0].scan, 7);
    EXPECT_EQ(ks2.records[0].peaks, (Peaks{{100.25, 20}, {200.5, 10}}));
    EXPECT_EQ(ks2.records[0].tail, (Tail{{500.25, 2}, {400.125, -3}}));
    EXPECT_EQ(ks2.records[1].tail, (Tail{{700.5, 2}}));

    // A <stem>.mgf in the output directory marks the input as done.
    fs::remove(out("spectra.ks2"));
    std::ofstream(out("spectra.mgf")) << "BEGIN IONS\n";
    process_mgf_file(m_params);
    EXPECT_FALSE(fs::exists(out("spectra.ks2")));
}

}  // namespace
}  // namespace ksieve
