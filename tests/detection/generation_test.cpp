// Candidate generation: which MS1 scans become slices, what noise removal keeps,
// how the central scans merge into candidate peaks, and which pairs are tried.
#include <gtest/gtest.h>

#include <cmath>
#include <utility>

#include "detection.h"
#include "synthetic_ms1.h"

namespace ksieve {
namespace {

using test::FragmentScan;

// A tolerance of 0.25 m/z, exact in binary, so that boundary cases land exactly.
UserParameters AbsoluteTolerance() {
    UserParameters params;
    params.m_mstolppm = false;
    params.m_mstol = 0.25;
    return test::Finalised(params);
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
    EXPECT_EQ(SliceSources(10), (Sources{0, 0, 0, 0, 10, 11, 12, 13, 14, 16}));
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
    // At exactly the tolerance the parent's peak is no hit; duplicates stay.
    EXPECT_EQ(CollectCandidatePeaks(params,
                                    CentralSlices({{499.0, 3.0}}, {{500.25, 1.0}, {503.5, 9.0}},
                                                  {{499.0, 3.0}, {501.0, 2.0}}),
                                    ms2),
              (PeakList{{499.0, 3.0}, {499.0, 3.0}, {500.25, 1.0}, {501.0, 2.0}}));
    const Ms1Slices hit = CentralSlices({{499.0, 3.0}}, {{500.2, 1.0}}, {{501.0, 2.0}});
    EXPECT_EQ(CollectCandidatePeaks(params, hit, ms2), (PeakList{{500.2, 1.0}}));
    // A parent without peaks in the window never stops the visit; the scan before can.
    EXPECT_EQ(CollectCandidatePeaks(
                  params, CentralSlices({{500.1, 3.0}}, {{504.0, 1.0}}, {{501.0, 2.0}}), ms2),
              (PeakList{{500.1, 3.0}}));
    params.m_check_activationcenter = false;
    EXPECT_EQ(CollectCandidatePeaks(params, hit, ms2).size(), 3u);
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
    auto pairs = [&](PeakList merged) {
        std::vector<std::pair<double, int32_t>> found;
        for (const Precursor& pair : EnumerateCandidates(params, merged, ms2)) {
            found.emplace_back(pair.m_mz, pair.m_charge);
        }
        return found;
    };
    using Pairs = std::vector<std::pair<double, int32_t>>;
    // The upper bound stays in; there is no lower cut.
    const double bound = ms2.m_activation_center + 0.5 * params.m_isolation_width + 0.05;
    EXPECT_EQ(pairs({{490.0, 1.0}, {bound, 1.0}, {std::nextafter(bound, 1e9), 1.0}}),
              (Pairs{{490.0, 2},
                     {490.0, 3},
                     {490.0, 4},
                     {490.0, 5},
                     {490.0, 6},
                     {bound, 2},
                     {bound, 3},
                     {bound, 4},
                     {bound, 5},
                     {bound, 6}}));
    // Without co-elution one of the first four isotopes must lie on the target.
    params.m_co_elute = false;
    const double fourth = 500.0 - 3 * 1.003 / 2;
    EXPECT_EQ(pairs({{fourth, 1.0}}), (Pairs{{fourth, 2}}));
    EXPECT_EQ(pairs({{500.0 - 4 * 1.003 / 2, 1.0}}), Pairs{});
    EXPECT_EQ(pairs({{500.125, 1.0}}).size(), 5u);
    EXPECT_EQ(pairs({{500.25, 1.0}}), Pairs{});  // exactly one tolerance off
}

}  // namespace
}  // namespace ksieve
