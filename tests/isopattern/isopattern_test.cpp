#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "isopattern.h"

namespace ksieve {
namespace {

// The table as a plain dense array over every bin, the straightforward layout that
// the sparse grid must reproduce bit for bit.
struct DenseGrid {
    double m_mz_start;
    int32_t m_ki_c_num;
    std::vector<std::vector<double>> m_rows;

    DenseGrid(double peak_window, const Ms1Slices& clean, double center)
        : m_mz_start(peak_window - center),
          m_ki_c_num(2 * static_cast<int32_t>(center * 100)),
          m_rows(10, std::vector<double>(m_ki_c_num, 0.0)) {
        for (int r = 0; r < 10; ++r) {
            for (const Peak& peak : clean[r]) {
                const int bin = static_cast<int>((peak.m_mz - m_mz_start) * 100);
                if (bin >= 0 && bin < m_ki_c_num) {
                    m_rows[r][bin] += peak.m_intensity;
                }
            }
        }
    }
    double sum(int r, int64_t first, int64_t end) const {
        double s = 0.0;
        for (int64_t b = std::max<int64_t>(first, 0); b < std::min<int64_t>(end, m_ki_c_num); ++b) {
            s += m_rows[r][b];
        }
        return s;
    }
};

MS2Spectrum scan_at(double center) {
    MS2Spectrum ms2;
    ms2.m_activation_center = center;
    return ms2;
}

// Random scans with shared bins, intensities of very different size (so that the
// order of additions shows in the last bits) and peaks on both sides of the table,
// including the sliver just below bin 0 that truncation toward zero still puts in it.
TEST(IntensityGrid, SparseRowsMatchADenseTableBitForBit) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    for (int trial = 0; trial < 6; ++trial) {
        const double center = 300.0 + 1200.0 * unit(rng);
        const double window = 1.0 + 3.0 * unit(rng);
        Ms1Slices clean(10);
        for (PeakList& slice : clean) {
            for (int k = 0; k < 120; ++k) {
                const double mz = k % 17 == 0 ? window - center - 0.009 * unit(rng)
                                  : k % 19 == 0
                                      ? window + center + 0.02 * unit(rng)
                                      : center - 4.0 + static_cast<int>(800 * unit(rng)) * 0.0101;
                slice.push_back({mz, std::pow(10.0, 8.0 * unit(rng) - 2.0)});
            }
            std::sort(slice.begin(), slice.end(), peak_less);
        }
        const IntensityGrid grid(window, clean, scan_at(center));
        const DenseGrid dense(window, clean, center);
        ASSERT_EQ(grid.m_ki_c_num, dense.m_ki_c_num);
        ASSERT_EQ(grid.m_mz_start, dense.m_mz_start);
        for (int r = 0; r < 10; ++r) {
            for (int32_t b = 0; b < dense.m_ki_c_num; ++b) {
                ASSERT_EQ(grid.RangeSum(r, b, b + 1), dense.m_rows[r][b])
                    << "row " << r << " bin " << b;
            }
            for (int k = 0; k < 300; ++k) {
                const double lo = center - 4.5 + 9.0 * unit(rng);
                const int64_t first = grid.BinOf(lo);
                const int64_t end = grid.BinOf(lo + 0.1 * unit(rng)) + 1;
                ASSERT_EQ(grid.RangeSum(r, first, end), dense.sum(r, first, end));
            }
        }
    }
}

using Row = IsoPattern::Row;

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
// In m/z the nearest merged peak must lie strictly inside the tolerance.
TEST(IsoPattern, TolerancesAreStrictAndScaledAtDifferentPlaces) {
    const Precursor candidate{500.0, 4};
    const PeakList peaks = {{500.015, 7.0}, {500.25075 + 0.009, 3.0}};
    Ms1Slices slices(10);
    slices[9] = peaks;
    const IsoPattern ppm(1000.0, 20.0, true, candidate, peaks, {600.0, slices, scan_at(1000.0)});
    EXPECT_EQ(ppm.m_matrix[0][7], 0.0);
    EXPECT_EQ(ppm.m_matrix[0][8], 3.0);
    EXPECT_EQ(ppm.m_matrix[10][7], 7.0);
    EXPECT_EQ(ppm.m_matrix[10][8], 3.0);
    EXPECT_EQ(ppm.m_total, 10.0);

    const PeakList at_edge = {{512.0625, 4.0}};
    const IntensityGrid grid(3.0, slices, scan_at(512.0));
    EXPECT_EQ(IsoPattern(512.0, 0.0625, false, {512.0, 1}, at_edge, grid).m_matrix[0][7], 0.0);
    EXPECT_EQ(IsoPattern(512.0, 0.0626, false, {512.0, 1}, at_edge, grid).m_matrix[0][7], 4.0);
}

}  // namespace
}  // namespace ksieve
