// Candidate selection on candidates whose features are set in their caches: the
// filter cascade, the rank product, the limit and threshold, the recalibration.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <deque>

#include "detection.h"
#include "models.h"
#include "synthetic_ms1.h"

namespace ksieve {
namespace {

struct Features {
    int32_t run = 5;
    double corr = 0.9;  // all three isotope correlations
    int32_t in_window = 3;
    double share = 0.5;  // window share and cluster fraction
    double cos_m1_0 = 0.2;
    double cos_0_1 = 0.9;
};

// Candidates of one scan at centre 500.0 with their features cached as given, except
// the recalibrated m/z, which comes from the slices.
class Candidates : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { test::InstallIsotopeTable(); }

    FeaturesExtractor& Make(double mz, int32_t z, const Features& f) {
        FeaturesExtractor& c =
            m_owned.emplace_back(m_params, m_slices, m_merged, m_grid, m_ms2, Precursor{mz, z});
        c.m_has_isotope_run = c.m_has_corr_0 = c.m_has_isotopes_in_window = true;
        c.m_has_window_share = c.m_has_cos_m1_0 = c.m_has_cos_0_1 = true;
        c.m_has_corr_m1 = c.m_has_corr_m2 = c.m_has_cluster_fraction = true;
        c.m_isotope_run = f.run;
        c.m_corr_0 = c.m_corr_m1 = c.m_corr_m2 = f.corr;
        c.m_isotopes_in_window = f.in_window;
        c.m_window_share = c.m_cluster_fraction = f.share;
        c.m_cos_m1_0 = f.cos_m1_0;
        c.m_cos_0_1 = f.cos_0_1;
        return c;
    }

    UserParameters m_params = test::Finalised();
    MS2Spectrum m_ms2 = test::FragmentScan(1, 500.0);
    Ms1Slices m_slices = Ms1Slices(10);
    PeakList m_merged = {{300.0, 1.0}};  // far off: a computed feature finds nothing
    IntensityGrid m_grid{3.0, m_slices, m_ms2};
    std::deque<FeaturesExtractor> m_owned;
};

TEST_F(Candidates, FiltersRejectAtTheFirstFailureAndLetExactLimitsPass) {
    struct Case {
        double mz;
        int32_t z;
        Features f;
        bool passes;
    } const cases[] = {
        {499.0, 2, {.run = 2, .corr = 0.5, .in_window = 0, .share = 0.04}, true},
        {499.0, 2, {.run = 1}, false},
        {499.0, 3, {.run = 2, .in_window = 2}, true},
        {499.0, 4, {.run = 2}, false},
        {499.0, 2, {.corr = 0.4999}, false},
        {499.0, 3, {.in_window = 1}, false},
        {502.0, 2, {.in_window = 1}, true},  // exactly the isolation width above
        {502.01, 2, {.in_window = 1}, false},
        {499.0, 2, {.share = 0.0399}, false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(PassesCandidateFilters(Make(c.mz, c.z, c.f), m_params), c.passes)
            << c.mz << " z" << c.z;
    }
    // Cheapest first: a short isotope run leaves the costly features uncomputed.
    FeaturesExtractor& short_run = Make(499.0, 2, {.run = 1});
    short_run.m_has_corr_0 = short_run.m_has_window_share = false;
    EXPECT_FALSE(PassesCandidateFilters(short_run, m_params));
    EXPECT_FALSE(short_run.m_has_corr_0 || short_run.m_has_window_share);
}

TEST_F(Candidates, RankProductWeighsCorrelationAndShareThreeTimesSmallestFirst) {
    // Ranks (corr, -cos_m1_0, cos_0_1, share): a 3,3,1,1  b 2,1,3,2  c 1,2,2,3.
    FeaturesExtractor& a =
        Make(499.0, 2, {.corr = 0.9, .share = 0.3, .cos_m1_0 = 0.1, .cos_0_1 = 0.5});
    FeaturesExtractor& b =
        Make(499.5, 2, {.corr = 0.8, .share = 0.6, .cos_m1_0 = 0.3, .cos_0_1 = 0.9});
    FeaturesExtractor& c =
        Make(500.0, 2, {.corr = 0.7, .share = 0.9, .cos_m1_0 = 0.2, .cos_0_1 = 0.7});
    const std::vector<ScoredCandidate> ranked = ReduceByRankProduct({&a, &b, &c});
    ASSERT_EQ(ranked.size(), 3u);
    EXPECT_TRUE(ranked[0].m_candidate == &a && ranked[0].m_value == 81.0);
    EXPECT_TRUE(ranked[1].m_candidate == &c && ranked[1].m_value == 108.0);
    EXPECT_TRUE(ranked[2].m_candidate == &b && ranked[2].m_value == 192.0);

    // Shares 0.5, 1.0, 1.0, 3.0 rank 1, 1, 1, 2, since each 1.0 equals the rank 1
    // just given before it; the other features rank 1 to 4 in list order.
    const double shares[] = {0.5, 1.0, 1.0, 3.0};
    CandidateList kept;
    for (int i = 0; i < 4; ++i) {
        kept.push_back(&Make(499.0 + i * 0.1, 2,
                             {.corr = 0.1 * (i + 1),
                              .share = shares[i],
                              .cos_m1_0 = 0.4 - 0.1 * i,
                              .cos_0_1 = 0.1 * (i + 1)}));
    }
    std::vector<double> products(4);
    for (const ScoredCandidate& entry : ReduceByRankProduct(kept)) {
        products[std::find(kept.begin(), kept.end(), entry.m_candidate) - kept.begin()] =
            entry.m_value;
    }
    EXPECT_EQ(products, (std::vector<double>{1.0, 32.0, 243.0, 8192.0}));
}

TEST_F(Candidates, TheLimitKeepsTheSmallestRankProductsBeforeScoring) {
    m_params.m_mars_threshold = -1.0e9;
    auto select = [&](int count) {
        CandidateList kept;
        for (int i = 0; i < count; ++i) {
            const double rise = i / 1000.0;  // the last candidate is best in every feature
            kept.push_back(&Make(495.0 + 0.001 * i, 2,
                                 {.corr = 0.5 + 0.49 * rise,
                                  .share = 0.1 + 0.8 * rise,
                                  .cos_m1_0 = 0.5 - 0.4 * rise,
                                  .cos_0_1 = 0.5 + 0.49 * rise}));
        }
        return std::pair(kept.back(), SelectCandidates(m_params, kept));
    };
    const auto [best_of_1000, all] = select(1000);
    ASSERT_EQ(all.size(), 1000u);
    EXPECT_EQ(all.front(), best_of_1000);
    const auto [best_of_1001, limited] = select(1001);
    ASSERT_EQ(limited.size(), 1000u);
    EXPECT_EQ(std::count(limited.begin(), limited.end(), best_of_1001), 0);
    // Without co-elution a single survivor: the smaller rank product, the weaker one.
    m_params.m_co_elute = false;
    FeaturesExtractor& weak = Make(499.0, 2, {.corr = 0.6, .share = 0.2});
    FeaturesExtractor& strong = Make(500.0, 2, {.corr = 0.99, .share = 0.9});
    EXPECT_EQ(SelectCandidates(m_params, {&strong, &weak}), CandidateList{&weak});
}

TEST_F(Candidates, TheThresholdWalkKeepsScoresStrictlyAboveIt) {
    FeaturesExtractor& low = Make(499.0, 2, {.corr = 0.7});
    FeaturesExtractor& mid = Make(499.5, 2, {.corr = 0.9});
    FeaturesExtractor& high = Make(500.0, 2, {.corr = 0.99});
    const CandidateList kept = {&low, &high, &mid};
    auto above = [&](double threshold) {
        m_params.m_mars_threshold = threshold;
        return SelectCandidates(m_params, kept);
    };
    const double scores[] = {ScoreCandidate(m_params, low), ScoreCandidate(m_params, mid),
                             ScoreCandidate(m_params, high)};
    ASSERT_TRUE(scores[0] < scores[1] && scores[1] < scores[2]);
    EXPECT_EQ(above(scores[1]), CandidateList{&high});
    EXPECT_EQ(above(std::nextafter(scores[0], -1e9)), (CandidateList{&high, &mid, &low}));
    EXPECT_TRUE(above(scores[2]).empty());
}

TEST_F(Candidates, RecalibrationWeighsRawPeaksOfAllTenScansWithinItsPpmWindow) {
    m_params.m_mstolppm = false;  // the window is in ppm of the candidate regardless
    m_params.m_mstol = 1.0;
    m_slices[0] = {{799.999, 1.0}, {800.002, 3.0}};
    m_slices[9] = {{800.004, 4.0}, {800.006, 100.0}};  // 7.5 ppm off: out
    FeaturesExtractor& c = Make(800.0, 2, {});
    const double expected = (799.999 * 1.0 + 800.002 * 3.0 + 800.004 * 4.0) / 8.0;
    EXPECT_DOUBLE_EQ(RecalibratedMz(c), expected);
    m_slices[0].clear();  // a second request is answered from the cache
    EXPECT_DOUBLE_EQ(RecalibratedMz(c), expected);
    // No intensity in the window: the candidate's own m/z, not cached.
    m_slices[1] = {{900.001, 1.0e-7}};
    FeaturesExtractor& lone = Make(900.0, 3, {});
    EXPECT_EQ(RecalibratedMz(lone), 900.0);
    EXPECT_FALSE(lone.m_has_recalibrated_mz);
}

}  // namespace
}  // namespace ksieve
