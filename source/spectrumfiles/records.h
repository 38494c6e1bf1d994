// The plain records that carry spectra from the readers through precursor
// detection to the writers, and the MS1 window of the per-file pipeline.
//
// These hold data only and do no I/O, so detection and scoring depend on this
// header alone and never on the file code beside it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "physics.h"

namespace ksieve {

// The isotope table (IPV.txt): row m holds the relative intensities of the
// first five isotope peaks of a molecule of singly protonated integer mass m.
// Loaded once per run and read-only afterwards, so every detecting thread and
// the second look at detected precursors share it.
using IsotopeTable = std::vector<std::array<double, 5>>;

// One centroid. Peak lists are kept in peak order (see peak_less) once a reader
// has finished a scan, and every merge keeps that order.
struct Peak {
    double m_mz = 0.0;
    double m_intensity = 0.0;
};

// Peak order: smaller m/z first; at exactly equal m/z, smaller intensity first.
inline bool peak_less(const Peak& a, const Peak& b) {
    return a.m_mz < b.m_mz || (a.m_mz == b.m_mz && a.m_intensity < b.m_intensity);
}

using PeakList = std::vector<Peak>;

// Where a written precursor comes from, as the evidence table names it.
enum class PrecursorOrigin : uint8_t {
    kDeclaredKept,       // the instrument's, written without detection's support
    kDeclaredConfirmed,  // detected at the declared charge and m/z
    kCorrected,          // the declared ion, detected at another isotope or charge
    kDetected,           // the best detected ion, unrelated to the declared one
    kCoeluted,           // a further detected ion, unrelated to the declared one
};

// What supports one written precursor. It travels with the precursor from
// detection to the writers, so that every output reports the same numbers.
// Intensity and purity are filled only when an output needs them.
struct PrecursorEvidence {
    PrecursorOrigin m_origin = PrecursorOrigin::kDeclaredKept;
    bool m_scored = false;  // m_score holds the scoring model's value
    double m_score = 0.0;
    double m_intensity = 0.0;  // isotope envelope summed in the parent MS1 scan
    // Envelope share of all MS1 intensity in the isolation window, 0 to 1.
    double m_purity = 0.0;
    bool m_same_ion = false;        // the declared ion: m_isotope_shift is meaningful
    int32_t m_isotope_shift = 0;    // declared minus written mass, in isotope steps
    double m_declared_mz = 0.0;     // the scan's first declared m/z; 0 when none
    const char* m_validation = "";  // the validation stage's outcome; "" when it did not run
};

// One count of a record of counts and the name that summaries give it; each
// record of counts has one table of these that names every member once.
template <typename Counts>
struct CountName {
    const char* m_name;
    int64_t Counts::*m_member;
};

// A precursor ion: mono-isotopic m/z and charge, negative for negative ions.
struct Precursor {
    Precursor() = default;
    Precursor(double mz, int32_t charge, PrecursorEvidence evidence = {})
        : m_mz(mz), m_charge(charge), m_evidence(evidence) {}

    double m_mz = 0.0;
    int32_t m_charge = 0;
    PrecursorEvidence m_evidence;
};

// Valid when the m/z is at least 1e-6 and the charge is not 0.
inline bool is_valid(const Precursor& precursor) {
    return precursor.m_mz >= 1e-6 && precursor.m_charge != 0;
}

struct MS1Spectrum {
    int32_t m_scan = 0;
    double m_retention_time = 0.0;  // as it stands in the input
    double m_ion_injection_time = 0.0;
    std::string m_instrument_type;  // "FT", "IT" or "Unknown"
    std::vector<Peak> m_peaks;      // peak order
    // Where the reader began this scan in its file, so that its peaks can be read
    // again after the window let them go; -1 when the stream cannot tell.
    int64_t m_source_offset = -1;
    std::optional<double> m_compensation_voltage = std::nullopt;  // FAIMS, V; finite when present
    std::string m_native_id = {};  // the instrument's identity of the scan; empty when not given
};

struct MS2Spectrum {
    int32_t m_scan = 0;
    int32_t m_precursor_scan = 0;      // parent MS1 scan number; 0 when not given
    double m_activation_center = 0.0;  // isolation target m/z
    double m_retention_time = 0.0;     // as it stands in the input
    double m_ion_injection_time = 0.0;
    std::string m_activation_type;                   // trimmed of blanks, tabs and line ends
    std::string m_instrument_type;                   // "FT", "IT" or "Unknown"
    std::vector<Precursor> m_instrument_precursors;  // valid declared ones, never changed
    std::vector<Precursor> m_precursors;             // working list: detection, writers
    std::vector<Peak> m_peaks;                       // peak order
    std::optional<double> m_compensation_voltage = std::nullopt;  // FAIMS, V; finite when present
    std::string m_native_id;  // the instrument's identity of the scan; empty when not given
};

// The MS1 signal around one MS2 scan's isolation target: exactly ten peak lists
// (four scans before the parent, the parent, five after), or none at all.
using Ms1Slices = std::vector<PeakList>;

// The window over the last kMs1StoreSize FT scans. It starts full of default
// records (scan 0), each FT scan pulled drops the front and appends at the back,
// and after the end of the MS1 file every failed pull drops one more. Scan
// numbers never fall from front to back, which the parent search relies on.
using Ms1Store = std::deque<MS1Spectrum>;
inline constexpr std::size_t kMs1StoreSize = 5000;

inline Ms1Store make_ms1_store() {
    return Ms1Store(kMs1StoreSize);
}

}  // namespace ksieve
