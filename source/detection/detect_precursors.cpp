// The detection of one MS2 scan: candidate generation, then selection.
#include <algorithm>
#include <cmath>
#include <string>

#include "detection.h"
#include "isopattern.h"
#include "logger.h"

namespace ksieve {

namespace {

constexpr int32_t kLowestCharge = 2;  // singly charged ions are never fragmented on purpose
constexpr int32_t kHighestCharge = 6;
constexpr int32_t kChargeCount = kHighestCharge - kLowestCharge + 1;
// Without co-elution the precursor must put one of its first isotopes on the target.
constexpr int32_t kTargetIsotopes = 4;
constexpr std::size_t kCoElutedLimit = 1000;

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

// Pairs every candidate peak up to the upper bound with the charges 2 to 6 and
// returns those that pass the filters, in order of creation. `owned` receives the
// evaluators; it is reserved up front so the returned pointers stay valid, and a
// rejected evaluator is dropped at once, since nothing reads it again.
CandidateList GenerateCandidates(const UserParameters& params, const Ms1Slices& raw,
                                 const PeakList& merged, double upper, const IntensityGrid& grid,
                                 const MS2Spectrum& ms2, std::vector<FeaturesExtractor>& owned) {
    const double tol = ActivationTolerance(params, ms2);
    owned.reserve(merged.size() * kChargeCount);
    CandidateList kept;
    for (const Peak& peak : merged) {
        if (!(peak.m_mz <= upper)) {
            continue;
        }
        for (int32_t z = kLowestCharge; z <= kHighestCharge; ++z) {
            const Precursor candidate{peak.m_mz, z};
            if (!params.m_co_elute &&
                !HitsIsolationTarget(candidate, tol, ms2.m_activation_center)) {
                continue;
            }
            FeaturesExtractor& evaluator =
                owned.emplace_back(params, raw, merged, grid, ms2, candidate);
            if (PassesCandidateFilters(evaluator, params)) {
                kept.push_back(&evaluator);
            } else {
                owned.pop_back();
            }
        }
    }
    return kept;
}

// Limits the kept list by rank product, then keeps the candidates that score
// strictly above the threshold, best first.
CandidateList SelectCandidates(const UserParameters& params, CandidateList kept) {
    if (kept.empty()) {
        return kept;
    }
    const std::size_t limit = params.m_co_elute ? kCoElutedLimit : 1;
    if (kept.size() > limit) {
        const std::vector<ScoredCandidate> ranked = ReduceByRankProduct(kept);
        kept.clear();
        for (std::size_t i = 0; i < limit; ++i) {
            kept.push_back(ranked[i].m_candidate);
        }
    }
    const std::vector<ScoredCandidate> scored = ScoreAndSort(params, kept);
    kept.clear();
    for (const ScoredCandidate& entry : scored) {
        if (!(entry.m_value > params.m_mars_threshold)) {
            break;
        }
        kept.push_back(entry.m_candidate);
    }
    return kept;
}

}  // namespace

std::vector<Precursor> DetectPrecursors(const UserParameters& params, const Ms1Store& store,
                                        const MS2Spectrum& ms2) {
    const Ms1Slices raw = CollectMs1Slices(params.m_search_window, store, ms2);
    if (raw.size() < 5) {
        log_info("Cannot found the precurosr scan of MS2: " + std::to_string(ms2.m_precursor_scan));
        return {};
    }
    const Ms1Slices clean = FilterSliceNoise(raw, ms2);
    const PeakList merged = CollectCandidatePeaks(params, clean, ms2);
    // Peaks far above the window cannot have been isolated; below it they still can
    // be the mono-isotopic peak of a cluster that reaches into the window.
    const double upper = ms2.m_activation_center + 0.5 * params.m_isolation_width + 0.05;
    if (std::none_of(merged.begin(), merged.end(),
                     [upper](const Peak& peak) { return peak.m_mz <= upper; })) {
        return {};
    }
    const IntensityGrid grid(params.m_peak_window, clean, ms2);
    std::vector<FeaturesExtractor> owned;
    const CandidateList selected =
        SelectCandidates(params, GenerateCandidates(params, raw, merged, upper, grid, ms2, owned));
    std::vector<Precursor> result;
    result.reserve(selected.size());
    for (FeaturesExtractor* candidate : selected) {
        result.push_back({RecalibratedMz(*candidate), candidate->charge()});
    }
    return result;
}

}  // namespace ksieve
