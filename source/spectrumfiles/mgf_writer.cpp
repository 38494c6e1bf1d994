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
void format_peaks(std::string& text, const std::string& format, const std::vector<Peak>& peaks) {
    text.clear();
    const std::optional<PeakDigits> digits = fixed_digits(format.c_str());
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
                std::snprintf(line, kPeakLineSize, format.c_str(), peak.m_mz, peak.m_intensity);
            out += std::clamp(written, 0, static_cast<int>(kPeakLineSize) - 1);
        }
        text.append(line, out);
    }
}

// Negative ions carry their sign behind the number, as in "CHARGE=3-".
void append_charge(std::string& text, int32_t charge) {
    if (charge >= 0) {
        append_format(text, "CHARGE=%d+\n", charge);
    } else {
        append_format(text, "CHARGE=%lld-\n", -static_cast<long long>(charge));
    }
}

void append_block(std::string& text, const std::string& peaks, const MgfLayout& layout,
                  const MS2Spectrum& scan, std::size_t i) {
    const Precursor& precursor = scan.m_precursors[i];
    // The opt-in conventions of most search engines: seconds, and the scan on its own line.
    const double seconds =
        layout.m_conventions ? scan.m_retention_time * 60.0 : scan.m_retention_time;
    text += "BEGIN IONS\n";
    text += "TITLE=";
    append_mgf_title(text, layout.m_title, scan, i);
    text += '\n';
    if (layout.m_conventions) {
        append_format(text, "SCANS=%d\n", scan.m_scan);
    }
    append_charge(text, precursor.m_charge);
    append_format(text, "RTINSECONDS=%.7f\n", seconds);
    if (layout.m_conventions && precursor.m_evidence.m_intensity > 0.0) {
        // As most converters write it: the precursor's intensity behind its m/z,
        // left out when the parent scan shows none.
        append_format(text, "PEPMASS=%f %.1f\n", precursor.m_mz, precursor.m_evidence.m_intensity);
    } else {
        append_format(text, "PEPMASS=%f\n", precursor.m_mz);
    }
    text += peaks;
    text += "END IONS\n";
}

}  // namespace

void append_mgf_title(std::string& text, const std::string& stem, const MS2Spectrum& scan,
                      std::size_t i) {
    append_format(text, "%s.%d.%d.%d.%d.dta", stem.c_str(), scan.m_scan, scan.m_scan,
                  scan.m_precursors[i].m_charge, static_cast<int>(i));
}

void open_mgf_file(MgfFile& file, std::string path, std::string mode, std::string title) {
    open_spectrum_file(file.m_head, std::move(path), std::move(mode));
    file.m_layout.m_title = std::move(title);
}

// The title counts the precursors of a scan from 0; the precursor table counts
// them from 1.
void format_mgf_blocks(std::string& text, std::string& peak_text, const MgfLayout& layout,
                       const MS2Spectrum& scan) {
    text.clear();
    if (scan.m_precursors.empty()) {
        return;
    }
    format_peaks(peak_text, layout.m_peak_format, scan.m_peaks);
    for (std::size_t i = 0; i < scan.m_precursors.size(); ++i) {
        append_block(text, peak_text, layout, scan, i);
    }
}

void write_mgf_text(MgfFile& file, const std::string& text) {
    check_written(std::fwrite(text.data(), 1, text.size(), file.m_head.m_stream) == text.size(),
                  file.m_head.m_path);
}

}  // namespace ksieve
