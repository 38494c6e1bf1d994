// Candidate generation: the MS1 slices around the isolation target, their noise
// removal and the candidate peak list of the central scans.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <span>

#include "detection.h"
#include "isopattern.h"
#include "spectrumutils.h"

namespace ksieve {

namespace {

// The parent scan and the scans four before and five after it.
constexpr std::size_t kSlicesBefore = 4;
constexpr std::size_t kSlicesAfter = 5;
constexpr std::size_t kSliceCount = kSlicesBefore + 1 + kSlicesAfter;
constexpr std::size_t kParentSlice = kSlicesBefore;

// Noise is judged against the strongest peak this close to the isolation target,
// whatever the isolation width.
constexpr double kNoiseHalfWidth = 1.05;
constexpr double kNoiseRatio = 0.02;

// Singly charged ions are not the peptides a data-dependent run means to fragment.
constexpr int32_t kLowestCharge = 2;
constexpr int32_t kHighestCharge = 6;
// Without co-elution the precursor must put one of its first isotopes on the target.
constexpr int32_t kTargetIsotopes = 4;

// The smallest store index whose scan number is not below `target`, compared as
// unsigned 32-bit numbers. Requires a non-empty store.
std::size_t LowerBoundScan(const Ms1Store& store, uint32_t target) {
    std::size_t low = 0;
    std::size_t high = store.size();
    std::size_t middle = store.size() / 2;
    while (low != middle) {
        if (target <= static_cast<uint32_t>(store[middle].m_scan)) {
            high = middle;
        } else {
            low = middle;
        }
        middle = (low + high) / 2;
    }
    return static_cast<uint32_t>(store[low].m_scan) < target ? high : low;
}

// Merges `found` into `merged`, keeping peak order; of two equal peaks the one
// already in the list stays first. `scratch` is reused storage.
void MergeInto(PeakList& merged, std::span<const Peak> found, PeakList& scratch) {
    scratch.clear();
    scratch.reserve(merged.size() + found.size());
    std::merge(merged.begin(), merged.end(), found.begin(), found.end(),
               std::back_inserter(scratch), peak_less);
    merged.swap(scratch);
}

// Whether the slice holds a peak closer than the tolerance to the isolation target:
// then the precursor was in this scan, and the scans around it add nothing.
bool HitsActivationCenter(const UserParameters& params, const PeakList& slice,
                          const MS2Spectrum& ms2) {
    const double tol = ActivationTolerance(params, ms2);
    const Peak nearest = FindNearestPeak(slice, ms2.m_activation_center);
    return tol > std::fabs(nearest.m_mz - ms2.m_activation_center);
}

// Fuses runs of peaks that lie within one tolerance of their group's running
// intensity-weighted m/z, in place. The tolerance is scaled once, at the lowest m/z
// of the list, and serves the whole list.
void MergeSimilarPeaks(const UserParameters& params, PeakList& peaks) {
    if (peaks.empty()) {
        return;
    }
    const double tol = MzTolerance{params.m_mstol, params.m_mstolppm}.at(peaks.front().m_mz);
    std::size_t out = 0;
    std::size_t next = 0;
    while (next < peaks.size()) {
        Peak group = peaks[next++];
        while (next < peaks.size() && tol > std::fabs(peaks[next].m_mz - group.m_mz)) {
            const Peak& peak = peaks[next++];
            const double total = group.m_intensity + peak.m_intensity;
            // Peaks without intensity carry no weight; the group keeps its m/z.
            if (total != 0.0) {
                group.m_mz =
                    (group.m_mz * group.m_intensity + peak.m_mz * peak.m_intensity) / total;
            }
            group.m_intensity = total;
        }
        peaks[out++] = group;
    }
    peaks.resize(out);
}

// Whether one of the first four isotope peaks of `candidate` lies closer than the
// tolerance to the isolation target.
bool HitsIsolationTarget(const Precursor& candidate, double tol, double activation_center) {
    for (int32_t k = 0; k < kTargetIsotopes; ++k) {
        if (tol > std::fabs(IsotopePosition(candidate, k) - activation_center)) {
            return true;
        }
    }
    return false;
}

}  // namespace

double ActivationTolerance(const UserParameters& params, const MS2Spectrum& ms2) {
    return MzTolerance{params.m_mstol, params.m_mstolppm}.at(ms2.m_activation_center);
}

std::optional<SliceRange> FindSliceRange(const Ms1Store& store, const MS2Spectrum& ms2) {
    if (store.empty()) {
        return std::nullopt;
    }
    const uint32_t target = static_cast<uint32_t>(ms2.m_precursor_scan);
    const std::size_t index = LowerBoundScan(store, target);
    if (index >= store.size() || store[index].m_scan != ms2.m_precursor_scan) {
        return std::nullopt;
    }
    const std::size_t first = index >= kSlicesBefore ? index - kSlicesBefore : 0;
    return SliceRange{first, index, std::min(store.size(), index + kSlicesAfter + 1)};
}

Ms1Slices CollectMs1Slices(double err_tol, const Ms1Store& store, const MS2Spectrum& ms2) {
    const std::optional<SliceRange> range = FindSliceRange(store, ms2);
    if (!range) {
        return {};
    }
    Ms1Slices slices(kSliceCount);
    // The parent stands at slice kParentSlice; a window cut short at either end
    // of the store leaves the outer slices empty.
    const std::size_t parent = range->m_parent;
    for (std::size_t position = range->m_first; position < range->m_end; ++position) {
        const std::span<const Peak> window =
            PeaksInWindow(store[position].m_peaks, ms2.m_activation_center, err_tol, false);
        slices[position + kParentSlice - parent].assign(window.begin(), window.end());
    }
    return slices;
}

Ms1Slices FilterSliceNoise(const Ms1Slices& slices, const MS2Spectrum& ms2) {
    Ms1Slices clean(slices.size());
    for (std::size_t s = 0; s < slices.size(); ++s) {
        double highest = 0.0;
        for (const Peak& peak :
             PeaksInWindow(slices[s], ms2.m_activation_center, kNoiseHalfWidth, false)) {
            highest = std::max(highest, peak.m_intensity);
        }
        const double threshold = kNoiseRatio * highest;
        PeakList& kept = clean[s];
        kept.reserve(slices[s].size());
        for (const Peak& peak : slices[s]) {
            if (peak.m_intensity >= threshold) {
                kept.push_back(peak);
            }
        }
    }
    return clean;
}

PeakList CollectCandidatePeaks(const UserParameters& params, const Ms1Slices& clean_slices,
                               const MS2Spectrum& ms2) {
    // The parent scan first, then its neighbours: the precursor is most likely
    // seen at its strongest in the scan that triggered the MS2.
    constexpr std::size_t kVisitOrder[] = {kParentSlice, kParentSlice - 1, kParentSlice + 1};
    PeakList merged;
    PeakList scratch;
    for (const std::size_t s : kVisitOrder) {
        if (s >= clean_slices.size()) {
            continue;  // a short slice list: the missing scans hold nothing
        }
        const PeakList& slice = clean_slices[s];
        const std::span<const Peak> found =
            PeaksInWindow(slice, ms2.m_activation_center, params.m_peak_window, false);
        MergeInto(merged, found, scratch);
        if (params.m_check_activationcenter && !found.empty() &&
            HitsActivationCenter(params, slice, ms2)) {
            break;
        }
    }
    if (params.m_cut_similiar_mono) {
        MergeSimilarPeaks(params, merged);
    }
    return merged;
}

std::vector<Precursor> EnumerateCandidates(const UserParameters& params, const PeakList& merged,
                                           const MS2Spectrum& ms2) {
    // A peak well above the window cannot have been isolated; one below it still can
    // be the mono-isotopic peak of a cluster that reaches into the window.
    const double upper = ms2.m_activation_center + 0.5 * params.m_isolation_width + 0.05;
    const double tol = ActivationTolerance(params, ms2);
    std::vector<Precursor> pairs;
    for (const Peak& peak : merged) {
        if (!(peak.m_mz <= upper)) {
            continue;
        }
        for (int32_t z = kLowestCharge; z <= kHighestCharge; ++z) {
            const Precursor candidate{peak.m_mz, z};
            if (params.m_co_elute || HitsIsolationTarget(candidate, tol, ms2.m_activation_center)) {
                pairs.push_back(candidate);
            }
        }
    }
    return pairs;
}

}  // namespace ksieve
