// Accuracy of kSieve's precursor table against the ground truth of a simulated
// run: are the precursors written for each MS2 scan the peptide ions that were
// really isolated, with the right mono-isotopic m/z and charge?
//
// kSieve's table (<stem>.csv) has a header line, then one row per MS2 scan
// written: activation type, instrument type, scan, the declared m/z and charge,
// the number of precursors, then (n, m/z, charge) for each precursor, best
// model score first; every field is followed by ", ". The simulator's truth
// (<stem>_truth.csv) has one row per peptide ion with MS1 intensity inside a
// scan's isolation window, with its share of all the intensity there.
//
// A written precursor matches a true ion when the charges are equal and the
// m/z differs by at most the tolerance, in ppm of the true m/z. Each true ion
// is matched by one written precursor at most, the nearest, taken in the order
// written, so a precursor written twice counts once.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "records.h"

namespace ksieve::eval {

// One row of kSieve's precursor table.
struct TableRow {
    int32_t m_scan = 0;
    Precursor m_declared;                 // the instrument's first declared precursor
    std::vector<Precursor> m_precursors;  // as written, best first
};

// The rows in file order. Lines may end in "\r\n". Throws std::runtime_error,
// naming the file and the line, when the file cannot be read, its first line is
// not the table's header, or a row does not hold the precursors that its count
// announces.
std::vector<TableRow> read_precursor_table(const std::string& path);

struct TruthIon {
    Precursor m_ion;       // true mono-isotopic m/z and charge
    double m_share = 0.0;  // of the MS1 intensity in the isolation window, 0 to 1
};

// The isolated ions of each MS2 scan, largest share first; the first is the
// scan's dominant ion.
using TruthTable = std::map<int32_t, std::vector<TruthIon>>;

// Reads the columns ms2_scan, charge, mono_mz and window_share, found by the
// names of the header line. Throws std::runtime_error, naming the file and the
// line, when the file cannot be read, a column is missing or a field is not a
// number.
TruthTable read_truth_table(const std::string& path);

struct MatchRules {
    double m_ppm = 10.0;
    // Co-eluted ions with a smaller share are not required to be found, and a
    // precursor that matches one is not counted against the table either: the
    // ion was isolated, but it gives too little fragment signal to matter.
    double m_min_share = 0.05;
};

// Same charge, and |written m/z - true m/z| at most `ppm` parts per million of
// the true m/z.
bool same_ion(const Precursor& written, const Precursor& truth, double ppm);

// Neighbouring isotope peaks of a peptide ion lie kIsotopeSpacing / charge m/z
// apart. A precursor off by a few of these has the right ion but the wrong
// mono-isotopic peak; instruments and detectors slip by one or two, rarely more.
inline constexpr int kMaxIsotopeShift = 4;

// The k from -kMaxIsotopeShift to kMaxIsotopeShift, smallest |k| first, for
// which `mz` lies within `ppm` (of the ion's m/z) of the ion's m/z plus
// k * kIsotopeSpacing / charge; nothing when there is none.
std::optional<int> isotope_offset(double mz, const Precursor& ion, double ppm);

// For each written precursor, the index of the true ion that it matches, or -1.
std::vector<int> match_precursors(const std::vector<Precursor>& written,
                                  const std::vector<TruthIon>& truth, double ppm);

struct AccuracyCounts {
    int64_t m_scans = 0;       // MS2 scans in the truth
    int64_t m_rows = 0;        // of those, scans with a row in the table
    int64_t m_precursors = 0;  // precursors written
    // Dominant ion: precision asks whether a row's first precursor is it,
    // recall whether any precursor of the scan is it.
    int64_t m_first_is_dominant = 0;
    int64_t m_dominant_found = 0;
    // Co-eluted ions: the others with at least the minimum share. Precision is
    // over the precursors after the first, leaving out those that match an ion
    // below the minimum share; recall over the co-eluted ions.
    int64_t m_coeluted = 0;
    int64_t m_coeluted_found = 0;
    int64_t m_extra = 0;
    int64_t m_extra_correct = 0;  // extra precursors that match an ion of the minimum share
    // Written precursors that match no true ion: on another isotope peak of a
    // true ion with its charge, on a peak of a true ion with another charge,
    // or elsewhere.
    int64_t m_wrong_isotope = 0;
    int64_t m_wrong_charge = 0;
    int64_t m_wrong_other = 0;
};

// Written precursors that match a true ion of their window, of any share (a
// second precursor for one ion does not), over all written precursors: how many
// of the blocks a search engine is given are real. 0 when nothing was written.
int64_t matching_precursors(const AccuracyCounts& counts);
double precision(const AccuracyCounts& counts);

// Throws std::runtime_error when a row's scan is not in the truth or appears in
// two rows: the table and the truth are not from the same run.
AccuracyCounts evaluate(const std::vector<TableRow>& rows, const TruthTable& truth,
                        const MatchRules& rules);

struct LabelledCounts {
    std::string m_label;
    AccuracyCounts m_counts;
};

// printf into a string, for the reports of the evaluation tools.
[[gnu::format(printf, 1, 2)]] std::string format_text(const char* format, ...);

// Two Markdown tables with one line per evaluated table, after a line that
// states the truth and the rules: rows, precursors, the precision over all
// written precursors and the four figures as
// percentages with their counts ("-" for an empty denominator); then the
// written precursors that match no true ion, by where they lie.
std::string format_report(const std::vector<LabelledCounts>& runs, const MatchRules& rules);

}  // namespace ksieve::eval
