// Whole-scan detection on synthetic survey scans with known co-eluting peptides.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <iostream>

#include "detection.h"
#include "models.h"
#include "spectrumutils.h"
#include "synthetic_ms1.h"
#include "test_support.h"

namespace ksieve {
namespace {

class Detect : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { test::InstallIsotopeTable(); }

    // Detection for an MS2 scan of parent 105, the fifth survey scan, at `center`.
    std::vector<Precursor> Run(const std::vector<test::Peptide>& peptides, double center) {
        m_store = test::MakeStore(20, peptides, center);
        m_ms2 = test::FragmentScan(105, center);
        return DetectPrecursors(m_params, m_store, m_ms2);
    }

    // The model score of the candidate behind a detected precursor: its charge at the
    // candidate peak nearest to the recalibrated m/z.
    double ScoreOf(const Precursor& found) {
        const Ms1Slices raw = CollectMs1Slices(m_params.m_search_window, m_store, m_ms2);
        const Ms1Slices clean = FilterSliceNoise(raw, m_ms2);
        const PeakList merged = CollectCandidatePeaks(m_params, clean, m_ms2);
        const IntensityGrid grid(m_params.m_peak_window, clean, m_ms2);
        const Precursor pair{FindNearestPeak(merged, found.m_mz).m_mz, found.m_charge};
        FeaturesExtractor candidate(m_params, raw, merged, grid, m_ms2, pair);
        return ScoreCandidate(m_params, candidate);
    }

    // The first detected precursor of charge z within 2 ppm of `mz`, or the end.
    static auto Find(const std::vector<Precursor>& found, double mz, int32_t z) {
        return std::find_if(found.begin(), found.end(), [&](const Precursor& p) {
            return p.m_charge == z && std::fabs(p.m_mz - mz) < 2e-6 * mz;
        });
    }

    UserParameters m_params = test::Finalised();
    Ms1Store m_store;
    MS2Spectrum m_ms2;
};

TEST_F(Detect, FindsCoElutingPeptidesBestScoreFirst) {
    const std::vector<Precursor> found = Run({{600.30, 2, 1.0e6}, {599.85, 3, 5.0e5}}, 600.30);
    EXPECT_NE(Find(found, 600.30, 2), found.end());
    EXPECT_NE(Find(found, 599.85, 3), found.end());
    for (std::size_t i = 1; i < found.size(); ++i) {
        EXPECT_GE(ScoreOf(found[i - 1]), ScoreOf(found[i])) << i;
    }
    // Without co-elution only the peptide with an isotope on the target remains.
    m_params.m_co_elute = false;
    const std::vector<Precursor> one = Run({{600.30, 2, 1.0e6}, {599.85, 3, 5.0e5}}, 600.30);
    ASSERT_EQ(one.size(), 1u);
    EXPECT_NE(Find(one, 600.30, 2), one.end());
}

TEST_F(Detect, OnePeakCanYieldTwoChargesTheHigherScoreFirst) {
    // Every second isotope of a 4+ cluster is a 2+ cluster on the same peak.
    const std::vector<Precursor> found = Run({{700.0, 4, 1.0e6}}, 700.1);
    const auto four = Find(found, 700.0, 4);
    const auto two = Find(found, 700.0, 2);
    ASSERT_TRUE(four != found.end() && two != found.end());
    EXPECT_EQ(four->m_mz, two->m_mz);
    EXPECT_EQ(four<two, ScoreOf(*four)> ScoreOf(*two));
}

TEST_F(Detect, WithoutCoElutionAFifthIsotopeOnTheTargetIsNoHit) {
    const double mono = 700.0 - 4 * 1.003 / 2;
    const std::vector<Precursor> co_eluted = Run({{mono, 2, 1.0e6}}, 700.0);
    EXPECT_NE(Find(co_eluted, mono, 2), co_eluted.end());
    m_params.m_co_elute = false;
    const std::vector<Precursor> alone = Run({{mono, 2, 1.0e6}}, 700.0);
    EXPECT_EQ(Find(alone, mono, 2), alone.end());
}

TEST_F(Detect, AMissingParentIsReportedAndFindsNothing) {
    test::CaptureStream console(std::cout);
    m_store = test::MakeStore(20, {{650.0, 3, 1.0e6}}, 650.2);
    EXPECT_TRUE(DetectPrecursors(m_params, m_store, test::FragmentScan(99, 650.2)).empty());
    EXPECT_NE(console.text().find("Cannot found the precurosr scan of MS2: 99\n"),
              std::string::npos);
    // A parent numbered 0 is found among the default records: nothing to report.
    const std::string before = console.text();
    EXPECT_TRUE(DetectPrecursors(m_params, m_store, test::FragmentScan(0, 650.2)).empty());
    EXPECT_EQ(console.text(), before);
}

}  // namespace
}  // namespace ksieve
