#include <algorithm>
#include <cmath>

#include "isopattern.h"
#include "spectrumutils.h"
#include "utils.h"

namespace ksieve {

namespace {

static_assert(IsoPattern::m_r_num == 1 + IntensityGrid::m_ki_r_num,
              "one merged-peak row above one row per MS1 slice");

// Keeps a row's cluster up to its first valley right of the mono-isotopic peak: a
// cell no higher than its left neighbour and strictly lower than its right one.
// Everything right of the valley belongs to another cluster and is zeroed; the
// valley cell itself stays. A plateau on the left counts as falling.
void cut_at_valley(IsoPattern::Row& row) {
    int32_t c = IsoPattern::m_mono_col + 1;
    while (c + 1 < IsoPattern::m_c_num) {
        if (row[c - 1] >= row[c] && row[c + 1] > row[c]) {
            break;
        }
        ++c;
    }
    std::fill(row.begin() + c + 1, row.end(), 0.0);
}

}  // namespace

IsoPattern::IsoPattern(double activation_center, double mstol, bool mstolppm, Precursor precursor,
                       const PeakList& merged_peaks, const IntensityGrid& grid)
    : m_tol(mstol), m_is_ppm(mstolppm), m_precursor(precursor) {
    // The merged peaks are matched at the candidate's own m/z; the grid bins are
    // laid at the scan's activation centre, so its tolerance is scaled there.
    const MzTolerance tolerance{m_tol, m_is_ppm};
    const double peak_tol = tolerance.at(m_precursor.m_mz);
    const double grid_tol = tolerance.at(activation_center);
    for (int32_t i = -m_mono_col; i < m_right_num; ++i) {
        const int32_t col = m_mono_col + i;
        const double x = IsotopePosition(m_precursor, i);
        const Peak nearest = FindNearestPeak(merged_peaks, x);
        if (peak_tol > std::fabs(nearest.m_mz - x)) {
            m_matrix[0][col] = nearest.m_intensity;
        }
        const int64_t first = grid.BinOf(x - grid_tol);
        if (first <= 0) {
            continue;
        }
        // The bin that holds the upper edge is included.
        const int64_t end = std::min<int64_t>(grid.m_ki_c_num, grid.BinOf(x + grid_tol) + 1);
        for (int32_t r = 0; r < IntensityGrid::m_ki_r_num; ++r) {
            m_matrix[r + 1][col] = grid.RangeSum(r, first, end);
        }
    }
    KS_ASSERT(!m_is_cut, "!m_is_cut");
    // The cluster total, taken before the cut, reaches one step below the
    // mono-isotopic peak so that signal there lowers the cluster fraction.
    for (int32_t r = 1; r < m_r_num; ++r) {
        for (int32_t c = m_mono_col - 1; c < m_c_num; ++c) {
            m_total += m_matrix[r][c];
        }
    }
    for (Row& row : m_matrix) {
        cut_at_valley(row);
    }
    m_is_cut = true;
}

std::array<double, IntensityGrid::m_ki_r_num> IsoPattern::GetElutionColumn(int32_t offset) const {
    KS_ASSERT(-m_mono_col <= offset && offset < m_right_num,
              "-m_mono_col <= offset && offset < m_right_num");
    std::array<double, IntensityGrid::m_ki_r_num> column{};
    for (int32_t r = 0; r < IntensityGrid::m_ki_r_num; ++r) {
        column[r] = m_matrix[r + 1][m_mono_col + offset];
    }
    return column;
}

}  // namespace ksieve
