// The scan gate: which MS2 scans kSieve determines precursors for, by the word
// of their activation method and the analyser they were read out in. Scans of
// any other kind reach no output at all. The companion counts the scans it
// writes that the gate will skip by this same rule, so its account cannot
// drift from what kSieve does. Header only, no I/O.
#pragma once

#include <algorithm>
#include <array>
#include <string_view>

namespace ksieve {

// The activation words the gate lets through, as the `.ms2` ActivationType
// line spells them (case matters).
inline constexpr std::array<std::string_view, 5> kGatedActivationTypes = {"CID", "HCD", "ETD",
                                                                          "ETCID", "ETHCD"};

// The instrument type of a scan from the first letter of its InstrumentType
// word: Fourier-transform analysers (FTMS, and Q for the quadrupole-Orbitrap
// names) are "FT", ion traps (ITMS) "IT", anything else "Unknown".
constexpr std::string_view instrument_type_of_letter(char first) {
    if (first == 'F' || first == 'Q') {
        return "FT";
    }
    return first == 'I' ? "IT" : "Unknown";
}

// True when an MS2 scan of this activation word and instrument type (as
// instrument_type_of_letter gives it) passes the gate.
constexpr bool gate_passes(std::string_view activation_type, std::string_view instrument_type) {
    return std::find(kGatedActivationTypes.begin(), kGatedActivationTypes.end(), activation_type) !=
               kGatedActivationTypes.end() &&
           (instrument_type == "FT" || instrument_type == "IT");
}

}  // namespace ksieve
