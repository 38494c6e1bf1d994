#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>

#include "logger.h"
#include "scangate.h"
#include "spectrumfiles.h"
#include "utils.h"

namespace ksieve {

namespace {

constexpr double kZeroGuard = 1e-6;
constexpr double kMaxIntensity = 1e30;
constexpr double kMaxMz = 100000.0;
// Where the value of "I\tCompensationVoltage\t" begins.
constexpr std::size_t kVoltageColumn = 22;

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// The fixed character positions of S, I and Z lines, read only up to the line's
// terminator: bytes behind it are left over from longer lines before.
class LineView {
  public:
    explicit LineView(char* line) : m_text(line), m_length(std::strlen(line)) {}

    char at(std::size_t position) const { return position < m_length ? m_text[position] : '\0'; }
    // The text from `position` on; empty when the line is shorter.
    char* from(std::size_t position) const { return m_text + std::min(position, m_length); }

  private:
    char* m_text;
    std::size_t m_length;
};

// The next token of `cursor` cut at `delimiter`, as strtok cuts: runs of
// delimiters are skipped and the one that ends the token becomes a terminator.
// The delimiters are a set of bytes.
// Null when no token is left.
char* next_token(char*& cursor, const char* delimiters) {
    cursor += std::strspn(cursor, delimiters);
    if (*cursor == '\0') {
        return nullptr;
    }
    char* token = cursor;
    cursor += std::strcspn(cursor, delimiters);
    if (*cursor != '\0') {
        *cursor++ = '\0';
    }
    return token;
}

// An S line: the first scan number, from position 1 up to the first tab after it.
int32_t read_scan_number(char* line) {
    const LineView view(line);
    if (char* tab = std::strchr(view.from(2), '\t')) {
        *tab = '\0';
    }
    return text_to_int(view.from(1));
}

// The I lines that both readers take: retention time, ion injection time,
// instrument type, FAIMS compensation voltage and the instrument's native id,
// told apart by the letters at positions 2 and 3 (CompensationVoltage against
// Centroiding, which is not read). A voltage that is not a finite number is no voltage: it would
// match no other scan's. False for any other line.
template <typename Spectrum>
bool read_shared_info(const LineView& line, Spectrum& scan) {
    if (line.at(2) == 'R') {
        scan.m_retention_time = text_to_double(line.from(10));
    } else if (line.at(2) == 'I' && line.at(3) == 'o') {
        scan.m_ion_injection_time = text_to_double(line.from(19));
    } else if (line.at(2) == 'I' && line.at(3) == 'n') {
        scan.m_instrument_type = instrument_type_of_letter(line.at(17));
    } else if (line.at(2) == 'C' && line.at(3) == 'o') {
        const double voltage = text_to_double(line.from(kVoltageColumn));
        scan.m_compensation_voltage =
            std::isfinite(voltage) ? std::optional<double>(voltage) : std::nullopt;
    } else if (line.at(2) == 'N') {
        scan.m_native_id = trim(line.from(11), kWhiteSpace);  // "I\tNativeID\t<id>"
    } else {
        return false;
    }
    return true;
}

// A repeated block of a scan keeps the activation, parent and native id of its
// first block.
void read_ms2_info(const LineView& line, MS2Spectrum& scan, bool same_scan) {
    if ((same_scan && line.at(2) == 'N') || read_shared_info(line, scan) || same_scan) {
        return;
    }
    if (line.at(2) == 'A' && line.at(12) == 'T') {
        scan.m_activation_type = trim(line.from(17), kWhiteSpace);
    } else if (line.at(2) == 'A' && line.at(12) == 'C') {
        scan.m_activation_center = text_to_double(line.from(19));
    } else if (line.at(2) == 'P') {
        scan.m_precursor_scan = text_to_int(line.from(16));
    }
}

// A Z line: charge and singly protonated mass MH, which at charge z stands at
// m/z (MH + (z - 1) * proton) / z. A mass of 0 stands for the isolation target
// read so far; a real mass with charge 0 cannot be converted and gets an m/z
// of -1, which the end of the scan drops.
Precursor read_charge_line(char* line, double activation_center) {
    char* cursor = LineView(line).from(2);
    const char* charge_field = next_token(cursor, "\t");
    const char* mass_field = next_token(cursor, "\t");
    const int32_t charge = charge_field != nullptr ? text_to_int(charge_field) : 0;
    const double mass = mass_field != nullptr ? text_to_double(mass_field) : 0.0;
    if (std::fabs(mass) < kZeroGuard) {
        return {activation_center, charge};
    }
    if (charge == 0) {
        return {-1.0, charge};
    }
    return {(mass + (charge - 1.0) * kProtonMass) / charge, charge};
}

bool finish_ms1_scan(LineFile& file, MS1Spectrum& scan) {
    sort_peaks(scan.m_peaks);
    ++file.m_head.m_scan_count;
    return true;
}

// Peak order over doubles, with NaN above every number and equal to itself.
bool key_less(double a, double b) {
    return a < b || (std::isnan(b) && !std::isnan(a));
}

bool key_equal(double a, double b) {
    return a == b || (std::isnan(a) && std::isnan(b));
}

bool sort_less(const Peak& a, const Peak& b) {
    if (!key_equal(a.m_mz, b.m_mz)) {
        return key_less(a.m_mz, b.m_mz);
    }
    return key_less(a.m_intensity, b.m_intensity);
}

}  // namespace

bool pending_or_next_line(SpectrumFile& file, char* line) {
    if (line[0] != '\0') {
        return true;
    }
    if (GetLine(file, line)) {
        return true;
    }
    line[0] = '\0';
    return false;
}

Peak parse_peak_line(char* line) {
    char* cursor = line;
    // Converters write blanks or tabs between the two numbers.
    const char* mz = next_token(cursor, " \t");
    const char* intensity = next_token(cursor, " \t");
    return {text_to_double(mz), intensity != nullptr ? text_to_double(intensity) : 0.0};
}

void add_peak_line(char* line, PeakList& peaks, DroppedValues& dropped) {
    const Peak peak = parse_peak_line(line);
    // Written by no instrument: such values only come from damaged or hostile
    // files, and would poison every sum and window search they reach.
    const bool plausible = std::isfinite(peak.m_intensity) && peak.m_intensity <= kMaxIntensity &&
                           peak.m_mz > 0.0 && peak.m_mz < kMaxMz;
    if (plausible) {
        peaks.push_back(peak);
    } else {
        ++dropped.m_peaks;
    }
}

bool has_finite_targets(const MS2Spectrum& scan) {
    return std::isfinite(scan.m_activation_center) && std::isfinite(scan.m_retention_time) &&
           std::all_of(scan.m_precursors.begin(), scan.m_precursors.end(),
                       [](const Precursor& p) { return std::isfinite(p.m_mz); });
}

void report_dropped_values(const std::string& path, const DroppedValues& dropped) {
    if (dropped.m_peaks == 0 && dropped.m_scans == 0) {
        return;
    }
    log("WARN", "Dropped " + std::to_string(dropped.m_peaks) + " peaks and " +
                    std::to_string(dropped.m_scans) + " scans of " + path +
                    ": numbers not finite or out of range");
}

void sort_peaks(PeakList& peaks) {
    // Instruments and converters almost always write peaks in order already.
    if (!std::is_sorted(peaks.begin(), peaks.end(), sort_less)) {
        std::sort(peaks.begin(), peaks.end(), sort_less);
    }
}

void finish_ms2_scan(SpectrumFile& file, MS2Spectrum& scan) {
    sort_peaks(scan.m_peaks);
    std::vector<Precursor>& precursors = scan.m_precursors;
    for (std::size_t i = precursors.size(); i-- > 0;) {
        if (!is_valid(precursors[i])) {
            precursors.erase(precursors.begin() + static_cast<std::ptrdiff_t>(i));
            log_or_hold(file.m_held_lines, "WARN",
                        "Scan " + std::to_string(scan.m_scan) +
                            " has incorrect precursor infomation, skipping this precursor...");
        }
    }
    scan.m_instrument_precursors = precursors;
    ++file.m_scan_count;
}

bool ReadMs1Scan(LineFile& file, MS1Spectrum& scan) {
    char* line = file.m_line;
    // A pending line was the last one read: the scan begins where it began.
    const off_t after = ftello(file.m_head.m_stream);
    scan.m_source_offset =
        after < 0 ? -1 : static_cast<int64_t>(after) - static_cast<int64_t>(std::strlen(line));
    while (pending_or_next_line(file.m_head, line)) {
        if (is_digit(line[0])) {
            add_peak_line(line, scan.m_peaks, file.m_dropped);
        } else if (line[0] == 'S') {
            if (!scan.m_peaks.empty()) {
                return finish_ms1_scan(file, scan);  // the S line opens the next scan
            }
            scan.m_scan = read_scan_number(line);
        } else if (line[0] == 'I') {
            read_shared_info(LineView(line), scan);
        }
        line[0] = '\0';
    }
    return !scan.m_peaks.empty() && finish_ms1_scan(file, scan);
}

namespace {

// One scan's lines, up to the S line of the next scan (left pending) or the end
// of the file. False when no peak was read.
bool read_ms2_lines(LineFile& file, MS2Spectrum& scan) {
    char* line = file.m_line;
    bool same_scan = false;
    while (pending_or_next_line(file.m_head, line)) {
        if (is_digit(line[0])) {
            add_peak_line(line, scan.m_peaks, file.m_dropped);
        } else if (line[0] == 'S') {
            const int32_t number = read_scan_number(line);
            if (number == scan.m_scan) {
                same_scan = true;
            } else if (!scan.m_peaks.empty()) {
                return true;  // the S line opens the next scan
            } else {
                scan.m_scan = number;
            }
        } else if (line[0] == 'I') {
            read_ms2_info(LineView(line), scan, same_scan);
        } else if (line[0] == 'Z') {
            scan.m_precursors.push_back(read_charge_line(line, scan.m_activation_center));
        }
        line[0] = '\0';
    }
    return !scan.m_peaks.empty();
}

}  // namespace

bool ReadMs2Scan(LineFile& file, MS2Spectrum& scan) {
    return read_scan_with_finite_targets(file.m_head, file.m_dropped, scan, [&](MS2Spectrum& read) {
        return read_ms2_lines(file, read);
    });
}

}  // namespace ksieve
