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

}  // namespace

IntensityGrid::IntensityGrid(double peak_window, const Ms1Slices& clean, const MS2Spectrum& ms2)
    : m_half_span(peak_window),
      m_mz_start(peak_window - ms2.m_activation_center),
      m_center_mz(ms2.m_activation_center),
      m_ki_c_num(2 * half_bin_count(ms2.m_activation_center)) {
    const std::size_t rows = std::min<std::size_t>(clean.size(), m_ki_r_num);
    for (std::size_t r = 0; r < rows; ++r) {
        int64_t lowest = m_ki_c_num;
        int64_t highest = -1;
        for (const Peak& peak : clean[r]) {
            const int64_t bin = BinOf(peak.m_mz);
            if (bin >= 0 && bin < m_ki_c_num) {
                lowest = std::min(lowest, bin);
                highest = std::max(highest, bin);
            }
        }
        if (highest < lowest) {
            continue;
        }
        Row& row = m_rows[r];
        row.m_first_bin = lowest;
        row.m_sums.assign(static_cast<std::size_t>(highest - lowest + 1), 0.0);
        // Peaks that share a bin add up in slice order, as in the dense table.
        for (const Peak& peak : clean[r]) {
            const int64_t bin = BinOf(peak.m_mz);
            if (bin >= 0 && bin < m_ki_c_num) {
                row.m_sums[static_cast<std::size_t>(bin - lowest)] += peak.m_intensity;
            }
        }
    }
}

int64_t IntensityGrid::BinOf(double mz) const {
    return saturating_trunc((mz - m_mz_start) * m_ki_bins_per_mz);
}

double IntensityGrid::RangeSum(int32_t row, int64_t first, int64_t end) const {
    const int32_t r = row;
    KS_ASSERT(0 <= r && r < m_ki_r_num, "0 <= r && r < m_ki_r_num");
    const Row& bins = m_rows[r];
    const int64_t stored_end = bins.m_first_bin + static_cast<int64_t>(bins.m_sums.size());
    double sum = 0.0;
    for (int64_t b = std::max(first, bins.m_first_bin); b < std::min(end, stored_end); ++b) {
        sum += bins.m_sums[static_cast<std::size_t>(b - bins.m_first_bin)];
    }
    return sum;
}

}  // namespace ksieve
