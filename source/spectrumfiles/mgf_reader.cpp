#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "spectrumfiles.h"
#include "utils.h"

namespace ksieve {

namespace {

// A block without a CHARGE line is taken as doubly charged, the common case of
// tryptic peptides; a block without PEPMASS gets an m/z that the end of the
// scan drops.
constexpr int32_t kDefaultCharge = 2;
constexpr double kMissingMass = -1.0;

// Where the text behind "CHARGE=", "PEPMASS=" and "TITLE=" starts.
constexpr std::size_t kChargeDigits = 7;
constexpr std::size_t kChargeSignSearch = 8;
constexpr std::size_t kMassDigits = 8;
constexpr std::size_t kTitleText = 6;

// The text from `position` on, or the empty text at the terminator of a shorter
// line: bytes behind it are left over from longer lines before.
char* text_from(char* line, std::size_t position) {
    return line + std::min(position, std::strlen(line));
}

// Truncation toward zero as the processor's conversion does it: a value out of
// the 32-bit range, or NaN, gives the "integer indefinite" INT_MIN.
int32_t truncate_to_int(double value) {
    if (!(value > static_cast<double>(INT_MIN) - 1.0 &&
          value < static_cast<double>(INT_MAX) + 1.0)) {
        return INT_MIN;
    }
    return static_cast<int32_t>(value);
}

// "CHARGE=2+", "CHARGE=3-": the first sign from position 8 on ends the number
// and gives its polarity; no sign at all is a positive charge.
int32_t read_charge(char* line) {
    char* sign = std::strpbrk(text_from(line, kChargeSignSearch), "+-");
    const bool negative = sign != nullptr && *sign == '-';
    if (sign != nullptr) {
        *sign = '\0';
    }
    const double value = text_to_double(text_from(line, kChargeDigits));
    return truncate_to_int(negative ? -value : value);
}

// "TITLE=RAWName.scan.scan.charge.dta": the scan number is the second dotted
// piece. Any failure here, a title of fewer pieces among them, ends the run with
// the title message.
int32_t read_title_scan(char* line) {
    try {
        const std::vector<std::string> pieces = split(text_from(line, kTitleText), ".");
        return text_to_int(pieces.at(1).c_str());
    } catch (...) {
        throw kMgfTitleFailure;
    }
}

}  // namespace

bool ReadMgfScan(MgfFile& file, MS2Spectrum& scan) {
    char* line = file.m_line;
    int32_t charge = 0;
    double mass = kMissingMass;
    bool same_scan = false;
    while (pending_or_next_line(file.m_head, line)) {
        if (line[0] >= '0' && line[0] <= '9' && !same_scan) {
            scan.m_peaks.push_back(parse_peak_line(line));
        } else if (line[0] == 'E') {
            // Charge and mass carry over to a following block of the same scan.
            if (charge == 0) {
                charge = kDefaultCharge;
            }
            scan.m_precursors.push_back({mass, charge});
        } else if (line[0] == 'T') {
            const int32_t number = read_title_scan(line);
            if (number == scan.m_scan) {
                same_scan = true;  // a repeated block adds its precursor, not its peaks
            } else if (!scan.m_peaks.empty()) {
                finish_ms2_scan(file.m_head, scan);
                return true;  // the title opens the next scan
            } else {
                scan.m_scan = number;
            }
        } else if (line[0] == 'C') {
            charge = read_charge(line);
        } else if (line[0] == 'P') {
            mass = text_to_double(text_from(line, kMassDigits));
        }
        line[0] = '\0';
    }
    if (scan.m_peaks.empty()) {
        return false;
    }
    finish_ms2_scan(file.m_head, scan);
    return true;
}

}  // namespace ksieve
