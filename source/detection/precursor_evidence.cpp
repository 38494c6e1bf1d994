// The evidence behind each written precursor: how it relates to what the
// instrument declared, how much MS1 signal it has, and how much of the isolation
// window it fills.
#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "detection.h"
#include "isopattern.h"
#include "spectrumutils.h"

namespace ksieve {

namespace {

// Isotope steps either way in which a detected ion still counts as the declared one.
constexpr int32_t kMaxDeclaredShift = 3;

double ion_mass(const Precursor& precursor) {
    const double charge = std::abs(precursor.m_charge);
    return (precursor.m_mz - kProtonMass) * charge;
}

// The detected origin of a precursor unrelated to the declared one.
PrecursorOrigin detected_origin(std::size_t rank) {
    return rank == 0 ? PrecursorOrigin::kDetected : PrecursorOrigin::kCoeluted;
}

void fill_origin(Precursor& precursor, const Precursor* declared, std::size_t rank,
                 double tolerance_ppm) {
    PrecursorEvidence& evidence = precursor.m_evidence;
    evidence.m_declared_mz = declared != nullptr ? declared->m_mz : 0.0;
    if (evidence.m_origin == PrecursorOrigin::kDeclaredKept) {
        evidence.m_same_ion = true;
        evidence.m_isotope_shift = 0;
        return;
    }
    const std::optional<int32_t> shift =
        declared != nullptr ? DeclaredIsotopeShift(*declared, precursor, tolerance_ppm)
                            : std::nullopt;
    evidence.m_same_ion = shift.has_value();
    evidence.m_isotope_shift = shift.value_or(0);
    if (!shift) {
        evidence.m_origin = detected_origin(rank);
    } else if (*shift == 0 && declared->m_charge == precursor.m_charge) {
        evidence.m_origin = PrecursorOrigin::kDeclaredConfirmed;
    } else {
        evidence.m_origin = PrecursorOrigin::kCorrected;
    }
}

double interpolated(double parent, double next, const SliceTimes& times, double rt) {
    const double span = *times.m_next - times.m_parent;
    const double weight = std::clamp((rt - times.m_parent) / span, 0.0, 1.0);
    return parent + (next - parent) * weight;
}

}  // namespace

std::optional<SliceTimes> FindSliceTimes(const Ms1Store& store, const MS2Spectrum& ms2) {
    const std::optional<SliceRange> range = FindSliceRange(store, ms2);
    if (!range) {
        return std::nullopt;
    }
    SliceTimes times{store[range->m_parent].m_retention_time, std::nullopt};
    if (range->m_parent + 1 < store.size()) {
        times.m_next = store[range->m_parent + 1].m_retention_time;
    }
    return times;
}

std::optional<int32_t> DeclaredIsotopeShift(const Precursor& declared, const Precursor& written,
                                            double tolerance_ppm) {
    if (declared.m_charge == 0 || written.m_charge == 0 ||
        (declared.m_charge < 0) != (written.m_charge < 0)) {
        return std::nullopt;
    }
    const double difference = ion_mass(declared) - ion_mass(written);
    const double steps = std::round(difference / kIsotopeSpacing);
    if (std::fabs(steps) > kMaxDeclaredShift) {
        return std::nullopt;
    }
    const double tolerance = MzTolerance{tolerance_ppm, true}.at(ion_mass(declared));
    if (!(std::fabs(difference - steps * kIsotopeSpacing) < tolerance)) {
        return std::nullopt;
    }
    const auto shift = static_cast<int32_t>(steps);
    // At another charge the declared m/z must be one of the written envelope's
    // peaks: an isotope below the mono-isotopic one is no reading of this ion.
    if (declared.m_charge != written.m_charge && shift < 0) {
        return std::nullopt;
    }
    return shift;
}

void AppendUnconfirmedDeclared(std::vector<Precursor>& written,
                               const std::vector<Precursor>& declared, double tolerance_ppm) {
    const std::size_t detected = written.size();
    for (const Precursor& candidate : declared) {
        const auto shows = [&](std::size_t i) {
            return DeclaredIsotopeShift(candidate, written[i], tolerance_ppm).has_value();
        };
        bool shown = false;
        for (std::size_t i = 0; i < detected && !shown; ++i) {
            shown = shows(i);
        }
        if (!shown) {
            written.push_back({candidate.m_mz, candidate.m_charge, PrecursorEvidence{}});
        }
    }
}

double EnvelopeIntensityIn(const PeakList& peaks, const Precursor& precursor, double tolerance_ppm,
                           double low, double high) {
    double sum = 0.0;
    if (peaks.empty()) {
        return sum;
    }
    for (int32_t offset = 0; offset < kEnvelopePeaks; ++offset) {
        const double position = IsotopePosition(precursor, offset);
        if (position > high) {
            break;
        }
        if (position < low) {
            continue;
        }
        const Peak nearest = FindNearestPeak(peaks, position);
        if (std::fabs(nearest.m_mz - position) < MzTolerance{tolerance_ppm, true}.at(position)) {
            sum += nearest.m_intensity;
        }
    }
    return sum;
}

double WindowPurity(const PeakList& peaks, const Precursor& precursor, double tolerance_ppm,
                    double low, double high) {
    double total = 0.0;
    for (auto peak = std::lower_bound(peaks.begin(), peaks.end(), low,
                                      [](const Peak&p, double value) { return p.m_mz < value; });
         peak != peaks.end() && peak->m_mz <= high; ++peak) {
        total += peak->m_intensity;
    }
    if (!(total > 0.0)) {
        return 0.0;
    }
    return std::clamp(EnvelopeIntensityIn(peaks, precursor, tolerance_ppm, low, high) / total, 0.0,
                      1.0);
}

void FillEvidence(MS2Spectrum& scan, const EvidenceInput& input) {
    const Precursor* declared =
        scan.m_instrument_precursors.empty() ? nullptr : &scan.m_instrument_precursors.front();
    const bool sliced = input.m_slices != nullptr && input.m_slices->size() > 5 && input.m_times;
    const double half = input.m_isolation_width / 2.0;
    const double low = scan.m_activation_center - half;
    const double high = scan.m_activation_center + half;
    std::size_t detected_rank = 0;
    for (Precursor& precursor : scan.m_precursors) {
        const bool from_detection = precursor.m_evidence.m_origin != PrecursorOrigin::kDeclaredKept;
        fill_origin(precursor, declared, detected_rank, input.m_tolerance_ppm);
        detected_rank += from_detection ? 1 : 0;
        if (!sliced) {
            continue;
        }
        const PeakList& parent = (*input.m_slices)[4];
        PrecursorEvidence& evidence = precursor.m_evidence;
        evidence.m_intensity =
            EnvelopeIntensityIn(parent, precursor, input.m_tolerance_ppm, -HUGE_VAL, HUGE_VAL);
        evidence.m_purity = WindowPurity(parent, precursor, input.m_tolerance_ppm, low, high);
        const SliceTimes& times = *input.m_times;
        if (times.m_next && *times.m_next != times.m_parent) {
            const double next =
                WindowPurity((*input.m_slices)[5], precursor, input.m_tolerance_ppm, low, high);
            evidence.m_purity = interpolated(evidence.m_purity, next, times, scan.m_retention_time);
        }
    }
}

}  // namespace ksieve
