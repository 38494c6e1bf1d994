// The detection of one MS2 scan: candidate generation, then selection, with the
// evaluators of the scan owned here.
#include <utility>

#include "detection.h"
#include "models.h"

namespace ksieve {

std::vector<Precursor> DetectPrecursors(const UserParameters& params, const IsotopeTable& ipv,
                                        const Ms1Slices& raw, const MS2Spectrum& ms2,
                                        DetectionScratch& scratch) {
    if (raw.size() < 5) {
        return {};
    }
    const Ms1Slices clean = FilterSliceNoise(raw, ms2);
    const PeakList merged = CollectCandidatePeaks(params, clean, ms2);
    const std::vector<Precursor> pairs = EnumerateCandidates(params, merged, ms2);
    if (pairs.empty()) {
        return {};
    }
    const IntensityGrid grid(params.m_peak_window, clean, ms2);
    // Reserved for every pair, so the kept pointers into it stay valid; a rejected
    // evaluator is dropped at once, since nothing reads it again.
    std::vector<FeaturesExtractor>& owned = scratch.m_evaluators;
    owned.clear();
    owned.reserve(pairs.size());
    CandidateList kept;
    for (const Precursor& pair : pairs) {
        FeaturesExtractor& candidate =
            owned.emplace_back(params, ipv, raw, merged, grid, ms2, pair);
        if (PassesCandidateFilters(candidate, params)) {
            kept.push_back(&candidate);
        } else {
            owned.pop_back();
        }
    }
    const CandidateList selected = SelectCandidates(params, std::move(kept));
    std::vector<Precursor> result;
    result.reserve(selected.size());
    for (FeaturesExtractor* candidate : selected) {
        PrecursorEvidence evidence;
        evidence.m_origin = PrecursorOrigin::kDetected;
        evidence.m_scored = true;
        // The features are cached in the evaluator, so the score comes again cheaply.
        evidence.m_score = ScoreCandidate(params, *candidate);
        result.push_back({RecalibratedMz(*candidate), candidate->charge(), evidence});
    }
    owned.clear();
    return result;
}

}  // namespace ksieve
