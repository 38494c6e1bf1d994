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
