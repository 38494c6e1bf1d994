#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "spectrumfiles.h"
#include "utils.h"

namespace ksieve {

char g_peak_format[32] = "%.5f %.1f\n";

void set_peak_format(const std::string& format) {
    std::strncpy(g_peak_format, format.c_str(), sizeof(g_peak_format) - 1);
}

namespace {

// Decimals of the m/z and the intensity of one peak line.
struct PeakDigits {
    int m_mz = 0;
    int m_intensity = 0;
};

// Two digits at most: a wider precision would overflow the line buffer below.
const char* read_precision(const char* format, int& digits) {
    if (format[0] != '%' || format[1] != '.' || format[2] < '0' || format[2] > '9') {
        return nullptr;
    }
    digits = format[2] - '0';
    const char* rest = format + 3;
    if (*rest >= '0' && *rest <= '9') {
        digits = digits * 10 + (*rest++ - '0');
    }
    return *rest == 'f' ? rest + 1 : nullptr;
}

// The digits of a format "%.<m>f %.<i>f\n", the form that finalising builds;
// nothing for any other format, which then goes to fprintf as it stands.
std::optional<PeakDigits> fixed_digits(const char* format) {
    PeakDigits digits;
    const char* rest = read_precision(format, digits.m_mz);
    if (rest == nullptr || *rest != ' ') {
        return std::nullopt;
    }
    rest = read_precision(rest + 1, digits.m_intensity);
    if (rest == nullptr || std::strcmp(rest, "\n") != 0) {
        return std::nullopt;
    }
    return digits;
}

// Room for two fixed-point doubles (at most 309 integer digits, a sign, a point
// and 99 decimals each), the blank and the line feed.
constexpr std::size_t kPeakLineSize = 1024;

char* put_fixed(char* out, char* end, double value, int digits) {
    const auto [next, error] = std::to_chars(out, end, value, std::chars_format::fixed, digits);
    KS_ASSERT(error == std::errc(), "error == std::errc()");
    return next;
}

// The hot path of MGF output: to_chars prints exactly what printf "%.Nf"
// prints, without parsing the format for every peak. The lines of one scan are
// formatted once into `text`, since every precursor's block repeats them.
void format_peaks(std::string& text, const std::vector<Peak>& peaks) {
    text.clear();
    const std::optional<PeakDigits> digits = fixed_digits(g_peak_format);
    char line[kPeakLineSize];
    char* const end = line + kPeakLineSize;
    for (const Peak& peak : peaks) {
        char* out = line;
        if (digits) {
            out = put_fixed(out, end, peak.m_mz, digits->m_mz);
            *out++ = ' ';
            out = put_fixed(out, end, peak.m_intensity, digits->m_intensity);
            *out++ = '\n';
        } else {
            const int written =
                std::snprintf(line, kPeakLineSize, g_peak_format, peak.m_mz, peak.m_intensity);
            out += std::clamp(written, 0, static_cast<int>(kPeakLineSize) - 1);
        }
        text.append(line, out);
    }
}

// Negative ions carry their sign behind the number, as in "CHARGE=3-".
bool write_charge(std::FILE* stream, int32_t charge) {
    if (charge >= 0) {
        return std::fprintf(stream, "CHARGE=%d+\n", charge) >= 0;
    }
    return std::fprintf(stream, "CHARGE=%lld-\n", -static_cast<long long>(charge)) >= 0;
}

bool write_block(std::FILE* stream, const MgfFile& file, const MS2Spectrum& scan, std::size_t i) {
    const Precursor& precursor = scan.m_precursors[i];
    const std::string& peaks = file.m_peak_text;
    // The opt-in conventions of most search engines: seconds, and the scan on its own line.
    const double seconds =
        file.m_conventions ? scan.m_retention_time * 60.0 : scan.m_retention_time;
    return std::fputs("BEGIN IONS\n", stream) >= 0 &&
           std::fprintf(stream, "TITLE=%s.%d.%d.%d.%d.dta\n", file.m_title.c_str(), scan.m_scan,
                        scan.m_scan, precursor.m_charge, static_cast<int>(i)) >= 0 &&
           (!file.m_conventions || std::fprintf(stream, "SCANS=%d\n", scan.m_scan) >= 0) &&
           write_charge(stream, precursor.m_charge) &&
           std::fprintf(stream, "RTINSECONDS=%.7f\n", seconds) >= 0 &&
           std::fprintf(stream, "PEPMASS=%f\n", precursor.m_mz) >= 0 &&
           std::fwrite(peaks.data(), 1, peaks.size(), stream) == peaks.size() &&
           std::fputs("END IONS\n", stream) >= 0;
}

}  // namespace

void open_mgf_file(MgfFile& file, std::string path, std::string mode, std::string title) {
    open_spectrum_file(file.m_head, std::move(path), std::move(mode));
    file.m_title = std::move(title);
}

// The title counts the precursors of a scan from 0; the precursor table counts
// them from 1.
void write_mgf_blocks(MgfFile& file, const MS2Spectrum& scan) {
    std::FILE* stream = file.m_head.m_stream;
    if (!scan.m_precursors.empty()) {
        format_peaks(file.m_peak_text, scan.m_peaks);
    }
    for (std::size_t i = 0; i < scan.m_precursors.size(); ++i) {
        check_written(write_block(stream, file, scan, i), file.m_head.m_path);
    }
}

}  // namespace ksieve
