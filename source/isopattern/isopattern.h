// Observed isotope patterns: the per-scan IntensityGrid of summed MS1 intensity by
// slice and m/z bin, and the IsoPattern that lays out what the MS1 data holds at
// the positions where a candidate precursor's isotope peaks must fall.
//
// Nothing here compares with theory or does I/O; the features hold these
// observations against the isotope table.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "physics.h"
#include "records.h"

namespace ksieve {

// m/z of isotope peak `offset` (0 is the mono-isotopic peak) of `precursor`:
// offset * kIsotopeSpacing / charge + m/z, in that order of operations.
inline double IsotopePosition(const Precursor& precursor, int32_t offset) {
    return offset * kIsotopeSpacing / precursor.m_charge + precursor.m_mz;
}

// Summed intensity by MS1 slice (row) and m/z bin, built once per MS2 scan from its
// ten clean slices and shared by every candidate of that scan.
//
// The layout is that of a dense table whose half span is the activation centre and
// whose centre is the peak window, crossed on purpose: bin 0 starts at
// m_mz_start = peak_window - activation centre (near m/z 0, usually negative), there
// are 100 bins per m/z unit and m_ki_c_num = 2 * trunc(centre * 100) of them, so the
// last bin ends at peak_window + centre. Only the few hundred bins around the
// isolation target can ever hold signal (the slices reach the search window around
// it), so each row stores just the stretch from its lowest to its highest occupied
// bin, a few kilobytes; every bin value and range sum equals, bit for bit, what the
// dense table gives (a bin outside the stretch would only add +0.0, which changes
// nothing).
class IntensityGrid {
  public:
    static constexpr int32_t m_ki_bins_per_mz = 100;
    static constexpr int32_t m_ki_r_num = 10;

    // `peak_window` in m/z; `clean` the noise-filtered slices, row r from clean[r]
    // (rows without a slice stay empty, slices beyond the tenth are ignored); only
    // `ms2.m_activation_center` is read. A peak whose bin falls outside
    // 0 .. m_ki_c_num - 1 is ignored silently; peaks of one slice that share a bin
    // add up in slice order. A centre beyond +/-1e7 m/z is clamped so the bin count
    // stays a 32-bit number.
    IntensityGrid(double peak_window, const Ms1Slices& clean, const MS2Spectrum& ms2);

    // trunc((mz - m_mz_start) * m_ki_bins_per_mz), as the dense table numbers its
    // bins; saturated to the 32-bit range, NaN gives the lowest value.
    int64_t BinOf(double mz) const;

    // 0.0 + bin[first] + bin[first + 1] + ... + bin[end - 1] of `row`, added in
    // ascending bin order; empty bins and bins outside the table count 0.0, and an
    // empty range (end <= first) gives 0.0. A row outside 0 .. m_ki_r_num - 1 fails
    // the assertion "0 <= r && r < m_ki_r_num".
    double RangeSum(int32_t row, int64_t first, int64_t end) const;

    double m_half_span = 0.0;  // the peak window, standing in the place of a half span
    double m_mz_start = 0.0;   // m/z of the lower edge of bin 0
    double m_center_mz = 0.0;  // the activation centre, standing in the place of a centre
    int32_t m_ki_c_num = 0;    // bins per row

    // The bins of one row from its lowest occupied bin on, up to its highest.
    struct Row {
        int64_t m_first_bin = 0;
        std::vector<double> m_sums;
    };
    std::array<Row, m_ki_r_num> m_rows;
};

// The observed intensities around one candidate: 11 rows by 12 columns, column
// m_mono_col + i for isotope offset i from -7 to +4. Row 0 holds, at each isotope
// position, the intensity of the nearest merged peak if it lies within the peak
// tolerance; rows 1 to 10 hold the grid sums of the ten MS1 slices over the grid
// tolerance around each position. Each row is then cut at its first valley right of
// the mono-isotopic column, so that only the candidate's own cluster stays.
class IsoPattern {
  public:
    static constexpr int32_t m_mono_col = 7;
    static constexpr int32_t m_right_num = 5;
    static constexpr int32_t m_r_num = 11;
    static constexpr int32_t m_c_num = m_mono_col + m_right_num;
    using Row = std::array<double, m_c_num>;

    // Builds and cuts the pattern. `mstol` is in ppm when `mstolppm` is set, and
    // then the peak tolerance is scaled at the candidate's m/z while the grid
    // tolerance is scaled at `activation_center`; otherwise both are `mstol` in m/z.
    // Isotope positions are offset * kIsotopeSpacing / charge + m/z. Precondition:
    // `merged_peaks` is in peak order and not empty (else the nearest-peak search
    // fails its assertion "peakCandidates.size() > 0").
    IsoPattern(double activation_center, double mstol, bool mstolppm, Precursor precursor,
               const PeakList& merged_peaks, const IntensityGrid& grid);

    // The elution profile at one isotope offset (-7 .. +4): that column of matrix
    // rows 1 to 10, in slice order. Another offset fails the assertion
    // "-m_mono_col <= offset && offset < m_right_num".
    std::array<double, IntensityGrid::m_ki_r_num> GetElutionColumn(int32_t offset) const;

    bool m_is_cut = false;
    double m_total = 0.0;  // rows 1-10, offsets -1 to +4, summed before the cut
    double m_tol = 0.0;
    bool m_is_ppm = false;
    Precursor m_precursor;
    std::array<Row, m_r_num> m_matrix{};
};

}  // namespace ksieve
