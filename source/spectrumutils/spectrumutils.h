// The peak searches that detection, the features and validation stand on: every
// peak within a tolerance of a centre, the most intense of them, their
// intensity-weighted m/z, and the single peak nearest to a centre; and the one
// rule that turns a tolerance into a half width in m/z.
//
// Both take a peak list in peak order (m/z ascending, then intensity) and start
// from one binary search for the first peak strictly above a value. Indices are
// unsigned 32-bit, so lists are searched correctly up to that size. They keep no
// state, never change the list, and allocate nothing except the copy that
// FindPeaksInWindow returns.
#pragma once

#include <cstdint>
#include <span>

#include "records.h"

namespace ksieve {

// A peak matching tolerance: a half width in m/z, or with `m_ppm` set parts per
// million of the m/z it is applied at.
struct MzTolerance {
    double m_value = 0.0;
    bool m_ppm = false;

    // The half width in m/z at `mz`: `m_value * mz / 1e6` in ppm, else `m_value`.
    double at(double mz) const { return m_ppm ? m_value * mz / 1e6 : m_value; }
};

// The smallest index whose m/z is strictly greater than `value`, or the list size
// when there is none (0 for an empty list). A peak equal to `value` is not above it.
uint32_t FirstPeakAbove(std::span<const Peak> peakCandidates, double value);

// The peaks whose m/z lies strictly inside centerMZ +/- half width, as a view into
// `peakCandidates` in list order; empty when nothing lies in the window. The half
// width is MzTolerance{err_tol, ppm} at `centerMZ`: scaled at the centre of the
// search, not at each peak. Both ends are open, so a peak at
// exactly the half width, and every peak when the width is 0, stays out.
// The search cannot land below the window on any list, ordered or not; only a NaN
// centre, width or m/z where it lands fails the assertion
// "i_peak == peakCandidates.size() || peakCandidates[i_peak].m_mz > centerMZ - err_tol".
std::span<const Peak> PeaksInWindow(std::span<const Peak> peakCandidates, double centerMZ,
                                    double err_tol, bool ppm);

// The same window as a new list of copies.
PeakList FindPeaksInWindow(std::span<const Peak> peakCandidates, double centerMZ, double err_tol,
                           bool ppm);

// The intensity of the most intense peak in the window of PeaksInWindow; 0 when
// the window is empty.
double MostIntenseInWindow(std::span<const Peak> peakCandidates, double centerMZ,
                           MzTolerance tolerance);

// The intensity-weighted m/z of the peaks in the window around `centerMZ` of
// every list, summed list by list in order; `centerMZ` itself when their
// intensities sum to at most 1e-6.
double WeightedMzInWindows(std::span<const PeakList> lists, double centerMZ, MzTolerance tolerance);

// The peak nearest to `centerMZ`, whatever its distance: the first peak above the
// centre, unless the peak before it is strictly closer. So a tie goes to the peak
// above, and of several peaks at exactly the centre the last (most intense) wins.
// A centre below the list gives its first peak, one above it the last peak.
// An empty list fails the assertion "peakCandidates.size() > 0".
Peak FindNearestPeak(std::span<const Peak> peakCandidates, double centerMZ);

}  // namespace ksieve
