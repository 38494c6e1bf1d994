// Candidate selection: the plausibility filters, the rank-product limit, the model
// scores and the m/z recalibration of the survivors.
#include <algorithm>
#include <array>
#include <cstdint>

#include "detection.h"
#include "models.h"
#include "spectrumutils.h"

namespace ksieve {

namespace {

// With co-elution every plausible candidate may be a precursor; without it, one is.
constexpr std::size_t kCoElutedLimit = 1000;

// Four feature values, overwritten by their ranks, then the rank product.
struct RankEntry {
    uint64_t m_index = 0;  // position in the kept list
    std::array<double, 5> m_values{};
};
constexpr std::size_t kRankedFeatures = 4;
constexpr std::size_t kProductSlot = 4;

// Sorts by feature `k` and replaces each raw value by its rank. A rank rises unless
// the raw value equals the value just written before it, which is that entry's
// rank, not its raw value: so ranks are positions in the sort, equal values
// included, except where a raw value happens to equal the rank before it.
void RankFeature(std::vector<RankEntry>& entries, std::size_t k) {
    std::sort(entries.begin(), entries.end(), [k](const RankEntry& a, const RankEntry& b) {
        return a.m_values[k] < b.m_values[k];
    });
    double rank = 1.0;
    entries.front().m_values[k] = rank;
    for (std::size_t i = 1; i < entries.size(); ++i) {
        if (entries[i].m_values[k] != entries[i - 1].m_values[k]) {
            rank += 1.0;
        }
        entries[i].m_values[k] = rank;
    }
}

}  // namespace

bool PassesCandidateFilters(FeaturesExtractor& candidate, const UserParameters& params) {
    const int32_t run = candidate.GetIsotopeRun();
    if (run < 2) {
        return false;
    }
    // Highly charged ions show a longer cluster before the first valley.
    if (candidate.charge() > 3 && run < 3) {
        return false;
    }
    // A mass beyond the isotope table has no theory to correlate with.
    if (!candidate.HasIpvRow()) {
        return false;
    }
    if (candidate.corr_0() < 0.5) {
        return false;
    }
    // A doubly charged ion near the target may show a single isotope inside the
    // window; higher charges and ions above the window must show two.
    const double upper = candidate.ms2().m_activation_center + params.m_isolation_width;
    if ((candidate.charge() > 2 || candidate.precursor().m_mz > upper) &&
        candidate.GetIsotopesInWindow() < 2) {
        return false;
    }
    return candidate.GetWindowShare() >= 0.04;
}

std::vector<ScoredCandidate> ReduceByRankProduct(const CandidateList& kept) {
    std::vector<RankEntry> entries(kept.size());
    for (std::size_t i = 0; i < kept.size(); ++i) {
        FeaturesExtractor& candidate = *kept[i];
        entries[i].m_index = i;
        // Oriented so that a higher value means a more believable candidate: signal
        // eluting with the peak below the mono-isotopic one counts against it.
        entries[i].m_values = {candidate.corr_0(), -candidate.cos_m1_0(), candidate.cos_0_1(),
                               candidate.GetWindowShare(), 0.0};
    }
    if (entries.empty()) {
        return {};
    }
    for (std::size_t k = 0; k < kRankedFeatures; ++k) {
        RankFeature(entries, k);
    }
    // The isotope correlation and the window share weigh three times.
    for (RankEntry& entry : entries) {
        const std::array<double, 5>& r = entry.m_values;
        entry.m_values[kProductSlot] = r[0] * r[0] * r[0] * r[1] * r[2] * r[3] * r[3] * r[3];
    }
    std::sort(entries.begin(), entries.end(), [](const RankEntry& a, const RankEntry& b) {
        return a.m_values[kProductSlot] < b.m_values[kProductSlot];
    });
    std::vector<ScoredCandidate> result;
    result.reserve(entries.size());
    for (const RankEntry& entry : entries) {
        result.push_back({kept[entry.m_index], entry.m_values[kProductSlot]});
    }
    return result;
}

std::vector<ScoredCandidate> ScoreAndSort(const UserParameters& params, const CandidateList& kept) {
    std::vector<ScoredCandidate> scored;
    scored.reserve(kept.size());
    for (FeaturesExtractor* candidate : kept) {
        scored.push_back({candidate, ScoreCandidate(params, *candidate)});
    }
    std::sort(scored.begin(), scored.end(), [](const ScoredCandidate& a, const ScoredCandidate& b) {
        return a.m_value > b.m_value;
    });
    return scored;
}

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

double RecalibratedMz(FeaturesExtractor& candidate) {
    // The raw slices: peaks below the noise limit pull on the mean too.
    return WeightedMzInWindows(candidate.scan_peaks(), candidate.precursor().m_mz,
                               {candidate.params().m_recalibrate_window, true});
}

}  // namespace ksieve
