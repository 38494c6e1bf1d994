// The decisions on one scan's precursors: correct a weak reading when another
// reading of the same envelope is well supported, remove aliases of better
// supported precursors, then remove what stays weakly supported.
#include <algorithm>
#include <cmath>
#include <numeric>

#include "validation.h"

namespace ksieve {

namespace {

constexpr std::size_t kSlices = 10;
constexpr int kMaxCharge = 6;
constexpr int kAliasPeaks = 4;
// Readings of one ion agree on the m/z of its peaks closer than this, in ppm,
// whatever the wider tolerance of the peak search.
constexpr double kAliasPpm = 10.0;

using Fate = ValidationFate;

struct Entry {
    Precursor m_precursor;
    double m_support = 0.0;
    double m_elution = 0.0;
    Fate m_fate = Fate::kKept;
    std::array<double, kSlices> m_profile{};
};

bool kept(Fate fate) {
    return fate == Fate::kKept || fate == Fate::kCorrectedIsotope || fate == Fate::kCorrectedCharge;
}

struct Reading {
    Precursor m_precursor;
    double m_support = 0.0;
    double m_elution = 0.0;
};

Reading read_as(const ValidationInput& input, const ValidationModel& model, Precursor precursor,
                std::size_t rank, double scan_max) {
    const ValidationFeatures features = ComputeValidationFeatures(input, precursor, rank, scan_max);
    return {precursor, Support(model, features), features.m_elution};
}

// Two m/z values `steps` isotope spacings apart: within the tolerance, widened by
// the spread of real isotope spacings around the mean one (about 0.0006 Da).
bool apart(double a, double b, int steps, int charge, double ppm) {
    const double expected = steps * kPeptideIsotopeSpacing / charge;
    return std::abs(a - b - expected) <
           MzTolerance{ppm, true}.at(b) + 0.0006 * std::abs(steps) / charge;
}

Fate alias_kind(const Precursor& a, const Precursor& b, int k) {
    if (a.m_charge != b.m_charge) {
        return Fate::kChargeAlias;
    }
    return k == 0 ? Fate::kDuplicate : Fate::kIsotopeAlias;
}

// One ion read twice: the mono-isotopic peak of one reading lies on an isotope
// peak of the other, at the same charge (a duplicate when on its mono-isotopic
// peak) or at another.
Fate alias_of(const Precursor& a, const Precursor& b, double ppm) {
    for (int k = -kAliasPeaks; k <= kAliasPeaks; ++k) {
        if (apart(b.m_mz, a.m_mz, k, a.m_charge, ppm)) {
            return alias_kind(a, b, k);
        }
        if (apart(a.m_mz, b.m_mz, k, b.m_charge, ppm)) {
            return alias_kind(a, b, k);
        }
    }
    return Fate::kKept;
}

// The best other reading of a weak precursor's envelope: the mono-isotopic peak
// one or two isotopes lower, or another charge at the same m/z.
void correct(const ValidationInput& input, const ValidationModel& model, Entry& entry,
             std::size_t rank, double scan_max) {
    const Precursor p = entry.m_precursor;
    Reading best{p, entry.m_support, entry.m_elution};
    for (int k = 1; k <= 2; ++k) {
        const double mz = MeasuredMz(input, p.m_mz - k * kPeptideIsotopeSpacing / p.m_charge);
        const Reading r = read_as(input, model, {mz, p.m_charge}, rank, scan_max);
        if (r.m_support > best.m_support) {
            best = r;
        }
    }
    for (int c = 2; c <= kMaxCharge; ++c) {
        const Reading r = read_as(input, model, {p.m_mz, c}, rank, scan_max);
        if (c != p.m_charge && r.m_support > best.m_support) {
            best = r;
        }
    }
    if (best.m_support >= model.m_keep &&
        best.m_support >= entry.m_support + model.m_correct_margin) {
        const bool charge = best.m_precursor.m_charge != p.m_charge;
        entry.m_precursor = best.m_precursor;
        entry.m_support = best.m_support;
        entry.m_elution = best.m_elution;
        entry.m_fate = charge ? Fate::kCorrectedCharge : Fate::kCorrectedIsotope;
    }
}

void count(Fate fate, ValidationCounts& counts) {
    int64_t ValidationCounts::*const member =
        kValidationOutcomes[static_cast<std::size_t>(fate)].m_count;
    if (member != nullptr) {
        ++(counts.*member);
    }
}

// Visits the precursors best supported first; each removes its weaker aliases,
// a duplicate always, another alias unless that one is itself well supported.
void remove_aliases(const ValidationInput& input, std::vector<Entry>& entries,
                    const ValidationModel& model, double ppm) {
    std::vector<std::size_t> order(entries.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        return entries[a].m_support > entries[b].m_support;
    });
    for (std::size_t i = 0; i < order.size(); ++i) {
        const Entry& strong = entries[order[i]];
        if (!kept(strong.m_fate)) {
            continue;
        }
        for (std::size_t j = i + 1; j < order.size(); ++j) {
            Entry& weak = entries[order[j]];
            if (!kept(weak.m_fate)) {
                continue;
            }
            const Fate alias = alias_of(strong.m_precursor, weak.m_precursor, ppm);
            const bool together =
                alias != Fate::kKept &&
                ProfileCorrelation(strong.m_profile, weak.m_profile) >= model.m_alias_profile &&
                UnexplainedShare(input, strong.m_precursor, weak.m_precursor) <
                    model.m_alias_unexplained;
            if (alias == Fate::kDuplicate ||
                (alias != Fate::kKept && together && weak.m_support < model.m_alias_keep)) {
                weak.m_fate = alias;
            }
        }
    }
}

// A corrected reading that lands on a precursor kept as reported was that
// precursor's alias all along.
void remove_corrected_onto_kept(std::vector<Entry>& entries, double ppm) {
    for (Entry& moved : entries) {
        const bool isotope = moved.m_fate == Fate::kCorrectedIsotope;
        if (!isotope && moved.m_fate != Fate::kCorrectedCharge) {
            continue;
        }
        for (const Entry& other : entries) {
            if (&other != &moved && kept(other.m_fate) &&
                alias_of(other.m_precursor, moved.m_precursor, ppm) == Fate::kDuplicate) {
                moved.m_fate = isotope ? Fate::kIsotopeAlias : Fate::kChargeAlias;
                break;
            }
        }
    }
}

// A kept precursor as read, with the evidence detection gave its original and
// the stage's outcome.
Precursor with_outcome(const Precursor& read, const Precursor& original, Fate fate) {
    Precursor kept{read.m_mz, read.m_charge, original.m_evidence};
    kept.m_evidence.m_validation = ValidationFateName(fate);
    return kept;
}

}  // namespace

ValidationResult ValidatePrecursors(const ValidationInput& input, const ValidationModel& model) {
    const std::vector<Precursor>& detected = *input.m_detected;
    ValidationResult result;
    result.m_counts.m_scans = 1;
    result.m_counts.m_in = static_cast<int64_t>(detected.size());
    if (detected.empty() || input.m_slices->size() < kSlices) {
        for (const Precursor& precursor : detected) {
            result.m_precursors.push_back(with_outcome(precursor, precursor, Fate::kKept));
        }
        result.m_fates.assign(detected.size(), Fate::kKept);
        result.m_counts.m_out = result.m_counts.m_in;
        return result;
    }
    std::vector<Entry> entries(detected.size());
    double scan_max = 0.0;
    for (std::size_t rank = 0; rank < detected.size(); ++rank) {
        entries[rank].m_profile = EnvelopeProfile(input, detected[rank]);
        scan_max = std::max(scan_max, std::accumulate(entries[rank].m_profile.begin(),
                                                      entries[rank].m_profile.end(), 0.0));
    }
    for (std::size_t rank = 0; rank < detected.size(); ++rank) {
        const Reading r = read_as(input, model, detected[rank], rank, scan_max);
        entries[rank].m_precursor = r.m_precursor;
        entries[rank].m_support = r.m_support;
        entries[rank].m_elution = r.m_elution;
    }
    const double alias_ppm = std::min(input.m_tolerance_ppm, kAliasPpm);
    remove_aliases(input, entries, model, alias_ppm);
    for (std::size_t rank = 0; rank < entries.size(); ++rank) {
        if (kept(entries[rank].m_fate) && entries[rank].m_support < model.m_keep) {
            correct(input, model, entries[rank], rank, scan_max);
        }
    }
    remove_corrected_onto_kept(entries, alias_ppm);
    for (std::size_t rank = 0; rank < entries.size(); ++rank) {
        Entry& entry = entries[rank];
        if (kept(entry.m_fate) && entry.m_support < model.m_keep) {
            entry.m_fate =
                entry.m_elution < model.m_min_elution ? Fate::kNotCoeluting : Fate::kPoorEnvelope;
        }
        if (kept(entry.m_fate)) {
            result.m_precursors.push_back(
                with_outcome(entry.m_precursor, detected[rank], entry.m_fate));
        }
    }
    if (result.m_precursors.empty()) {
        result.m_precursors.push_back(
            with_outcome(detected.front(), detected.front(), Fate::kRestored));
        entries.front().m_fate = Fate::kRestored;
    }
    for (const Entry& entry : entries) {
        result.m_fates.push_back(entry.m_fate);
        count(entry.m_fate, result.m_counts);
    }
    result.m_counts.m_out = static_cast<int64_t>(result.m_precursors.size());
    return result;
}

}  // namespace ksieve
