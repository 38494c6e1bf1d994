#include "summary.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace ksieve::eval {

namespace {

constexpr const char* kScanCountLine = "Scan Number in ";

std::string file_name(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string size_text(uintmax_t bytes) {
    if (bytes < 1024) {
        return format_text("%ju B", bytes);
    }
    if (bytes < 1024 * 1024) {
        return format_text("%.1f kB", static_cast<double>(bytes) / 1024.0);
    }
    return format_text("%.1f MB", static_cast<double>(bytes) / (1024.0 * 1024.0));
}

bool ends_with(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string content_of(const std::string& name) {
    static const std::vector<std::pair<std::string, std::string>> kinds = {
        {".csv", "precursor table, one row per MS2 scan"},
        {".mgf", "MS2 peak lists, one entry per precursor"},
        {".ks1", "MS1 scans, KS binary"},
        {".ks2", "MS2 scans with their precursors, KS binary"},
        {"idx", "index of the KS file beside it"},
        {".ms1", "MS1 scans extracted by the companion"},
        {".ms2", "MS2 scans extracted by the companion"},
        {".spexor", "marker: extraction finished"},
        {".txt", "log"},
    };
    for (const auto& [suffix, content] : kinds) {
        if (ends_with(name, suffix)) {
            return content;
        }
    }
    return "";
}

std::string count_text(int64_t count) {
    return count < 0 ? "?" : std::to_string(count);
}

}  // namespace

DeclaredFate classify_row(const TableRow& row, double ppm) {
    if (row.m_precursors.empty()) {
        return DeclaredFate::kReplaced;
    }
    const Precursor& first = row.m_precursors.front();
    if (first.m_mz == row.m_declared.m_mz && first.m_charge == row.m_declared.m_charge) {
        return DeclaredFate::kKept;
    }
    DeclaredFate fate = DeclaredFate::kReplaced;
    for (const Precursor& detected : row.m_precursors) {
        const std::optional<int> shift = isotope_offset(row.m_declared.m_mz, detected, ppm);
        if (!shift) {
            continue;
        }
        const DeclaredFate found = detected.m_charge != row.m_declared.m_charge
                                       ? DeclaredFate::kChargeChange
                                   : *shift != 0 ? DeclaredFate::kMonoShift
                                                 : DeclaredFate::kConfirmed;
        // The order of the enumeration is the order of preference.
        fate = std::min(fate, found);
    }
    return fate;
}

namespace {

// A log line "...<prefix><path>: <rest>": the file name of <path> and <rest>.
struct NamedLine {
    std::string m_name;
    const char* m_rest = nullptr;
};

std::optional<NamedLine> named_line(const std::string& line, const char* prefix) {
    const size_t start = line.find(prefix);
    const size_t colon = line.rfind(": ");
    if (start == std::string::npos || colon == std::string::npos || colon < start) {
        return std::nullopt;
    }
    const size_t path_start = start + std::char_traits<char>::length(prefix);
    return NamedLine{file_name(line.substr(path_start, colon - path_start)),
                     line.c_str() + colon + 2};
}

}  // namespace

ScanCounts read_scan_counts(const std::string& log_text, const std::string& stem) {
    ScanCounts counts;
    std::istringstream lines(log_text);
    for (std::string line; std::getline(lines, line);) {
        const std::optional<NamedLine> named = named_line(line, kScanCountLine);
        if (!named) {
            continue;
        }
        const std::string& name = named->m_name;
        const int64_t count = std::strtoll(named->m_rest, nullptr, 10);
        if (name == stem + ".ms1") {
            counts.m_ms1 = count;
        } else if (name == stem + ".ms2") {
            counts.m_ms2 = count;
        }
    }
    return counts;
}

std::optional<ValidationCounts> read_validation_tally(const std::string& log_text,
                                                      const std::string& stem) {
    std::optional<ValidationCounts> tally;
    std::istringstream lines(log_text);
    for (std::string line; std::getline(lines, line);) {
        const std::optional<ValidationCountsRead> read = ReadValidationCountsLine(line);
        if (read && file_name(read->m_path) == stem + ".ms1") {
            tally = read->m_counts;
        }
    }
    return tally;
}

RunSummary summarise(const std::vector<TableRow>& rows, const ScanCounts& read, double ppm) {
    RunSummary summary;
    summary.m_read = read;
    for (const TableRow& row : rows) {
        ++summary.m_written;
        summary.m_precursors += static_cast<int64_t>(row.m_precursors.size());
        const DeclaredFate fate = classify_row(row, ppm);
        ++summary.m_fates[static_cast<size_t>(fate)];
        if (fate != DeclaredFate::kKept && row.m_precursors.size() >= 2) {
            ++summary.m_with_coeluted;
        }
    }
    return summary;
}

namespace {

std::string format_validation(const ValidationCounts& tally) {
    static const std::pair<const char*, int64_t ValidationCounts::*> kReasons[] = {
        {"removed: charge alias         ", &ValidationCounts::m_charge_alias},
        {"removed: isotope alias        ", &ValidationCounts::m_isotope_alias},
        {"removed: duplicate            ", &ValidationCounts::m_duplicate},
        {"removed: does not co-elute    ", &ValidationCounts::m_not_coeluting},
        {"removed: poor envelope        ", &ValidationCounts::m_poor_envelope},
        {"corrected: mono-isotopic peak ", &ValidationCounts::m_corrected_isotope},
        {"corrected: charge             ", &ValidationCounts::m_corrected_charge},
        {"scans left with best detected ", &ValidationCounts::m_restored}};
    std::string text =
        format_text("  precursor validation  %" PRId64 " detected, %" PRId64 " kept\n", tally.m_in,
                    tally.m_out);
    for (const auto& [label, member] : kReasons) {
        text += format_text("    %s  %6" PRId64 "\n", label, tally.*member);
    }
    return text;
}

}  // namespace

std::string format_summary(const std::string& stem, const RunSummary& summary, double ppm,
                           const std::string& directory, const std::vector<OutputFile>& outputs) {
    const auto& fates = summary.m_fates;
    std::string text = "kSieve run summary: " + stem + "\n";
    text += "  scans read            " + count_text(summary.m_read.m_ms1) + " MS1, " +
            count_text(summary.m_read.m_ms2) + " MS2\n";
    text += format_text("  MS2 scans written     %" PRId64 ", with %" PRId64 " precursors\n",
                        summary.m_written, summary.m_precursors);
    text +=
        format_text("  declared precursor    (same ion: same charge, m/z within %g ppm)\n", ppm);
    text += format_text("    kept, nothing detected          %6" PRId64 "\n", fates[0]);
    text += format_text("    confirmed by detection          %6" PRId64 "\n", fates[1]);
    text += format_text("    changed: mono-isotopic shift    %6" PRId64 "\n", fates[2]);
    text += format_text("    changed: charge                 %6" PRId64 "\n", fates[3]);
    text += format_text("    replaced by other ions          %6" PRId64 "\n", fates[4]);
    text += format_text("  scans that gained co-eluted precursors: %" PRId64 "\n",
                        summary.m_with_coeluted);
    if (summary.m_validation) {
        text += format_validation(*summary.m_validation);
    }
    text += "  outputs in " + directory + "/\n";
    for (const OutputFile& output : outputs) {
        text += format_text("    %-28s %10s  %s\n", output.m_name.c_str(),
                            size_text(output.m_bytes).c_str(), content_of(output.m_name).c_str());
    }
    return text;
}

}  // namespace ksieve::eval
