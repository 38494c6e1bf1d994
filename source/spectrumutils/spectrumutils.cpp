#include "spectrumutils.h"

#include <algorithm>
#include <cmath>

#include "utils.h"

namespace ksieve {

uint32_t FirstPeakAbove(std::span<const Peak> peakCandidates, double value) {
    const uint32_t n = static_cast<uint32_t>(peakCandidates.size());
    if (n == 0) {
        return 0;
    }
    uint32_t low = 0;
    uint32_t high = n;
    uint32_t mid = n / 2;
    // Invariant on a sorted list: the peak at low is at or below the value or low
    // is 0, and everything from high on lies above it.
    while (mid != low) {
        if (value >= peakCandidates[mid].m_mz) {
            low = mid;
        } else {
            high = mid;
        }
        mid = (low + high) / 2;
    }
    return value >= peakCandidates[low].m_mz ? high : low;
}

std::span<const Peak> PeaksInWindow(std::span<const Peak> peakCandidates, double centerMZ,
                                    double err_tol, bool ppm) {
    err_tol = MzTolerance{err_tol, ppm}.at(centerMZ);
    const uint32_t i_peak = FirstPeakAbove(peakCandidates, centerMZ - err_tol);
    KS_ASSERT(
        i_peak == peakCandidates.size() || peakCandidates[i_peak].m_mz > centerMZ - err_tol,
        "i_peak == peakCandidates.size() || peakCandidates[i_peak].m_mz > centerMZ - err_tol");
    uint32_t end = i_peak;
    while (end < peakCandidates.size() && err_tol > peakCandidates[end].m_mz - centerMZ) {
        ++end;
    }
    return peakCandidates.subspan(i_peak, end - i_peak);
}

PeakList FindPeaksInWindow(std::span<const Peak> peakCandidates, double centerMZ, double err_tol,
                           bool ppm) {
    const std::span<const Peak> window = PeaksInWindow(peakCandidates, centerMZ, err_tol, ppm);
    return PeakList(window.begin(), window.end());
}

double MostIntenseInWindow(std::span<const Peak> peakCandidates, double centerMZ,
                           MzTolerance tolerance) {
    double best = 0.0;
    for (const Peak& peak :
         PeaksInWindow(peakCandidates, centerMZ, tolerance.m_value, tolerance.m_ppm)) {
        best = std::max(best, peak.m_intensity);
    }
    return best;
}

double WeightedMzInWindows(std::span<const PeakList> lists, double centerMZ,
                           MzTolerance tolerance) {
    double weighted = 0.0;
    double intensity = 0.0;
    for (const PeakList& list : lists) {
        for (const Peak& peak : PeaksInWindow(list, centerMZ, tolerance.m_value, tolerance.m_ppm)) {
            weighted += peak.m_mz * peak.m_intensity;
            intensity += peak.m_intensity;
        }
    }
    // Below this the weights are no more than rounding noise.
    return intensity <= 1e-6 ? centerMZ : weighted / intensity;
}

Peak FindNearestPeak(std::span<const Peak> peakCandidates, double centerMZ) {
    KS_ASSERT(peakCandidates.size() > 0, "peakCandidates.size() > 0");
    const uint32_t i = FirstPeakAbove(peakCandidates, centerMZ);
    if (i == peakCandidates.size()) {
        return peakCandidates.back();
    }
    if (i == 0) {
        return peakCandidates.front();
    }
    const Peak& above = peakCandidates[i];
    const Peak& below = peakCandidates[i - 1];
    // On a tie the peak above the centre wins.
    return std::fabs(above.m_mz - centerMZ) > std::fabs(below.m_mz - centerMZ) ? below : above;
}

}  // namespace ksieve
