// The text of the `.ms1`/`.ms2` pair and the files that hold it.
//
// The reader finds its values at fixed character positions and tells lines apart
// by their first characters, so every line here starts with its record letter
// and every keyword is spelled exactly; additional per-scan lines use a keyword
// whose third character no reader rule looks at.
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

#include "spexor.h"

namespace ksieve::spexor {
namespace {

constexpr int kRetentionDigits = 6;  // minutes: 0.06 ms steps
constexpr int kInjectionDigits = 4;  // milliseconds

void append_fixed_exact(std::string& text, double value, int digits) {
    char buffer[400];  // the longest fixed form of a finite double with 10 decimals
    auto result =
        std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed, digits);
    text.append(buffer, result.ptr);
}

}  // namespace

void append_fixed(std::string& text, double value, int digits) {
    static constexpr double kScale[] = {1e0, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6, 1e7, 1e8, 1e9, 1e10};
    static constexpr std::uint64_t kPower[] = {
        1, 10, 100, 1000, 10000, 100000, 1000000, 10000000, 100000000, 1000000000, 10000000000};
    const double magnitude = std::fabs(value);
    // The product is within half an ulp of the exact one; only a product that
    // close to a rounding boundary, or too large for exact integers, needs the
    // exact digits.
    const double scaled = magnitude * kScale[digits];
    const double floor = std::floor(scaled);
    const double fraction = scaled - floor;
    const double margin = scaled * 4e-16;
    if (!(scaled < 1e15) || std::fabs(fraction - 0.5) <= margin) {
        append_fixed_exact(text, value, digits);
        return;
    }
    const std::uint64_t units = static_cast<std::uint64_t>(floor) + (fraction > 0.5 ? 1 : 0);
    char buffer[48];
    char* at = buffer;
    if (std::signbit(value)) {
        *at++ = '-';
    }
    at = std::to_chars(at, buffer + sizeof buffer, units / kPower[digits]).ptr;
    if (digits > 0) {
        *at++ = '.';
        char decimals[16];
        char* end = std::to_chars(decimals, decimals + sizeof decimals, units % kPower[digits]).ptr;
        const auto length = end - decimals;
        std::memset(at, '0', static_cast<std::size_t>(digits - length));
        at += digits - length;
        std::memcpy(at, decimals, static_cast<std::size_t>(length));
        at += length;
    }
    text.append(buffer, at);
}

namespace {

// Volts as the file gives them: "-45", "-47.5".
void append_shortest(std::string& text, double value) {
    char buffer[32];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    text.append(buffer, result.ptr);
}

void append_int(std::string& text, int value) {
    char buffer[16];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    text.append(buffer, result.ptr);
}

void append_info(std::string& text, std::string_view keyword) {
    text += "I\t";
    text += keyword;
    text += '\t';
}

void append_native_id(std::string& text, const std::string& native_id) {
    if (native_id.empty()) {
        return;
    }
    append_info(text, "NativeID");
    for (const char c : std::string_view(native_id).substr(0, kMaxNativeIdBytes)) {
        const bool breaks = c == '\t' || c == '\n' || c == '\r' || c == '\0';
        text += breaks ? ' ' : c;
    }
    text += '\n';
}

// S, I lines and peaks shared by both files; `ms2_extra` writes the MS2 lines
// that belong between the common I lines and the peaks.
template <typename Extra>
void append_scan(std::string& text, const ScanRecord& scan, const Options& digits,
                 bool with_precursor_mz, Extra ms2_extra) {
    text += "S\t";
    append_int(text, scan.number);
    text += '\t';
    append_int(text, scan.number);
    if (with_precursor_mz) {
        text += '\t';
        append_fixed(text, scan.precursors.front().mz, digits.mz_digits);
    }
    text += '\n';
    append_native_id(text, scan.native_id);
    append_info(text, "RetTime");
    append_fixed(text, scan.retention_minutes, kRetentionDigits);
    text += '\n';
    if (scan.injection_ms) {
        append_info(text, "IonInjectionTime");
        append_fixed(text, *scan.injection_ms, kInjectionDigits);
        text += '\n';
    }
    append_info(text, "InstrumentType");
    text += scan.instrument_type;
    text += '\n';
    append_info(text, "Centroiding");
    text += scan.centroiding;
    text += '\n';
    if (scan.faims_cv) {
        append_info(text, "CompensationVoltage");
        append_shortest(text, *scan.faims_cv);
        text += '\n';
    }
    ms2_extra();
    for (const PeakPoint& peak : scan.peaks) {
        append_fixed(text, peak.mz, digits.mz_digits);
        text += ' ';
        append_fixed(text, peak.intensity, digits.intensity_digits);
        text += '\n';
    }
}

std::FILE* open_part(const std::string& path) {
    std::FILE* file = std::fopen((path + ".part").c_str(), "wb");
    if (file == nullptr) {
        throw std::runtime_error("cannot create " + path + ".part: " + std::strerror(errno));
    }
    return file;
}

// `name` is the file as the user sees it in messages.
void write_all(std::FILE* file, std::string& text, const std::string& name) {
    if (!text.empty() && std::fwrite(text.data(), 1, text.size(), file) != text.size()) {
        throw std::runtime_error("cannot write " + name + ": " + std::strerror(errno));
    }
    text.clear();
}

void close_checked(std::FILE*& file, const std::string& name) {
    bool failed = std::ferror(file) != 0;
    failed = std::fclose(file) != 0 || failed;
    file = nullptr;
    if (failed) {
        throw std::runtime_error("cannot finish writing " + name);
    }
}

void rename_part(const std::string& path) {
    if (std::rename((path + ".part").c_str(), path.c_str()) != 0) {
        throw std::runtime_error("cannot rename " + path + ".part to " + path + ": " +
                                 std::strerror(errno));
    }
}

}  // namespace

double singly_protonated_mass(double mz, int charge) {
    if (std::fabs(mz) < 1e-6) {
        return 0.0;
    }
    return mz * charge - (charge - 1) * kProtonMass;
}

void append_header_line(std::string& text, std::string_view key, std::string_view value) {
    text += "H\t";
    text += key;
    text += '\t';
    text += value;
    text += '\n';
}

void append_ms1_scan(std::string& text, const ScanRecord& scan, const Options& digits) {
    append_scan(text, scan, digits, false, [] {});
}

void append_ms2_scan(std::string& text, const ScanRecord& scan, const Options& digits) {
    append_scan(text, scan, digits, !scan.precursors.empty(), [&] {
        if (!scan.activation_type.empty()) {
            append_info(text, "ActivationType");
            text += scan.activation_type;
            text += '\n';
        }
        append_info(text, "ActivationCenter");
        append_fixed(text, scan.activation_center, digits.mz_digits);
        text += '\n';
        if (scan.precursor_scan > 0) {
            append_info(text, "PrecursorScan");
            append_int(text, scan.precursor_scan);
            text += '\n';
        }
        for (const DeclaredPrecursor& precursor : scan.precursors) {
            text += "Z\t";
            append_int(text, precursor.charge);
            text += '\t';
            append_fixed(text, singly_protonated_mass(precursor.mz, precursor.charge),
                         digits.mz_digits);
            text += '\n';
        }
    });
}

OutputPair::OutputPair(const std::string& output_dir, const std::string& stem) {
    std::error_code error;
    std::filesystem::create_directories(output_dir, error);
    if (error) {
        throw std::runtime_error("cannot create the output directory " + output_dir + ": " +
                                 error.message());
    }
    std::string base = (std::filesystem::path(output_dir) / stem).string();
    m_ms1_path = base + ".ms1";
    m_ms2_path = base + ".ms2";
    m_marker_path = base + ".spexor";
    if (std::remove(m_marker_path.c_str()) != 0 && errno != ENOENT) {
        throw std::runtime_error("cannot remove the old marker " + m_marker_path + ": " +
                                 std::strerror(errno));
    }
    m_ms1 = open_part(m_ms1_path);
    try {
        m_ms2 = open_part(m_ms2_path);
    } catch (...) {
        discard();
        throw;
    }
}

OutputPair::~OutputPair() {
    if (!m_committed) {
        discard();
    }
}

void OutputPair::write_ms1(std::string& text) {
    write_all(m_ms1, text, m_ms1_path + ".part");
}

void OutputPair::write_ms2(std::string& text) {
    write_all(m_ms2, text, m_ms2_path + ".part");
}

void OutputPair::commit(const std::string& marker_text) {
    close_checked(m_ms1, m_ms1_path + ".part");
    close_checked(m_ms2, m_ms2_path + ".part");
    rename_part(m_ms1_path);
    rename_part(m_ms2_path);
    std::FILE* marker = std::fopen(m_marker_path.c_str(), "wb");
    if (marker == nullptr) {
        throw std::runtime_error("cannot create the marker " + m_marker_path + ": " +
                                 std::strerror(errno));
    }
    std::string text = marker_text;
    try {
        write_all(marker, text, m_marker_path);
    } catch (...) {
        std::fclose(marker);
        throw;
    }
    close_checked(marker, m_marker_path);
    m_committed = true;
}

void OutputPair::discard() noexcept {
    for (std::FILE** file : {&m_ms1, &m_ms2}) {
        if (*file != nullptr) {
            std::fclose(*file);
            *file = nullptr;
        }
    }
    std::remove((m_ms1_path + ".part").c_str());
    std::remove((m_ms2_path + ".part").c_str());
    std::remove(m_marker_path.c_str());
}

}  // namespace ksieve::spexor
