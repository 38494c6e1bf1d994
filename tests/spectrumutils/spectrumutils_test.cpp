#include "spectrumutils.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace ksieve {
namespace {

using ::testing::HasSubstr;

std::vector<double> mz_of(const PeakList& peaks) {
    std::vector<double> out;
    for (const Peak& peak : peaks) {
        out.push_back(peak.m_mz);
    }
    return out;
}

// The binary search against a linear scan. Positions and widths are multiples of
// 0.125, so peaks land exactly on the open window edges; lists run from empty to
// eleven peaks with many repeated m/z values, and a width of 0 is among the draws.
TEST(PeaksInWindow, AgreesWithALinearScanOnRandomLists) {
    std::mt19937 rng(7);
    std::uniform_int_distribution<int> step(0, 40);
    for (int trial = 0; trial < 300; ++trial) {
        PeakList peaks(rng() % 12);
        for (Peak& peak : peaks) {
            peak = {100.0 + step(rng) * 0.125, static_cast<double>(step(rng))};
        }
        std::sort(peaks.begin(), peaks.end(), peak_less);
        const double center = 100.0 + step(rng) * 0.125;
        const double half = (rng() % 4) * 0.25;
        EXPECT_EQ(FirstPeakAbove(peaks, center),
                  std::upper_bound(peaks.begin(), peaks.end(), center, [](double v, const Peak& p) {
                      return v < p.m_mz;
                  }) - peaks.begin());
        std::vector<double> expected;
        for (const Peak& peak : peaks) {
            if (peak.m_mz > center - half && half > peak.m_mz - center) {
                expected.push_back(peak.m_mz);
            }
        }
        EXPECT_EQ(mz_of(FindPeaksInWindow(peaks, center, half, false)), expected);
    }
}

// A ppm tolerance is parts per million of the m/z it is applied at; an absolute
// one is the same at every m/z.
TEST(MzTolerance, ScalesPpmAtTheMzItIsAppliedAt) {
    EXPECT_DOUBLE_EQ((MzTolerance{10.0, true}.at(500.0)), 0.005);
    EXPECT_DOUBLE_EQ((MzTolerance{10.0, true}.at(1000.0)), 0.01);
    EXPECT_EQ((MzTolerance{0.02, false}.at(1000.0)), 0.02);
    const PeakList peaks{{999.989, 1}, {999.991, 1}, {1000.009, 2}, {1000.011, 2}};
    EXPECT_EQ(mz_of(FindPeaksInWindow(peaks, 1000.0, 10.0, true)),
              (std::vector<double>{999.991, 1000.009}));
}

// The window searches on three slices around m/z 500 at 20 ppm (0.01 wide on
// either side): the peaks at 499.985 and 500.02 lie outside it.
TEST(WindowSearches, TakeTheMostIntenseAndTheWeightedMzInsideTheWindow) {
    const std::vector<PeakList> slices = {
        {{499.985, 50}, {499.995, 6}, {500.005, 2}, {500.02, 90}},
        {},
        {{500.0, 4}},
    };
    const MzTolerance tolerance{20.0, true};
    EXPECT_EQ(MostIntenseInWindow(slices[0], 500.0, tolerance), 6.0);
    EXPECT_EQ(MostIntenseInWindow(slices[1], 500.0, tolerance), 0.0);
    EXPECT_NEAR(WeightedMzInWindows(slices, 500.0, tolerance),
                (499.995 * 6 + 500.005 * 2 + 500.0 * 4) / 12.0, 1e-9);
    // Nothing, or no more than rounding noise, in the window: the centre itself.
    const std::vector<PeakList> faint = {{{500.001, 1e-7}}, {{500.5, 80}}};
    EXPECT_EQ(WeightedMzInWindows(faint, 500.0, tolerance), 500.0);
}

TEST(FindNearestPeak, PrefersThePeakAboveOnTiesAndClampsAtTheEnds) {
    const PeakList peaks = {{100.0, 1}, {101.0, 2}, {102.0, 3}, {102.0, 9}, {103.0, 4}};
    const std::pair<double, double> cases[] = {{100.5, 2}, {100.4, 1}, {101.6, 3},
                                               {102.0, 9}, {50.0, 1},  {500.0, 4}};
    for (const auto& [center, intensity] : cases) {
        EXPECT_EQ(FindNearestPeak(peaks, center).m_intensity, intensity) << center;
    }
}

TEST(PeakSearchDeathTest, AnEmptyListFailsTheNearestPeakAssertion) {
    EXPECT_DEATH(FindNearestPeak(PeakList{}, 1.0),
                 HasSubstr("Assertion failed: peakCandidates.size() > 0"));
}

}  // namespace
}  // namespace ksieve
