#include <gmock/gmock.h>
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

TEST(IntensityGrid, CrossedSpanAndCentreGiveTheDenseLayout) {
    const Ms1Slices clean = {{}, {}, {}, {}, {{745.3, 2.0}, {745.3, 3.0}}, {}, {}, {}, {}, {}};
    const IntensityGrid grid(3.0, clean, scan_at(745.3));
    EXPECT_EQ(grid.m_ki_c_num, 149060);
    EXPECT_DOUBLE_EQ(grid.m_mz_start, -742.3);
    EXPECT_EQ(grid.BinOf(745.3), 148760);
    EXPECT_EQ(grid.BinValue(4, 148760), 5.0);
    EXPECT_EQ(grid.RangeSum(4, 0, grid.m_ki_c_num), 5.0);
    EXPECT_EQ(grid.RangeSum(3, 0, grid.m_ki_c_num), 0.0);
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
                ASSERT_EQ(grid.BinValue(r, b), dense.m_rows[r][b]) << "row " << r << " bin " << b;
            }
            for (int k = 0; k < 300; ++k) {
                const double lo = center - 4.5 + 9.0 * unit(rng);
                const int64_t first = grid.BinOf(lo);
                const int64_t end = grid.BinOf(lo + 0.1 * unit(rng)) + 1;
                ASSERT_EQ(grid.RangeSum(r, first, end), dense.sum(r, first, end));
            }
            EXPECT_EQ(grid.RangeSum(r, 0, 2), dense.sum(r, 0, 2));
        }
    }
}

TEST(IntensityGridDeathTest, RowOutsideTheTableFailsTheAssertion) {
    const IntensityGrid grid(3.0, Ms1Slices(10), scan_at(500.0));
    EXPECT_DEATH(grid.RangeSum(10, 0, 5),
                 ::testing::HasSubstr("Assertion failed: 0 <= r && r < m_ki_r_num"));
}

}  // namespace
}  // namespace ksieve
