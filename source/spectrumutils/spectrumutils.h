// The two peak searches that detection and the features stand on: every peak
// within a tolerance of a centre, and the single peak nearest to a centre.
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

// The smallest index whose m/z is strictly greater than `value`, or the list size
// when there is none (0 for an empty list). A peak equal to `value` is not above it.
uint32_t FirstPeakAbove(std::span<const Peak> peakCandidates, double value);

// The peaks whose m/z lies strictly inside centerMZ +/- half width, as a view into
// `peakCandidates` in list order; empty when nothing lies in the window. The half
// width is `err_tol` in m/z, or with `ppm` set `centerMZ * err_tol / 1e6`: scaled
// at the centre of the search, not at each peak. Both ends are open, so a peak at
// exactly the half width, and every peak when the width is 0, stays out.
// The search cannot land below the window on any list, ordered or not; only a NaN
// centre, width or m/z where it lands fails the assertion
// "i_peak == peakCandidates.size() || peakCandidates[i_peak].m_mz > centerMZ - err_tol".
std::span<const Peak> PeaksInWindow(std::span<const Peak> peakCandidates, double centerMZ,
                                    double err_tol, bool ppm);

// The same window as a new list of copies.
PeakList FindPeaksInWindow(std::span<const Peak> peakCandidates, double centerMZ, double err_tol,
                           bool ppm);

// The peak nearest to `centerMZ`, whatever its distance: the first peak above the
// centre, unless the peak before it is strictly closer. So a tie goes to the peak
// above, and of several peaks at exactly the centre the last (most intense) wins.
// A centre below the list gives its first peak, one above it the last peak.
// An empty list fails the assertion "peakCandidates.size() > 0".
Peak FindNearestPeak(std::span<const Peak> peakCandidates, double centerMZ);

}  // namespace ksieve
