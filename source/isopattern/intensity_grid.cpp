#include <algorithm>
#include <cmath>
#include <limits>

#include "isopattern.h"
#include "utils.h"

namespace ksieve {

namespace {

// Truncation toward zero that cannot overflow: beyond the 32-bit range the value
// saturates, and NaN lands on the lowest value, below every bin.
int64_t saturating_trunc(double value) {
    constexpr double kLowest = static_cast<double>(std::numeric_limits<int32_t>::min());
    constexpr double kAboveHighest = -kLowest;
    if (!(value > kLowest)) {
        return std::numeric_limits<int32_t>::min();
    }
    if (value >= kAboveHighest) {
        return std::numeric_limits<int32_t>::max();
    }
    return static_cast<int64_t>(value);
}

// Half the bin count of a row, clamped so that twice it is still a 32-bit number.
int32_t half_bin_count(double center_mz) {
    constexpr double kLimit = 1e9;
    const double scaled = std::clamp(center_mz * IntensityGrid::m_ki_bins_per_mz, -kLimit, kLimit);
    return static_cast<int32_t>(std::isnan(scaled) ? 0.0 : scaled);
}

bool bin_less(const IntensityGrid::Cell& a, const IntensityGrid::Cell& b) {
    return a.m_bin < b.m_bin;
}

// Folds the cells of one bin into one sum, added in slice order from 0.0 exactly
// as a dense row accumulates them.
void fold_equal_bins(std::vector<IntensityGrid::Cell>& row) {
    std::size_t out = 0;
    for (std::size_t in = 0; in < row.size(); ++in) {
        if (out > 0 && row[out - 1].m_bin == row[in].m_bin) {
            row[out - 1].m_sum += row[in].m_sum;
        } else {
            row[out++] = IntensityGrid::Cell{row[in].m_bin, 0.0 + row[in].m_sum};
        }
    }
    row.resize(out);
}

}  // namespace

IntensityGrid::IntensityGrid(double peak_window, const Ms1Slices& clean, const MS2Spectrum& ms2)
    : m_half_span(peak_window),
      m_mz_start(peak_window - ms2.m_activation_center),
      m_center_mz(ms2.m_activation_center),
      m_ki_c_num(2 * half_bin_count(ms2.m_activation_center)) {
    const std::size_t rows = std::min<std::size_t>(clean.size(), m_ki_r_num);
    for (std::size_t r = 0; r < rows; ++r) {
        std::vector<Cell>& row = m_rows[r];
        row.reserve(clean[r].size());
        for (const Peak& peak : clean[r]) {
            const int64_t bin = BinOf(peak.m_mz);
            if (bin >= 0 && bin < m_ki_c_num) {
                row.push_back(Cell{static_cast<int32_t>(bin), peak.m_intensity});
            }
        }
        // Slices in peak order give ascending bins already; the stable sort only
        // matters for an unordered slice and keeps the order of additions per bin.
        if (!std::is_sorted(row.begin(), row.end(), bin_less)) {
            std::stable_sort(row.begin(), row.end(), bin_less);
        }
        fold_equal_bins(row);
    }
}

int64_t IntensityGrid::BinOf(double mz) const {
    return saturating_trunc((mz - m_mz_start) * m_ki_bins_per_mz);
}

double IntensityGrid::RangeSum(int32_t row, int64_t first, int64_t end) const {
    const int32_t r = row;
    KS_ASSERT(0 <= r && r < m_ki_r_num, "0 <= r && r < m_ki_r_num");
    const std::vector<Cell>& cells = m_rows[r];
    auto it = std::lower_bound(cells.begin(), cells.end(), first,
                               [](const Cell& cell, int64_t bin) { return cell.m_bin < bin; });
    double sum = 0.0;
    for (; it != cells.end() && it->m_bin < end; ++it) {
        sum += it->m_sum;
    }
    return sum;
}

}  // namespace ksieve
