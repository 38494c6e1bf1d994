// What a user wants to know after kSieve has processed one input: how many
// scans it read and wrote, what became of the precursors that the instrument
// declared, how many scans gained co-eluted precursors, and where the outputs
// are. Everything is read back from the outputs: the precursor table
// <stem>.csv and the log.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "accuracy.h"
#include "validation.h"

namespace ksieve::eval {

// What became of a scan's declared precursor (the first the instrument gave).
enum class DeclaredFate {
    kKept,          // nothing detected: the declared precursors were written
    kConfirmed,     // detected with the same charge and m/z
    kMonoShift,     // same charge, but the declared m/z is another isotope peak
    kChargeChange,  // the declared m/z is a peak of an ion of another charge
    kReplaced,      // only other ions were detected
};
inline constexpr size_t kDeclaredFates = 5;

// The declared m/z stands for an isotope peak of a detected precursor when
// isotope_offset finds one within `ppm`. A row whose first precursor is the
// declared one, to the digits printed, kept it; otherwise the detected
// precursor that best explains the declared one, in the order of the fates,
// decides.
DeclaredFate classify_row(const TableRow& row, double ppm);

// Scans read from the input pair, -1 when the log does not say.
struct ScanCounts {
    int64_t m_ms1 = -1;
    int64_t m_ms2 = -1;
};

// The counts of the last "Scan Number in <path>: <count>" lines in `log_text`
// whose path names <stem>.ms1 and <stem>.ms2, in any directory.
ScanCounts read_scan_counts(const std::string& log_text, const std::string& stem);

// What the precursor validation stage (validate_precursors = 1) did to one
// input: the counts of the last "Precursor validation in <path>: ..." line whose
// path names <stem>.ms1, in any directory; nothing when the stage did not run.
std::optional<ValidationCounts> read_validation_tally(const std::string& log_text,
                                                      const std::string& stem);

struct RunSummary {
    ScanCounts m_read;
    int64_t m_written = 0;     // MS2 scans written: rows of the table
    int64_t m_precursors = 0;  // precursors written
    std::array<int64_t, kDeclaredFates> m_fates{};
    int64_t m_with_coeluted = 0;  // scans with two or more detected precursors
    std::optional<ValidationCounts> m_validation;
};

RunSummary summarise(const std::vector<TableRow>& rows, const ScanCounts& read, double ppm);

// One output file: its name and size in bytes.
struct OutputFile {
    std::string m_name;
    uintmax_t m_bytes = 0;
};

// The summary as the lines a user reads (with what the validation stage removed
// and corrected, by reason, when it ran), ending with the outputs found in
// `directory`, each with its size and what it holds.
std::string format_summary(const std::string& stem, const RunSummary& summary, double ppm,
                           const std::string& directory, const std::vector<OutputFile>& outputs);

}  // namespace ksieve::eval
