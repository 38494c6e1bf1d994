// Precursor detection: from one MS2 scan and the MS1 window around it to the
// precursors that the MS1 signal supports, co-eluted ones included.
//
// The work runs in two halves. Candidate generation takes ten MS1 slices around
// the isolation target, removes their noise, merges the peaks of the central scans
// into one candidate list and pairs every candidate peak with the charges 2 to 6.
// Candidate selection throws out the implausible pairs with cheap features, limits
// how many go on by a rank product, scores the rest with the chosen model, keeps
// those above the threshold and recalibrates their m/z over the ten slices.
//
// No I/O, no messages and no options beyond the UserParameters given; nothing
// is shared between calls but the read-only parameters and isotope table, so
// threads detect side by side, each with its own scratch. Detection raises
// nothing: a scan it cannot explain gives the empty vector, on which the
// pipeline keeps the instrument's declared precursors.
//
// All peak searches here use absolute m/z widths, except the recalibration, whose
// window is in ppm of the candidate. Every tolerance test is strict: a peak at
// exactly the tolerance is out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "featuresextractor.h"
#include "records.h"
#include "userparameters.h"

namespace ksieve {

// What one detecting thread reuses from scan to scan: the evaluators of the
// scan in work. Nothing in it survives into the next scan's result.
struct DetectionScratch {
    std::vector<FeaturesExtractor> m_evaluators;
};

// The detected precursors of `ms2` from `raw`, the ten MS1 slices that
// CollectMs1Slices cut for it (no slices: empty), best model score first; each
// has the m/z recalibrated over the ten slices and a charge from 2 to 6, and
// as evidence the origin kDetected and its model score. Empty when nothing
// passes.
std::vector<Precursor> DetectPrecursors(const UserParameters& params, const IsotopeTable& ipv,
                                        const Ms1Slices& raw, const MS2Spectrum& ms2,
                                        DetectionScratch& scratch);

// ---- Candidate generation ----

// The mass tolerance of the scan: m_mstol in m/z, or with m_mstolppm set
// m_mstol * m_activation_center / 1e6.
double ActivationTolerance(const UserParameters& params, const MS2Spectrum& ms2);

// Ten peak lists around ms2.m_activation_center (peaks strictly within `err_tol`
// m/z): entry 4 from the parent scan ms2.m_precursor_scan, entries 0-3 from the
// four store records before it and 5-9 from the five after it; a position outside
// the store gives an empty list. The parent is found by binary search on the scan
// numbers compared as unsigned 32-bit values, which relies on the store never
// falling from front to back. No lists at all when the parent is not in the store.
Ms1Slices CollectMs1Slices(double err_tol, const Ms1Store& store, const MS2Spectrum& ms2);
// The store position of the parent scan as CollectMs1Slices finds it, and the
// range of records whose peaks the slices read: [first, end).
struct SliceRange {
    std::size_t m_first = 0;
    std::size_t m_parent = 0;
    std::size_t m_end = 0;
};
std::optional<SliceRange> FindSliceRange(const Ms1Store& store, const MS2Spectrum& ms2);

// Each slice thinned to the peaks of at least 0.02 times the most intense peak
// strictly within 1.05 m/z of the activation centre. A slice without a peak near
// the centre survives whole.
Ms1Slices FilterSliceNoise(const Ms1Slices& slices, const MS2Spectrum& ms2);

// The candidate peaks: the peaks within m_peak_window of the activation centre in
// the parent slice (4), then the scan before (3) and after (5), merged in peak order
// with the earlier peak first on ties. With m_check_activationcenter, a slice whose
// nearest peak lies closer than the tolerance to the centre ends the visit. With
// m_cut_similiar_mono, runs of peaks closer than one tolerance (scaled at the first
// peak of the list in ppm mode) to their running intensity-weighted mean are fused;
// a group whose peaks sum to zero intensity keeps its m/z.
// `clean_slices` holds the ten noise-filtered slices; a missing one counts as empty.
PeakList CollectCandidatePeaks(const UserParameters& params, const Ms1Slices& clean_slices,
                               const MS2Spectrum& ms2);

// The (m/z, charge) pairs to evaluate, in order: every candidate peak with m/z at
// most centre + half the isolation width + 0.05 (the bound itself stays in; there
// is no lower cut), each with the charges 2 to 6 ascending. Without m_co_elute a
// pair goes on only when one of its isotope peaks 0 to 3 lies closer than the
// tolerance to the isolation target.
std::vector<Precursor> EnumerateCandidates(const UserParameters& params, const PeakList& merged,
                                           const MS2Spectrum& ms2);

// ---- Candidate selection ----

// The kept candidates, in order of creation (ascending m/z, then charge). They
// point into a container that owns them and must not move while the list lives.
using CandidateList = std::vector<FeaturesExtractor*>;

// A candidate and the value it was ordered by: the rank product or the score.
struct ScoredCandidate {
    FeaturesExtractor* m_candidate = nullptr;
    double m_value = 0.0;
};

// The cheap plausibility tests, cheapest first; the first failure rejects:
// isotope run below 2; charge above 3 with a run below 3; corr_0 below 0.5 (read
// through its cache); for a charge above 2 or an m/z above centre + isolation width,
// fewer than 2 isotopes in the window; window share below 0.04. Exact limits pass.
bool PassesCandidateFilters(FeaturesExtractor& candidate, const UserParameters& params);

// The candidates in ascending order of the product r0^3 * r1 * r2 * r3^3 of their
// ranks in corr_0, -cos_m1_0, cos_0_1 and window_share (each ranked ascending). A
// rank rises by one from entry to entry of the sorted list unless the entry's raw
// value equals the rank the entry before it has just been given; so equal values
// do not share a rank. Ties in the sorts fall in no defined order.
std::vector<ScoredCandidate> ReduceByRankProduct(const CandidateList& kept);

// Every candidate with its model score (ScoreCandidate), best first.
std::vector<ScoredCandidate> ScoreAndSort(const UserParameters& params, const CandidateList& kept);

// The final choice among the filtered candidates: beyond 1000 of them with
// m_co_elute (beyond 1 without), only the first of ReduceByRankProduct go on, in
// its order; those are scored, and the ones scoring strictly above
// m_mars_threshold are returned, best first.
CandidateList SelectCandidates(const UserParameters& params, CandidateList kept);

// The intensity-weighted m/z of the raw-slice peaks strictly within
// m_recalibrate_window ppm of the candidate's m/z, over all ten slices; the
// candidate's own m/z when those peaks sum to at most 1e-6 in intensity.
double RecalibratedMz(FeaturesExtractor& candidate);

// ---- Evidence of the written precursors ----

// The retention times around an MS2 scan's parent, in the input's unit: the
// parent's, and the next FT scan's when the store holds one.
struct SliceTimes {
    double m_parent = 0.0;
    std::optional<double> m_next;
};
// Nothing when the parent is not in the store.
std::optional<SliceTimes> FindSliceTimes(const Ms1Store& store, const MS2Spectrum& ms2);

// The declared ion seen in a written one. Both are read as masses (m/z times
// charge, less the protons); the written ion is the declared one when the
// difference is a whole number of isotope steps, at most three either way,
// within `tolerance_ppm` of the declared mass, and the charges agree or the
// declared m/z is a peak of the written envelope. The steps are declared minus
// written; nothing when the ions are unrelated. So 0 is the same ion at the
// same or another charge.
std::optional<int32_t> DeclaredIsotopeShift(const Precursor& declared, const Precursor& written,
                                            double tolerance_ppm);

// For keep_declared: each declared precursor that no precursor of `written`
// shows (DeclaredIsotopeShift) is appended, in declared order, with the
// evidence of a declared one.
void AppendUnconfirmedDeclared(std::vector<Precursor>& written,
                               const std::vector<Precursor>& declared, double tolerance_ppm);

// The summed intensity of the isotope peaks of `precursor` (mono-isotopic
// upwards, at most kEnvelopePeaks) that lie in [low, high]: for each, the
// nearest peak of `peaks` strictly within `tolerance_ppm` of its position.
inline constexpr int32_t kEnvelopePeaks = 8;
double EnvelopeIntensityIn(const PeakList& peaks, const Precursor& precursor, double tolerance_ppm,
                           double low, double high);

// The share of all intensity of `peaks` in [low, high] that the envelope of
// `precursor` holds, 0 to 1; 0 when the window holds no intensity.
double WindowPurity(const PeakList& peaks, const Precursor& precursor, double tolerance_ppm,
                    double low, double high);

struct EvidenceInput {
    const Ms1Slices* m_slices = nullptr;  // the ten raw slices, or none
    std::optional<SliceTimes> m_times;    // nothing: no parent
    double m_tolerance_ppm = 20.0;
    double m_isolation_width = 2.0;  // m/z, centred on the activation centre
};

// Fills the evidence of every precursor of `scan` in place: its origin against
// the first declared precursor (precursors from detection carry kDetected
// before, declared ones kDeclaredKept), isotope shift, declared m/z, intensity
// in the parent slice and isolation purity. Purity is read in the parent slice
// and, with a next scan whose time differs, interpolated linearly to the MS2's
// retention time with its reading in the next slice, clamped to [0, 1].
// Without slices intensity and purity stay 0.
void FillEvidence(MS2Spectrum& scan, const EvidenceInput& input);

}  // namespace ksieve
