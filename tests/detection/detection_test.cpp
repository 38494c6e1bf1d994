// Candidate generation: which MS1 scans become slices, what noise removal keeps, how
// the central scans merge into candidate peaks, and which pairs are tried. Then
// selection on candidates whose features are set in their caches.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <deque>
#include <utility>

#include "detection.h"
#include "models.h"

namespace ksieve {

inline bool operator==(const Peak& a, const Peak& b) {
    return a.m_mz == b.m_mz && a.m_intensity == b.m_intensity;
}

namespace {

MS2Spectrum FragmentScan(int32_t parent, double center) {
    MS2Spectrum ms2;
    ms2.m_precursor_scan = parent;
    ms2.m_activation_center = center;
    return ms2;
}

// A tolerance of 0.25 m/z, exact in binary, so that boundary cases land exactly.
UserParameters AbsoluteTolerance() {
    UserParameters params;
    params.m_mstolppm = false;
    params.m_mstol = 0.25;
    return params;
}

// The scan each slice came from, 0 for an empty slice, in a store of scans 10 to 30
// without 15, each with a peak at 500.0 whose intensity is its scan number and one
// at exactly the search width of 2.0 beyond it.
std::vector<int32_t> SliceSources(int32_t parent) {
    Ms1Store store;
    for (int32_t scan = 10; scan <= 30; ++scan) {
        if (scan != 15) {
            store.push_back({scan, 0.0, 0.0, "FT", {{500.0, 1.0 * scan}, {502.0, 1.0}}});
        }
    }
    std::vector<int32_t> sources;
    for (const PeakList& slice : CollectMs1Slices(2.0, store, FragmentScan(parent, 500.0))) {
        EXPECT_LE(slice.size(), 1u);
        sources.push_back(slice.empty() ? 0 : static_cast<int32_t>(slice[0].m_intensity));
    }
    return sources;
}

TEST(CollectMs1Slices, TakesFourStoreRecordsBeforeTheParentAndFiveAfter) {
    using Sources = std::vector<int32_t>;
    EXPECT_EQ(SliceSources(18), (Sources{13, 14, 16, 17, 18, 19, 20, 21, 22, 23}));
    EXPECT_EQ(SliceSources(12), (Sources{0, 0, 10, 11, 12, 13, 14, 16, 17, 18}));
    EXPECT_EQ(SliceSources(28), (Sources{24, 25, 26, 27, 28, 29, 30, 0, 0, 0}));
    for (const int32_t absent : {15, 9, 31, -1}) {
        EXPECT_TRUE(SliceSources(absent).empty()) << absent;
    }
    EXPECT_TRUE(CollectMs1Slices(2.0, Ms1Store{}, FragmentScan(0, 500.0)).empty());
    // The default records at the front of a fresh window make a parent numbered 0.
    EXPECT_EQ(CollectMs1Slices(2.0, Ms1Store(20), FragmentScan(0, 500.0)), Ms1Slices(10));
}

TEST(FilterSliceNoise, JudgesEachSliceByItsStrongestPeakNearTheTarget) {
    const Ms1Slices raw = {
        // 2% of the strongest peak within 1.05 stays; the peak 1.5 away sets no limit.
        {{498.0, 19.99}, {499.0, 20.0}, {500.0, 1000.0}, {501.5, 1.0e6}},
        {{497.0, 0.1}, {501.2, 1000.0}}};  // nothing near the target: all stays
    EXPECT_EQ(FilterSliceNoise(raw, FragmentScan(1, 500.0)),
              (Ms1Slices{{{499.0, 20.0}, {500.0, 1000.0}, {501.5, 1.0e6}}, raw[1]}));
}

// Ten slices with the given peaks in slices 3, 4 and 5 and a stray peak elsewhere.
Ms1Slices CentralSlices(PeakList before, PeakList parent, PeakList after) {
    Ms1Slices slices(10, PeakList{{500.5, 7.0}});
    slices[3] = before;
    slices[4] = parent;
    slices[5] = after;
    return slices;
}

TEST(CollectCandidatePeaks, MergesTheParentAndItsNeighboursUntilOneHitsTheTarget) {
    UserParameters params = AbsoluteTolerance();
    params.m_cut_similiar_mono = false;
    const MS2Spectrum ms2 = FragmentScan(1, 500.0);
    const struct {
        Ms1Slices slices;
        PeakList merged;
    } cases[] = {
        // At exactly the tolerance the parent's peak is no hit; duplicates stay.
        {CentralSlices({{499.0, 3.0}}, {{500.25, 1.0}, {503.5, 9.0}}, {{499.0, 3.0}, {501.0, 2.0}}),
         {{499.0, 3.0}, {499.0, 3.0}, {500.25, 1.0}, {501.0, 2.0}}},
        {CentralSlices({{499.0, 3.0}}, {{500.2, 1.0}}, {{501.0, 2.0}}), {{500.2, 1.0}}},
        // A parent without peaks in the window never stops the visit; the scan before can.
        {CentralSlices({{500.1, 3.0}}, {{504.0, 1.0}}, {{501.0, 2.0}}), {{500.1, 3.0}}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(CollectCandidatePeaks(params, c.slices, ms2), c.merged);
    }
    params.m_check_activationcenter = false;
    EXPECT_EQ(CollectCandidatePeaks(params, cases[1].slices, ms2).size(), 3u);
}

TEST(CollectCandidatePeaks, FusesSimilarPeaksByTheirRunningWeightedMean) {
    UserParameters params = AbsoluteTolerance();
    params.m_check_activationcenter = false;
    const MS2Spectrum ms2 = FragmentScan(1, 600.0);
    // 600.1875 joins 600.0 (mean 600.140625 by weight 1:3), which brings 600.375
    // within reach (mean 600.2578125); the next peak lies exactly one tolerance off.
    const PeakList parent = {{600.0, 1.0}, {600.1875, 3.0}, {600.375, 4.0}, {600.5078125, 5.0}};
    EXPECT_EQ(CollectCandidatePeaks(params, CentralSlices({}, parent, {}), ms2),
              (PeakList{{600.2578125, 8.0}, {600.5078125, 5.0}}));
    // Peaks without intensity carry no weight: the group keeps its m/z, not NaN.
    EXPECT_EQ(
        CollectCandidatePeaks(params, CentralSlices({}, {{600.0, 0.0}, {600.125, 0.0}}, {}), ms2),
        (PeakList{{600.0, 0.0}}));
    // In ppm one tolerance, scaled at the lowest peak, serves the whole list: 20 ppm
    // of 598.0 (0.01196), not of 600 (0.012).
    params.m_mstolppm = true;
    params.m_mstol = 20.0;
    const PeakList spread = {{598.0, 1.0}, {600.0, 1.0}, {600.01198, 1.0}};
    EXPECT_EQ(CollectCandidatePeaks(params, CentralSlices({}, spread, {}), ms2).size(), 3u);
}

TEST(EnumerateCandidates, PairsPeaksUpToTheUpperBoundWithChargesTwoToSix) {
    UserParameters params = AbsoluteTolerance();
    const MS2Spectrum ms2 = FragmentScan(1, 500.0);
    using Pairs = std::vector<std::pair<double, int32_t>>;
    auto pairs = [&](PeakList merged) {
        Pairs found;
        for (const Precursor& pair : EnumerateCandidates(params, merged, ms2)) {
            found.emplace_back(pair.m_mz, pair.m_charge);
        }
        return found;
    };
    // The upper bound stays in; there is no lower cut.
    const double bound = ms2.m_activation_center + 0.5 * params.m_isolation_width + 0.05;
    Pairs expected;
    for (const double mz : {490.0, bound}) {
        for (int32_t z = 2; z <= 6; ++z) {
            expected.emplace_back(mz, z);
        }
    }
    EXPECT_EQ(pairs({{490.0, 1.0}, {bound, 1.0}, {std::nextafter(bound, 1e9), 1.0}}), expected);
    // Without co-elution one of the first four isotopes must lie on the target.
    params.m_co_elute = false;
    const double fourth = 500.0 - 3 * 1.003 / 2;
    EXPECT_EQ(pairs({{fourth, 1.0}}), (Pairs{{fourth, 2}}));
    EXPECT_EQ(pairs({{500.0 - 4 * 1.003 / 2, 1.0}}), Pairs{});
    EXPECT_EQ(pairs({{500.125, 1.0}}).size(), 5u);
    EXPECT_EQ(pairs({{500.25, 1.0}}), Pairs{});  // exactly one tolerance off
}

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
    static FeatureCache Known(const Features& f) {
        FeatureCache known;
        known.m_isotope_run = f.run;
        known.m_corr_0 = known.m_corr_m1 = known.m_corr_m2 = f.corr;
        known.m_isotopes_in_window = f.in_window;
        known.m_window_share = known.m_cluster_fraction = f.share;
        known.m_cos_m1_0 = f.cos_m1_0;
        known.m_cos_0_1 = f.cos_0_1;
        return known;
    }

    FeaturesExtractor& Make(double mz, int32_t z, const Features& f) {
        return MakeKnowing(mz, z, Known(f));
    }

    FeaturesExtractor& MakeKnowing(double mz, int32_t z, const FeatureCache& known) {
        return m_owned.emplace_back(m_params, m_ipv, m_slices, m_merged, m_grid, m_ms2,
                                    Precursor{mz, z}, known);
    }

    UserParameters m_params;
    IsotopeTable m_ipv = IsotopeTable(3000, {1.0, 0.6, 0.25, 0.08, 0.02});
    MS2Spectrum m_ms2 = FragmentScan(1, 500.0);
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
    FeatureCache partly = Known({.run = 1});
    partly.m_corr_0.reset();
    partly.m_window_share.reset();
    FeaturesExtractor& short_run = MakeKnowing(499.0, 2, partly);
    EXPECT_FALSE(PassesCandidateFilters(short_run, m_params));
    EXPECT_FALSE(short_run.cache().m_corr_0 || short_run.cache().m_window_share);
}

// Shares 0.5, 1.0, 1.0, 3.0 rank 1, 1, 1, 2, since each 1.0 equals the rank 1 just
// given before it; the other features rank 1 to 4 in creation order. Listed in
// reverse, the candidates must come out sorted.
TEST_F(Candidates, RankProductWeighsCorrelationAndShareThreeTimesSmallestFirst) {
    const double shares[] = {0.5, 1.0, 1.0, 3.0};
    CandidateList kept(4);
    for (int i = 0; i < 4; ++i) {
        kept[3 - i] = &Make(499.0 + i * 0.1, 2,
                            {.corr = 0.1 * (i + 1),
                             .share = shares[i],
                             .cos_m1_0 = 0.4 - 0.1 * i,
                             .cos_0_1 = 0.1 * (i + 1)});
    }
    const std::vector<ScoredCandidate> ranked = ReduceByRankProduct(kept);
    const double products[] = {1.0, 32.0, 243.0, 8192.0};
    ASSERT_EQ(ranked.size(), 4u);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(ranked[i].m_candidate, kept[3 - i]) << i;
        EXPECT_EQ(ranked[i].m_value, products[i]) << i;
    }
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
    // No intensity in the window: the candidate's own m/z.
    m_slices[1] = {{900.001, 1.0e-7}};
    FeaturesExtractor& lone = Make(900.0, 3, {});
    EXPECT_EQ(RecalibratedMz(lone), 900.0);
}

}  // namespace
}  // namespace ksieve
