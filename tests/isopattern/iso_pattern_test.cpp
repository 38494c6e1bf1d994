#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "isopattern.h"

namespace ksieve {
namespace {

using Row = IsoPattern::Row;

MS2Spectrum scan_at(double center) {
    MS2Spectrum ms2;
    ms2.m_activation_center = center;
    return ms2;
}

// Peaks exactly at the isotope positions of `precursor` for offsets -1 to +4, with
// the given intensities; zeros are left out.
PeakList cluster(Precursor precursor, std::array<double, 6> intensities) {
    PeakList peaks;
    for (int32_t i = -1; i <= 4; ++i) {
        if (intensities[i + 1] > 0.0) {
            peaks.push_back({IsotopePosition(precursor, i), intensities[i + 1]});
        }
    }
    return peaks;
}

// Four slices each showing one shape of cluster, cut row by row: a valley at +3
// behind a dip, a plateau that makes a valley, a dip at the mono-isotopic peak
// that is never one, and a steady rise.
TEST(IsoPattern, EachRowIsCutAtItsOwnFirstValley) {
    const Precursor candidate{512.0, 1};
    Ms1Slices slices(10);
    slices[0] = cluster(candidate, {0, 0, 100, 0, 0, 50});
    slices[1] = cluster(candidate, {0, 5, 5, 9, 7, 3});
    slices[2] = cluster(candidate, {50, 10, 40, 30, 20, 0});
    slices[3] = cluster(candidate, {0, 1, 2, 3, 4, 5});
    const IntensityGrid grid(6.0, slices, scan_at(512.5));
    const IsoPattern pattern(512.5, 0.01, false, candidate, slices[0], grid);

    EXPECT_TRUE(pattern.m_is_cut);
    EXPECT_EQ(pattern.m_matrix[0], (Row{0, 0, 0, 0, 0, 0, 0, 0, 100, 0, 0, 0}));
    EXPECT_EQ(pattern.m_matrix[1], (Row{0, 0, 0, 0, 0, 0, 0, 0, 100, 0, 0, 0}));
    EXPECT_EQ(pattern.m_matrix[2], (Row{0, 0, 0, 0, 0, 0, 0, 5, 5, 0, 0, 0}));
    EXPECT_EQ(pattern.m_matrix[3], (Row{0, 0, 0, 0, 0, 0, 50, 10, 40, 30, 20, 0}));
    EXPECT_EQ(pattern.m_matrix[4], (Row{0, 0, 0, 0, 0, 0, 0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(pattern.m_matrix[5], Row{});
    // Taken before the cut, from offset -1 on, and without the merged-peak row.
    EXPECT_EQ(pattern.m_total, 150.0 + 29.0 + 150.0 + 15.0);
    const std::array<double, 10> plus_one = {100, 5, 40, 2, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(pattern.GetElutionColumn(1), plus_one);
}

// In ppm the merged peaks are matched at the candidate's m/z and the grid at the
// activation centre: at 20 ppm a peak 0.015 above a candidate at 500 misses the
// merged row (0.01 wide there) but is summed from the grid (0.02 wide at 1000).
TEST(IsoPattern, PeakAndGridTolerancesAreScaledAtDifferentPlaces) {
    const Precursor candidate{500.0, 4};
    const PeakList peaks = {{500.015, 7.0}, {500.25075 + 0.009, 3.0}};
    Ms1Slices slices(10);
    slices[9] = peaks;
    const IntensityGrid grid(600.0, slices, scan_at(1000.0));
    const IsoPattern pattern(1000.0, 20.0, true, candidate, peaks, grid);
    EXPECT_EQ(pattern.m_matrix[0][7], 0.0);
    EXPECT_EQ(pattern.m_matrix[0][8], 3.0);
    EXPECT_EQ(pattern.m_matrix[10][7], 7.0);
    EXPECT_EQ(pattern.m_matrix[10][8], 3.0);
    EXPECT_EQ(pattern.m_total, 10.0);
}

TEST(IsoPattern, NearestMergedPeakMustLieStrictlyInsideTheTolerance) {
    const Precursor candidate{512.0, 1};
    const IntensityGrid grid(3.0, Ms1Slices(10), scan_at(512.0));
    const PeakList at_edge = {{512.0625, 4.0}};
    EXPECT_EQ(IsoPattern(512.0, 0.0625, false, candidate, at_edge, grid).m_matrix[0][7], 0.0);
    EXPECT_EQ(IsoPattern(512.0, 0.0626, false, candidate, at_edge, grid).m_matrix[0][7], 4.0);
    // A window that reaches past the grid's last bin sums up to that bin; the
    // positions beyond it read nothing and raise nothing.
    Ms1Slices slices(10);
    slices[2] = {{514.99, 6.0}};
    const IntensityGrid edge_grid(3.0, slices, scan_at(512.0));
    const IsoPattern edge(512.0, 0.0626, false, Precursor{514.99, 1}, at_edge, edge_grid);
    EXPECT_EQ(edge.m_matrix[3][7], 6.0);
    EXPECT_EQ(edge.m_total, 6.0);
}

TEST(IsoPatternDeathTest, ElutionColumnOutsideTheMatrixFails) {
    const IntensityGrid grid(3.0, Ms1Slices(10), scan_at(512.0));
    const IsoPattern pattern(512.0, 0.01, false, Precursor{512.0, 2}, PeakList{{512.0, 1.0}}, grid);
    EXPECT_DEATH(pattern.GetElutionColumn(5),
                 ::testing::HasSubstr("-m_mono_col <= offset && offset < m_right_num"));
    EXPECT_DEATH(IsoPattern(512.0, 0.01, false, Precursor{512.0, 2}, PeakList{}, grid),
                 ::testing::HasSubstr("peakCandidates.size() > 0"));
}

}  // namespace
}  // namespace ksieve
