// Precursor validation: a second look at the precursors detection wrote for one
// MS2 scan, removing or correcting those that are the same ion seen wrongly.
//
// Detection scores each (m/z, charge) pair on its own. The typical wrong answers
// it leaves are the right ion at another charge, the right ion with its
// mono-isotopic peak an isotope or more off, and one ion reported twice. This stage weighs
// together, for each precursor: how well the summed isotope envelope fits the expected pattern at
// its charge, against other charges at the same m/z and against a mono-isotopic peak one or two
// isotopes lower; the signal at half the isotope spacing (a sign of twice the charge); and how well
// the elution profiles of its first isotopes correlate across the ten MS1 slices. A fitted logistic
// model turns these into a support between 0 and 1. Then, among the precursors of the scan, aliases
// of one ion (the mono-isotopic peak of one reading on one of the other's first isotope peaks) keep
// only the better supported one, unless the two envelopes elute differently or the weaker reading's
// peak holds intensity of its own; a weak precursor is corrected to a clearly better reading one or
// two isotopes lower or at another charge, or removed; a scan is never left empty.
//
// No file I/O and no global state: the caller hands in the precursors, the ten
// raw MS1 slices, the isotope table and the fitted model. Nothing here throws; a
// precursor whose mass lies beyond the table counts as fitting nothing.
#pragma once

#include <array>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "records.h"
#include "spectrumutils.h"

namespace ksieve {

// The features of one precursor; the model's weights are one of these too, a
// weight per feature. Fits are cosines with the expected pattern, 0 to 1.
struct ValidationFeatures {
    double m_fit = 0.0;           // the envelope at the reported reading
    double m_one_lower = 0.0;     // the fit one isotope lower, less m_fit
    double m_two_lower = 0.0;     // the fit two isotopes lower, less m_fit
    double m_other_charge = 0.0;  // the best fit at another charge, less m_fit
    double m_between = 0.0;       // signal half a spacing above isotopes over theirs, <= 2
    double m_elution = 0.0;       // mono's elution correlation with isotopes 1, 2; -1 unseen
    double m_below = 0.0;         // signal one spacing below the mono over the mono's, <= 3
    double m_intensity = 0.0;     // log10 of the envelope over the scan's largest, >= -4
    double m_first = 0.0;         // 1 for detection's best precursor, else 0
    double m_rank = 0.0;          // log(1 + detection rank)
    double m_mono_share = 0.0;    // the mono-isotopic peak over the envelope's strongest
};

// Each feature once, in the order the model sums them and the fit tool writes
// them, by its field name without the "m_".
struct ValidationFeatureField {
    const char* m_name;
    double ValidationFeatures::*m_member;
};
inline constexpr ValidationFeatureField kValidationFeatureFields[] = {
    {"fit", &ValidationFeatures::m_fit},
    {"one_lower", &ValidationFeatures::m_one_lower},
    {"two_lower", &ValidationFeatures::m_two_lower},
    {"other_charge", &ValidationFeatures::m_other_charge},
    {"between", &ValidationFeatures::m_between},
    {"elution", &ValidationFeatures::m_elution},
    {"below", &ValidationFeatures::m_below},
    {"intensity", &ValidationFeatures::m_intensity},
    {"first", &ValidationFeatures::m_first},
    {"rank", &ValidationFeatures::m_rank},
    {"mono_share", &ValidationFeatures::m_mono_share},
};
inline constexpr std::size_t kValidationFeatures = std::size(kValidationFeatureFields);
static_assert(sizeof(ValidationFeatures) == kValidationFeatures * sizeof(double),
              "every feature is in kValidationFeatureFields");

// A logistic model over ValidationFeatures and the limits that act on its
// support. Fitted on simulated runs with known truth (tools/validationfit).
struct ValidationModel {
    ValidationFeatures m_weights{};
    double m_bias = 0.0;
    // A precursor supported below this is removed (or corrected, when an
    // alternative reading of its envelope is supported at least this much).
    double m_keep = 0.5;
    // An alias of a better supported precursor stays when its own support is
    // at least this: two ions can share peaks.
    double m_alias_keep = 0.95;
    // Two readings alias one ion only when their envelopes elute alike, at
    // least this correlated; two peptides can lie one isotope apart.
    double m_alias_profile = 0.9;
    // Nor when the weaker reading's mono-isotopic peak holds at least this much
    // intensity that the stronger's pattern does not account for, relative to
    // the stronger's most intense peak.
    double m_alias_unexplained = 0.5;
    // A correction needs its alternative supported this much more than the
    // reported reading.
    double m_correct_margin = 0.2;
    // A removed precursor whose isotope elution correlation lies below this is
    // counted as an envelope that does not co-elute.
    double m_min_elution = 0.3;
};

// The model compiled into the program, as last fitted.
extern const ValidationModel kFittedValidationModel;

// What the stage did to one or many scans, by reason.
struct ValidationCounts {
    int64_t m_scans = 0;
    int64_t m_in = 0;                 // precursors handed in
    int64_t m_out = 0;                // precursors kept or corrected
    int64_t m_charge_alias = 0;       // removed: the same ion at another charge is kept
    int64_t m_isotope_alias = 0;      // removed: the same ion from another isotope peak is kept
    int64_t m_duplicate = 0;          // removed: the same m/z and charge twice
    int64_t m_not_coeluting = 0;      // removed: its isotopes do not elute together
    int64_t m_poor_envelope = 0;      // removed: the envelope does not fit its reading
    int64_t m_corrected_isotope = 0;  // mono-isotopic peak moved one or two isotopes lower
    int64_t m_corrected_charge = 0;   // charge changed at the same m/z
    int64_t m_restored = 0;           // scans whose precursors all failed: the first detected stays
};

// Every count of ValidationCounts once: the name the run summary gives it, and
// the words before and after its number in the log line of an input (none for
// the scan count, which that line leaves out).
struct ValidationCountName {
    const char* m_name;
    int64_t ValidationCounts::*m_member;
    const char* m_log_before;
    const char* m_log_after;
};
inline constexpr ValidationCountName kValidationCountNames[] = {
    {"scans", &ValidationCounts::m_scans, nullptr, nullptr},
    {"detected", &ValidationCounts::m_in, ": ", " detected"},
    {"kept", &ValidationCounts::m_out, ", ", " kept"},
    {"removed_charge_alias", &ValidationCounts::m_charge_alias, "; removed charge alias ", ""},
    {"removed_isotope_alias", &ValidationCounts::m_isotope_alias, ", isotope alias ", ""},
    {"removed_duplicate", &ValidationCounts::m_duplicate, ", duplicate ", ""},
    {"removed_not_coeluting", &ValidationCounts::m_not_coeluting, ", not co-eluting ", ""},
    {"removed_poor_envelope", &ValidationCounts::m_poor_envelope, ", poor envelope ", ""},
    {"corrected_isotope", &ValidationCounts::m_corrected_isotope, "; corrected isotope ", ""},
    {"corrected_charge", &ValidationCounts::m_corrected_charge, ", charge ", ""},
    {"scans_left_with_best_detected", &ValidationCounts::m_restored,
     "; scans left with the best detected only ", ""},
};

void add_counts(ValidationCounts& total, const ValidationCounts& scan);

// The log line of one input's counts: "Precursor validation in <path>: 90
// detected, 70 kept; removed charge alias 8, ...", every count but the scans.
std::string ValidationCountsLine(const std::string& path, const ValidationCounts& counts);
// The path and counts of a line that ends in what ValidationCountsLine wrote
// (anything, such as the log's prefix, may stand before it); the scan count
// stays 0. Nothing for any other line. The path is taken up to the last ": ".
struct ValidationCountsRead {
    std::string m_path;
    ValidationCounts m_counts;
};
std::optional<ValidationCountsRead> ReadValidationCountsLine(std::string_view line);

// What became of one detected precursor.
enum class ValidationFate {
    kKept,
    kCorrectedIsotope,  // kept, its mono-isotopic peak moved one or two isotopes lower
    kCorrectedCharge,   // kept at another charge
    kChargeAlias,       // removed: the same ion at another charge is kept
    kIsotopeAlias,      // removed: the same ion from another isotope peak is kept
    kDuplicate,         // removed: the same m/z and charge is kept
    kNotCoeluting,      // removed: weak, and its isotopes do not elute together
    kPoorEnvelope,      // removed: weak, its envelope does not fit its reading
    kRestored,          // failed, yet kept as the scan's only precursor
};

// Every outcome once, in the order of ValidationFate: the name the precursor
// evidence gives it and the count it adds one to (none for kKept).
struct ValidationOutcome {
    ValidationFate m_fate;
    const char* m_name;
    int64_t ValidationCounts::*m_count;
};
inline constexpr ValidationOutcome kValidationOutcomes[] = {
    {ValidationFate::kKept, "kept", nullptr},
    {ValidationFate::kCorrectedIsotope, "corrected_isotope",
     &ValidationCounts::m_corrected_isotope},
    {ValidationFate::kCorrectedCharge, "corrected_charge", &ValidationCounts::m_corrected_charge},
    {ValidationFate::kChargeAlias, "charge_alias", &ValidationCounts::m_charge_alias},
    {ValidationFate::kIsotopeAlias, "isotope_alias", &ValidationCounts::m_isotope_alias},
    {ValidationFate::kDuplicate, "duplicate", &ValidationCounts::m_duplicate},
    {ValidationFate::kNotCoeluting, "not_coeluting", &ValidationCounts::m_not_coeluting},
    {ValidationFate::kPoorEnvelope, "poor_envelope", &ValidationCounts::m_poor_envelope},
    {ValidationFate::kRestored, "restored", &ValidationCounts::m_restored},
};

// The outcome as the precursor evidence names it: "kept", "corrected_isotope",
// "restored", ... (a static string).
const char* ValidationFateName(ValidationFate fate);

// Each kept precursor carries the evidence of the detected one it was read
// from, with the stage's outcome as its validation.
struct ValidationResult {
    std::vector<Precursor> m_precursors;  // detection's order, corrections in place
    std::vector<ValidationFate> m_fates;  // one per detected precursor, in its order
    ValidationCounts m_counts;
};

// Peak matching tolerance in ppm of the m/z looked for; strict.
struct ValidationInput {
    const std::vector<Precursor>* m_detected = nullptr;  // best detection score first
    const Ms1Slices* m_slices = nullptr;  // ten raw slices, the parent fifth; or none
    const IsotopeTable* m_table = nullptr;
    double m_tolerance_ppm = 10.0;

    MzTolerance tolerance() const { return {m_tolerance_ppm, true}; }
};

// The features of `precursor`, at detection rank `rank` (0 for the best), with
// `scan_max` the largest envelope intensity among the scan's precursors.
ValidationFeatures ComputeValidationFeatures(const ValidationInput& input,
                                             const Precursor& precursor, std::size_t rank,
                                             double scan_max);
// The envelope intensity of `precursor`: its first four isotope peaks summed
// over the slices.
double EnvelopeIntensity(const ValidationInput& input, const Precursor& precursor);
// The same four peaks summed per slice: the elution profile of the envelope.
std::array<double, 10> EnvelopeProfile(const ValidationInput& input, const Precursor& precursor);
// The intensity at `weak`'s mono-isotopic peak that the expected pattern of
// `strong`, scaled to its observed peaks, does not account for, over the height
// of that pattern's strongest peak: near 0 when `weak` is a reading of one of
// `strong`'s peaks or of noise beside it, large when another ion of some
// weight stands there. 0 to 1; 0 when nothing is seen there.
double UnexplainedShare(const ValidationInput& input, const Precursor& strong,
                        const Precursor& weak);
// Pearson correlation of two profiles; 0 when either is flat.
double ProfileCorrelation(const std::array<double, 10>& a, const std::array<double, 10>& b);
// The intensity-weighted m/z of the slice peaks strictly within the tolerance
// of `mz`; `mz` itself when they sum to at most 1e-6.
double MeasuredMz(const ValidationInput& input, double mz);
// The model's support for a precursor with these features, 0 to 1.
double Support(const ValidationModel& model, const ValidationFeatures& features);

// The validated precursor list of one scan. Never empty when the detected list
// is not: a scan whose precursors all fail keeps the first detected one. Without
// slices (fewer than ten) the list passes unchanged.
ValidationResult ValidatePrecursors(const ValidationInput& input, const ValidationModel& model);

}  // namespace ksieve
