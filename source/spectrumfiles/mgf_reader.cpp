#include <algorithm>
#include <cctype>
#include <climits>
#include <cmath>
#include <cstring>
#include <optional>
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

bool is_digit(char c) {
    return c >= '0' && c <= '9';
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

// The number behind the first "scan=" of the title that does not stand inside
// a longer word ("controllerType=0 controllerNumber=1 scan=N"), when a digit
// follows it.
std::optional<int32_t> scan_from_title(const char* title) {
    for (const char* at = std::strstr(title, "scan="); at != nullptr;
         at = std::strstr(at + 1, "scan=")) {
        const bool word_start =
            at == title || std::isalnum(static_cast<unsigned char>(at[-1])) == 0;
        if (word_start && is_digit(at[5])) {
            return text_to_int(at + 5);
        }
    }
    return std::nullopt;
}

// The number of a "SCANS=N" line further on in the same block, found by reading
// ahead and returning to where the reader stands. Nothing when the block ends
// first, or when the stream cannot return (a pipe).
std::optional<int32_t> scan_from_scans_line(MgfFile& file) {
    std::FILE* stream = file.m_head.m_stream;
    const off_t start = ftello(stream);
    if (start < 0) {
        return std::nullopt;
    }
    std::optional<int32_t> number;
    char line[kLineBufferSize];
    while (GetLine(file.m_head, line) && std::strncmp(line, "END IONS", 8) != 0 &&
           std::strncmp(line, "BEGIN IONS", 10) != 0) {
        if (std::strncmp(line, "SCANS=", 6) == 0 && is_digit(line[6])) {
            number = text_to_int(line + 6);
            break;
        }
    }
    if (fseeko(stream, start, SEEK_SET) != 0) {
        throw "Cannot relocate to " + std::to_string(start) + " in " + file.m_head.m_path;
    }
    return number;
}

// "TITLE=RAWName.scan.scan.charge.dta": the scan number is the second dotted
// piece. Other converters leave that piece out or put no number there: then the
// title's "scan=N", else the block's "SCANS=N" line gives the number. Failing
// all three, a title of fewer pieces ends the run with the title message, and a
// piece without digits reads as 0.
int32_t read_title_scan(MgfFile& file, char* line) {
    const char* title = text_from(line, kTitleText);
    const std::vector<std::string> pieces = split(title, ".");
    if (pieces.size() < 2 || !is_digit(pieces[1].c_str()[0])) {
        if (const std::optional<int32_t> number = scan_from_title(title)) {
            return *number;
        }
        if (const std::optional<int32_t> number = scan_from_scans_line(file)) {
            return *number;
        }
    }
    if (pieces.size() < 2) {
        throw kMgfTitleFailure;
    }
    return text_to_int(pieces[1].c_str());
}

}  // namespace

namespace {

// One scan's blocks, up to the title of the next scan (left pending) or the end
// of the file. False when no peak was read.
bool read_mgf_lines(MgfFile& file, MS2Spectrum& scan) {
    char* line = file.m_line;
    int32_t charge = 0;
    double mass = kMissingMass;
    bool same_scan = false;
    while (pending_or_next_line(file.m_head, line)) {
        if (is_digit(line[0]) && !same_scan) {
            add_peak_line(line, scan.m_peaks, file.m_dropped);
        } else if (line[0] == 'E') {
            // Charge and mass carry over to a following block of the same scan.
            if (charge == 0) {
                charge = kDefaultCharge;
            }
            scan.m_precursors.push_back({mass, charge});
        } else if (line[0] == 'T') {
            const int32_t number = read_title_scan(file, line);
            if (number == scan.m_scan) {
                same_scan = true;  // a repeated block adds its precursor, not its peaks
            } else if (!scan.m_peaks.empty()) {
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
    return !scan.m_peaks.empty();
}

}  // namespace

bool ReadMgfScan(MgfFile& file, MS2Spectrum& scan) {
    return read_scan_with_finite_targets(file.m_head, file.m_dropped, scan, [&](MS2Spectrum& read) {
        return read_mgf_lines(file, read);
    });
}

}  // namespace ksieve
