#include "spectrumutils.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
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

// Scaled once at the centre: 0.02 either side of 1000.0, whatever the peak's own m/z.
TEST(PeaksInWindow, PpmWidthIsScaledAtTheCentre) {
    const PeakList peaks = {{999.985, 1}, {1000.01, 2}, {1000.0199, 3}, {1000.03, 4}};
    EXPECT_EQ(mz_of(FindPeaksInWindow(peaks, 1000.0, 20.0, true)),
              (std::vector<double>{999.985, 1000.01, 1000.0199}));
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

TEST(FindNearestPeak, PrefersThePeakAboveOnTiesAndClampsAtTheEnds) {
    const PeakList peaks = {{100.0, 1}, {101.0, 2}, {102.0, 3}, {102.0, 9}, {103.0, 4}};
    EXPECT_EQ(FindNearestPeak(peaks, 100.5).m_mz, 101.0);
    EXPECT_EQ(FindNearestPeak(peaks, 100.4).m_mz, 100.0);
    EXPECT_EQ(FindNearestPeak(peaks, 101.6).m_mz, 102.0);
    EXPECT_EQ(FindNearestPeak(peaks, 102.0).m_intensity, 9.0);
    EXPECT_EQ(FindNearestPeak(peaks, 50.0).m_mz, 100.0);
    EXPECT_EQ(FindNearestPeak(peaks, 500.0).m_mz, 103.0);
    EXPECT_EQ(FindNearestPeak(PeakList{{42.0, 1}}, 40.0).m_mz, 42.0);
    EXPECT_EQ(FindNearestPeak(PeakList{{42.0, 1}}, 44.0).m_mz, 42.0);
}

TEST(PeakSearchDeathTest, EmptyListsAndNaNFailTheirAssertions) {
    EXPECT_DEATH(FindNearestPeak(PeakList{}, 1.0),
                 HasSubstr("Assertion failed: peakCandidates.size() > 0"));
    const PeakList not_a_number = {{std::nan(""), 1}};
    EXPECT_DEATH(FindPeaksInWindow(not_a_number, 100.0, 1.0, false),
                 HasSubstr("Assertion failed: i_peak == peakCandidates.size() || "
                           "peakCandidates[i_peak].m_mz > centerMZ - err_tol"));
}

}  // namespace
}  // namespace ksieve
