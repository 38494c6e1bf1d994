// The detection of one MS2 scan: candidate generation, then selection, with the
// evaluators of the scan owned here.
#include <string>
#include <utility>

#include "detection.h"
#include "logger.h"

namespace ksieve {

std::vector<Precursor> DetectPrecursors(const UserParameters& params, const Ms1Store& store,
                                        const MS2Spectrum& ms2) {
    const Ms1Slices raw = CollectMs1Slices(params.m_search_window, store, ms2);
    if (raw.size() < 5) {
        log_info("Cannot found the precurosr scan of MS2: " + std::to_string(ms2.m_precursor_scan));
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
    std::vector<FeaturesExtractor> owned;
    owned.reserve(pairs.size());
    CandidateList kept;
    for (const Precursor& pair : pairs) {
        FeaturesExtractor& candidate = owned.emplace_back(params, raw, merged, grid, ms2, pair);
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
        result.push_back({RecalibratedMz(*candidate), candidate->charge()});
    }
    return result;
}

}  // namespace ksieve
